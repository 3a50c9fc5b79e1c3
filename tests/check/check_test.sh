#!/usr/bin/env bash
# tessel-check: the broken pages of site/ give exactly the diagnostics in
# broken_pages.expected, with exit status 1; every page of examples/site/ is clean (status 0);
# the command line answers --help, --version and mistakes as documented.
# Usage: check_test.sh TESSEL_CHECK
set -uo pipefail
check=$(realpath "$1")
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
failed=0

expect() { # what, want, got
    if [[ "$2" == "$3" ]]; then
        echo "ok: $1"
    else
        echo "FAIL: $1"
        diff <(printf '%s\n' "$2") <(printf '%s\n' "$3") | head -40
        failed=1
    fi
}

cd "$here"
out=$("$check" --docroot site site/*.html site/_macro.cfg)
expect "broken pages: exit status" 1 "$?"
expect "broken pages: diagnostics" "$(cat broken_pages.expected)" "$out"

# The docroot is found by itself: the nearest folder above holding _macro.cfg.
out=$("$check" site/macros.html 2>&1)
expect "docroot found from the page" \
    "$(grep '^site/macros.html:' broken_pages.expected)" "$out"

cd "$root"
out=$("$check" examples/site/*.html examples/site/_macro.cfg 2>&1)
expect "examples/site: exit status" 0 "$?"
expect "examples/site: no diagnostics" "" "$out"

"$check" --help | grep -q '^usage: tessel-check' && echo "ok: --help" || { echo "FAIL: --help"; failed=1; }
expect "--version" "tessel-check, tessel 1.0 (168mysql-omr2 build)" "$("$check" --version)"
"$check" >/dev/null 2>&1
expect "no file: exit status" 2 "$?"
"$check" "$here/site/no-such-page.html" 2>/dev/null
expect "missing file: exit status" 2 "$?"
exit $failed
