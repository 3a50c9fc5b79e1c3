#!/usr/bin/env bash
# Error pages through the server with TESSEL_SAFE_ERROR_PAGES on (the private Apache sets it):
# each carries a fitting status and shows neither a file system path nor the build, while the
# program's error log keeps the whole detail. A missing page file never reaches the program
# (spine_test.sh); an unreadable one does, and reads as missing.
# Usage: error_pages_test.sh PROGRAM
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"

ERROR_OPEN='<html><head><title>Error!</title></head><body bgcolor=white><h2>'
ERROR_CLOSE='</h2></body></html>'

printf 'hello\n' >"$SITE/hello.html"
printf '# only a comment\n' >"$SITE/empty.html"
printf 'secret\n' >"$SITE/locked.html"
chmod 000 "$SITE/locked.html"
printf '%%PDF' >"$SITE/report.pdf"
printf '^download[report.pdf]' >"$SITE/download.html" # expands to nothing
e2e_start

# The status and the whole body of the last response; neither it nor its headers name the
# site's folder, the program's folder or the build.
check_error_page() {
    check_equal "$1: status" "$2" "$STATUS"
    check_header content-type text/html
    check_body "$1: page" "$ERROR_OPEN"$'\n'"$3$ERROR_CLOSE"$'\n'
    if grep -q -e "$SITE" -e "$CGI_BIN" -e 'tessel 1.0' "$BODY" "$HEADERS"; then
        fail "$1: no path and no build in the response"
    fi
}

e2e_get /locked.html
check_error_page "unreadable page" 404 'page not found: /locked.html'
check_equal "unreadable page: the log names the file" \
    "$SITE/locked.html: script error by host 127.0.0.1"$'\n'"$SITE/locked.html: unable to print $SITE/locked.html" \
    "$(logged_lines)"
rm -f "$CGI_BIN/error_log"

e2e_get /empty.html
check_error_page "page that prints nothing" 500 'unable to print /empty.html'

# The request URI is the visitor's text: a query that holds markup is shown escaped.
e2e_get '/empty.html?<script>x="1"&y='"'"'2'"'"'</script>'
check_error_page "request URI escaped" 500 \
    'unable to print /empty.html?&lt;script&gt;x=&quot;1&quot;&amp;y=&#39;2&#39;&lt;/script&gt;'

e2e_get /cgi-bin/tessel/hello.html
check_error_page "own URL" 403 'illegal call'

rm -f "$CGI_BIN/error_log"
e2e_get /cgi-bin/tessel
check_error_page "own URL without a page" 400 'no page requested'
check_contains "own URL without a page: the log has the banner" \
    'tessel 1.0 (168mysql-omr2 build)' <(logged_lines)

# A download is the whole response: a page that then expands to nothing adds no error page to
# the file.
e2e_get /download.html
check_equal "download: status" 200 "$STATUS"
check_body "download: the file alone" '%PDF'
check_contains "download: the empty page is logged" "unable to print $SITE/download.html" \
    <(logged_lines)

e2e_finish
