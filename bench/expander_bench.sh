#!/usr/bin/env bash
# Counts the instructions the expander spends per operator call, with callgrind, whose counts
# do not depend on how busy the machine is. Two pages: a table page (a 1,000-row table file
# printed through ^menu with ten calls a row, 10,002 calls) and a calls page (20,002 ordinary
# calls: string operators, var, eq and if on the page, and a for loop with a small body).
# Not a test: it prints, for each page, the instructions of the whole process, per call, and
# the share spent inside malloc, free and realloc.
#
#   bash bench/expander_bench.sh          TESSEL=path to skip the build
set -euo pipefail

source "$(dirname "$0")/common.sh" tessel-expander
trap 'rm -rf "$work"' EXIT
if ! command -v valgrind >/dev/null; then
    source "$root/scripts/packages.sh"
    ensure_packages valgrind >&2 || true
fi
if ! command -v valgrind >/dev/null || ! command -v callgrind_annotate >/dev/null; then
    echo "valgrind missing"
    exit 0
fi
cd "$work"

# ---- the pages --------------------------------------------------------------------------
python3 - <<'PY'
import random
random.seed(1)
rows = []
for i in range(1000):
    rows.append("\t".join(["item%d" % i, "Name number %d" % i, str(random.randint(1, 999)),
                           "note <%d> & more" % i, "x" * random.randint(1, 20)]))
open("_rows", "w").write("\n".join(rows) + "\n")
# ^load and ^menu, then ten calls for each of the 1,000 rows.
open("table.html", "w").write(
    "<html><body><table>\n^load[rows]^menu[<tr><td>^item[0]</td><td>^item[1]</td>"
    "<td>^item[2]</td><td>^item[3]</td><td>^left[^item[4];5]</td><td>^item[number]</td>"
    "<td>^item[count]</td><td>^toupper[^item[0]]</td><td>^item[next;1]</td></tr>\n]"
    "</table></body></html>\n")

# 1,000 lines of ten calls each on the page, and a for loop of 1,000 passes whose body holds
# ten calls: 20,002 calls with the first var and the for.
line = ("<p>^var[n;^left[line number 17 of the page;11]] ^toupper[^var[n]] ^left[abc;2] "
        "^eq[^length[abcdef];6;six;other] ^if[^var[k];yes;no] ^default[;empty]</p>\n")
body = ("<li>^var[i] ^left[pass text;4] ^if[^eq[^var[i];3;1;0];three;^var[i]] "
        "^length[^var[i]] ^toupper[x^var[i]]</li>\n")
open("calls.html", "w").write("<html><body>\n^var[k;1]" + line * 1000 + "<ul>^for[i;1;1000;" +
                              body + "]</ul></body></html>\n")
PY

export DOCUMENT_ROOT=$work SCRIPT_NAME=/cgi-bin/tessel REQUEST_METHOD=GET
export REMOTE_ADDR=127.0.0.1 SERVER_NAME=localhost QUERY_STRING=

# Prints the figures of one page: instructions, per call, and the allocator's share.
measure() {
    local page=$1 calls=$2 name=${1%.html}
    PATH_TRANSLATED=$work/$page REQUEST_URI=/$page "$TESSEL" >"$name.out" ||
        { echo "tessel failed on $page" >&2; exit 1; }
    if grep -q '\[invalid operator' "$name.out"; then
        echo "warning: $page uses an operator this build lacks" >&2
    fi
    PATH_TRANSLATED=$work/$page REQUEST_URI=/$page valgrind --tool=callgrind \
        --callgrind-out-file="$name.cg" "$TESSEL" >/dev/null 2>"$name.log"
    callgrind_annotate --inclusive=yes --threshold=100 "$name.cg" >"$name.txt"
    python3 - "$name.txt" "$name" "$calls" <<'PY'
import re, sys
text, name, calls = open(sys.argv[1]).read(), sys.argv[2], int(sys.argv[3])
def count(s):
    return int(s.replace(",", ""))
total = count(re.search(r"^\s*([\d,]+).*PROGRAM TOTALS", text, re.M).group(1))
# Inclusive cost of the allocator's entry points; they do not call one another.
alloc = 0
for m in re.finditer(r"^\s*([\d,]+) \([^)]*\)\s+\S*:(malloc|free|cfree|realloc|__libc_malloc|"
                     r"__libc_free|__libc_realloc) ", text, re.M):
    alloc += count(m.group(1))
print("%-12s %12s instructions %8.0f per call (%d calls)  malloc/free/realloc %4.1f%%" % (
    name, format(total, ","), total / calls, calls, 100.0 * alloc / total))
PY
}

measure table.html 10002
measure calls.html 20002
