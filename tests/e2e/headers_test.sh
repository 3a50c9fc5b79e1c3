#!/usr/bin/env bash
# Header lines through the server: a download name taken from a form field cannot add a
# header line of its own, and a header line longer than 1 KB leaves the page's type alone.
# Usage: headers_test.sh PROGRAM
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"

printf 'x\n' >"$SITE/a.txt"
printf '^download[a.txt;^form[name]]\n' >"$SITE/download.html"
long=$(printf 'v%.0s' {1..1100})
printf '^header[X-Long;%s]^header[Content-Type;text/plain]plain  text\n' "$long" >"$SITE/long.html"
e2e_start

e2e_get '/download.html?name=x%0D%0ASet-Cookie:+stolen=1'
check_equal "download: status" 200 "$STATUS"
check_header content-disposition 'filename="x Set-Cookie: stolen=1"'
check_header set-cookie ""
check_body "download: the file's bytes" $'x\n'

e2e_get /long.html
check_header content-type text/plain
check_equal "long header: sent whole" 1100 "$(header_value x-long | tr -d "\n" | wc -c)"
check_body "long header: the page keeps its blanks" $'plain  text\n'

e2e_finish
