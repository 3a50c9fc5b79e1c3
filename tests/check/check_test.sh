#!/usr/bin/env bash
# tessel-check: the broken pages of site/ (traps.html: lines that begin with "#" or "@" in a
# style sheet, which the page drops or turns into definitions) give exactly the diagnostics in
# broken_pages.expected, with exit status 1; warnings alone (site/requests.html) leave it 0,
# and TESSEL_SAFE_ESCAPING=1 drops those the setting answers;
# every page of examples/site/ is clean (status 0); calls nested past the engine's limit are
# reported, not read on; the command line answers --help, --version and mistakes as documented.
# Usage: check_test.sh TESSEL_CHECK
set -uo pipefail
unset TESSEL_SAFE_ESCAPING # the diagnostics below are those of the default
check=$(realpath "$1")
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
source "$here/../e2e/checks.sh"

cd "$here"
out=$("$check" --docroot site site/*.html site/_macro.cfg)
check_equal "broken pages: exit status" 1 "$?"
check_equal "broken pages: diagnostics" "$(cat broken_pages.expected)" "$out"

# The docroot is found by itself: the nearest folder above holding _macro.cfg.
out=$("$check" site/macros.html 2>&1)
check_equal "docroot found from the page" \
    "$(grep '^site/macros.html:' broken_pages.expected)" "$out"

out=$("$check" site/requests.html)
check_equal "warnings only: exit status" 0 "$?"
check_equal "warnings only: diagnostics" \
    "$(grep '^site/requests.html:' broken_pages.expected)" "$out"

# With the site's TESSEL_SAFE_ESCAPING the query string is escaped (here for SQL) and html
# escaping holds a single-quoted attribute.
out=$(TESSEL_SAFE_ESCAPING=1 "$check" site/requests.html)
check_equal "safe escaping: fewer warnings" \
    "$(grep '^site/requests.html:' broken_pages.expected | grep -v -e ':8:46:' -e ':9:44:')" "$out"

# Past 999 nested calls the engine shows an error; reading on cost the depth again at every
# level and overflowed the stack.
deep=$(mktemp)
trap 'rm -rf "$deep" "${chain:-}"' EXIT
{ yes '^left[' | head -n 10000; yes 'x;1]' | head -n 10000; } | tr -d '\n' >"$deep"
out=$("$check" "$deep" 2>&1)
check_equal "deep nesting: exit status" 1 "$?"
check_equal "deep nesting: reported once" \
    "$deep:1:5995: calls nested deeper than 999: the page shows [infinite operator recursion detected]" \
    "$out"

# A chain of macros passing a parameter on is followed no further than calls can nest (all
# 60,000 overflowed the stack).
chain=$(mktemp -d)
seq 0 59999 | awk '{ printf "@m%d[x]\n^macro[m%d;$x]\n\n", $1, $1 + 1 }' >"$chain/_macro.cfg"
echo '^macro[m0;^form[x]]' >"$chain/page.html"
out=$("$check" "$chain/page.html" 2>&1)
check_equal "long macro chain: exit status" 0 "$?"
check_equal "long macro chain: nothing found" "" "$out"

cd "$root"
out=$("$check" examples/site/*.html examples/site/_macro.cfg 2>&1)
check_equal "examples/site: exit status" 0 "$?"
check_equal "examples/site: no diagnostics" "" "$out"

check_equal "--help" "usage: tessel-check" "$("$check" --help | head -1 | cut -d' ' -f1-2)"
check_equal "--version" "tessel-check, tessel 1.0 (168mysql-omr2 build)" "$("$check" --version)"
"$check" >/dev/null 2>&1
check_equal "no file: exit status" 2 "$?"
"$check" "$here/site/no-such-page.html" 2>/dev/null
check_equal "missing file: exit status" 2 "$?"
exit $E2E_FAILED
