#!/bin/sh
# Times a page that shows 2,000 rows from MariaDB in a grid, each run a whole CGI process
# (start-up, connect, query, table shaping, the grid, the response).
#
#   bench/sql_bench.sh [PROGRAM] [RUNS]     defaults: build/tessel, 20 runs
#
# A private MariaDB with the sample database (scripts/mariadb.sh) is started in a temporary
# folder for the run and stopped afterwards.
set -eu

root=$(cd "$(dirname "$0")/.." && pwd)
program=$(realpath "${1:-$root/build/tessel}")
runs=${2:-20}
[ -x "$program" ] || { echo "sql_bench.sh: no program at $program" >&2; exit 1; }

work=$(mktemp -d /tmp/tessel-sqlbench.XXXXXX)
trap 'sh "$root/scripts/mariadb.sh" stop "$work/db" >/dev/null 2>&1 || true; rm -rf "$work"' EXIT INT TERM
url=$(sh "$root/scripts/mariadb.sh" start "$work/db")

site=$work/site
mkdir "$site"
cat >"$site/grid.html" <<PAGE
<html><body>
^server[$url;^sql[select id, name, price, note from bench_rows order by id]
<p>^item[count] rows</p>
<table>
<tr>^table[4;<td>^item[id]. ^item[name]<br>^item[price] ^default[^item[note];-]</td>]</tr>
</table>]
</body></html>
PAGE

run_page() {
    (cd "$site" && env -i PATH="$PATH" DOCUMENT_ROOT="$site" REQUEST_URI=/grid.html \
        PATH_TRANSLATED="$site/grid.html" SCRIPT_NAME=/cgi-bin/tessel REQUEST_METHOD=GET \
        REMOTE_ADDR=127.0.0.1 SERVER_NAME=localhost "$program")
}

# One checked run first: the grid must hold all 2,000 rows and no error.
out=$(run_page)
cells=$(printf '%s' "$out" | grep -o '<td>[0-9]*\. item' | wc -l)
if [ "$cells" -ne 2000 ] || printf '%s' "$out" | grep -q '\[sql\|\[query'; then
    printf '%s\n' "$out" | head -20 >&2
    echo "sql_bench.sh: expected 2000 rows in the grid, got $cells" >&2
    exit 1
fi
bytes=$(printf '%s' "$out" | wc -c)

start=$(date +%s%N)
i=0
while [ $i -lt "$runs" ]; do
    run_page >/dev/null
    i=$((i + 1))
done
end=$(date +%s%N)
total_ms=$(( (end - start) / 1000000 ))
echo "sql_bench: 2000 rows from MariaDB in a 4-column grid, $bytes bytes per page"
echo "sql_bench: $runs runs in $total_ms ms, $(( total_ms * 1000 / runs )) us per request"
