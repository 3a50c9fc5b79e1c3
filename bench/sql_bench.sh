#!/usr/bin/env bash
# Times a page that shows 2,000 rows from MariaDB in a 4-column grid, each request a whole
# process as a web server runs it (start-up, connect, query, table shaping, the grid, the
# response), beside the same grid filled from a table file, so that the share of the database
# shows. Not a test: it prints medians of interleaved runs.
#
#   bash bench/sql_bench.sh      ROUNDS=... (default 50); TESSEL=path to skip the build
#
# A private MariaDB with the sample database (scripts/mariadb.sh) runs in a temp folder for
# the duration and is stopped afterwards.
set -euo pipefail
rounds=${ROUNDS:-50}

source "$(dirname "$0")/common.sh" tessel-sqlbench
trap 'sh "$root/scripts/mariadb.sh" stop "$work/db" >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
db=$(sh "$root/scripts/mariadb.sh" start "$work/db")
cd "$work"
cc -O2 -o runner "$root/bench/runner.c"

# ---- the pages --------------------------------------------------------------------------
grid='<table>
<tr>^table[4;<td>^item[id]. ^item[name]<br>^item[price] ^default[^item[note];-]</td>]</tr>
</table>'
cat >sql.html <<PAGE
<html><body>
^server[$db;^sql[select id, name, price, note from bench_rows order by id]
<p>^item[count] rows</p>
$grid]
</body></html>
PAGE
# The same rows as a named table file "_rows" (NULL notes as empty cells).
mariadb --no-defaults -h127.0.0.1 -P"$(cat "$work/db/port")" -utessel -ptessel-pw tessel \
    -e "select id, name, price, coalesce(note, '') as note from bench_rows order by id" >_rows
cat >file.html <<PAGE
<html><body>
^load[named;rows]
<p>^item[count] rows</p>
$grid
</body></html>
PAGE

export DOCUMENT_ROOT=$work SCRIPT_NAME=/cgi-bin/tessel REQUEST_METHOD=GET
export REMOTE_ADDR=127.0.0.1 SERVER_NAME=localhost QUERY_STRING=

# One checked run of each page: all 2,000 rows in the grid, no error text.
for page in sql.html file.html; do
    PATH_TRANSLATED=$work/$page REQUEST_URI=/$page "$TESSEL" >"$page.out"
    cells=$(grep -o '<td>[0-9]*\. item' "$page.out" | wc -l)
    if [[ $cells -ne 2000 ]] || grep -q '\[sql\|\[query' "$page.out"; then
        head -c 2000 "$page.out" >&2
        echo "sql_bench.sh: $page: expected 2000 rows in the grid, got $cells" >&2
        exit 1
    fi
done

echo "timing $rounds interleaved rounds of whole processes..."
./runner "$rounds" "sql=$TESSEL@$work/sql.html" "file=$TESSEL@$work/file.html" >times
awk '{ t[$1] = $2; b[$1] = $3; c[$1] = $4; r[$1] = $5 }
END {
    printf "%-36s %10s %10s %10s %10s\n", "2,000 rows in a 4-column grid", "median ms", "CPU ms",
        "peak RSS", "bytes"
    printf "%-36s %10.2f %10.2f %7d KB %10d\n", "from MariaDB (server + sql)", t["sql"], c["sql"],
        r["sql"], b["sql"]
    printf "%-36s %10.2f %10.2f %7d KB %10d\n", "from a table file (load)", t["file"], c["file"],
        r["file"], b["file"]
    printf "the database adds %.2f ms per request (%.2fx the table file; target <= 2x)\n",
        t["sql"] - t["file"], t["sql"] / t["file"]
}' times
