#!/usr/bin/env bash
# tessel-render renders a page as the web server would run it: query, posted body, cookie,
# document root and the header lines; the CGI program itself shows its banner whatever its
# arguments.
# Usage: render_test.sh TESSEL_RENDER TESSEL
set -uo pipefail
render=$(realpath "$1")
program=$(realpath "$2")
work=$(mktemp -d "${TMPDIR:-/tmp}/tessel-render.XXXXXX")
trap 'rm -rf "$work"' EXIT
source "$(dirname "$0")/../e2e/checks.sh"

mkdir -p "$work/site/shop" "$work/run"
printf '@hi\nhi\n' >"$work/site/_macro.cfg"
printf '^uri[];^form[a];^form[b];^cookie[c];^env[DOCUMENT_ROOT];^macro[hi]' >"$work/site/shop/p.html"
printf '^header[X-Test;1]^optimize[no]body' >"$work/site/h.html"
printf 'b=posted+value' >"$work/body"
cd "$work/run"

check_equal "query, cookie, docroot found by _macro.cfg" \
    "/shop/p.html?a=1;1;;2;$work/site;hi" \
    "$("$render" "$work/site/shop/p.html" --query 'a=1' --cookie 'c=2')"
check_equal "posted body, another docroot" "/p.html;;posted value;;$work/site/shop;[undefined macro hi]" \
    "$("$render" ../site/shop/p.html --post "$work/body" --docroot "$work/site/shop")"
check_equal "headers" "$(printf 'X-Test: 1\nContent-type: text/html\nContent-length: 4\n\nbody')" \
    "$("$render" "$work/site/h.html" --headers)"
# A body from standard input or a pipe, and fields as a browser's multipart form.
check_equal "posted body from standard input" "/shop/p.html;;piped;;$work/site;hi" \
    "$(printf 'b=piped' | "$render" ../site/shop/p.html --post - --docroot "$work/site")"
check_equal "posted body from a pipe" "/shop/p.html;;sub;;$work/site;hi" \
    "$("$render" ../site/shop/p.html --post <(printf 'b=sub') --docroot "$work/site")"
printf 'GIF89a;\r\n--x' >"$work/pic.gif"
printf '^form[a]|^form[b]|^form[f]|^form[t]' >"$work/site/f.html"
check_equal "-F fields: text, a file's text, an upload" "1 2|GIF89a;--x|(file)|(file)" \
    "$("$render" "$work/site/f.html" -F 'a=1 2' -F "b=<$work/pic.gif" -F "f=@$work/pic.gif;type=image/gif" \
        -F "t=@$work/pic.gif" | tr -d '\r\n')"
"$render" "$work/site/missing.html" 2>/dev/null
check_equal "missing page: exit status" 2 "$?"
out=$("$render" "$work/site/h.html" --docroot "$work/site/shop" 2>&1)
check_equal "page outside the document root: exit status" 2 "$?"

# Run by hand, the program answers --version and --help; under a server (which passes the
# CGI version) it ignores its command line: Apache passes a query without "=" as arguments.
check_equal "--version by hand" 'tessel 1.0 (168mysql-omr2 build)' "$(env -i "$program" --version)"
check_contains "--help by hand" 'usage: tessel' <(env -i "$program" --help)
out=$(env -i GATEWAY_INTERFACE=CGI/1.1 "$program" --version)
check_equal "--version under a server: the error page" 253 "$?"
out=$(env -i "$program" --headers --query a=1 "$work/site/h.html")
check_equal "the program shows its banner: exit status" 253 "$?"
check_contains "banner" 'tessel 1.0 (168mysql-omr2 build)' <(printf '%s' "$out")
exit $E2E_FAILED
