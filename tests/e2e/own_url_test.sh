#!/usr/bin/env bash
# The example site as shipped, attacked through the program's own URL: a guestbook entry that
# holds operator calls, and every spelling of /cgi-bin/tessel/ that the server still maps to
# the program, must never get the entry run as a page. Only names ending in ".html" are pages,
# and the Host header does not become the server's name.
# Usage: own_url_test.sh PROGRAM
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"

cp -R "$E2E_ROOT/examples/site/." "$SITE/"
printf '^eval[6*7]\n' >"$SITE/gallery/x.html.gif"
cp "$SITE/gallery/x.html.gif" "$SITE/gallery/x.html.txt"
chmod -R a+rwX "$SITE"
e2e_start

e2e_get /guestbook.html --data-urlencode 'who=eve' --data-urlencode 'text=^exec[x^;echo^;echo^;id]'
check_equal "the entry is saved" 200 "$STATUS"
check_contains "the entry is shown as text" '^exec[x^;echo^;echo^;id]' "$BODY"

for path in /cgi-bin/tessel/_guestbook /cgi-bin//tessel/_guestbook //cgi-bin/tessel/_guestbook \
    /cgi-bin/./tessel/_guestbook /cgi-bin/%74essel/_guestbook /x/../cgi-bin/tessel/_guestbook \
    /cgi-bin/tessel/gallery/x.html.gif; do
    e2e_get "$path" --path-as-is
    if grep -q 'uid=' "$BODY" || ! grep -q 'illegal call' "$BODY"; then
        fail "$path is refused as an illegal call (status $STATUS)"
        head -c 300 "$BODY"
    else
        echo "ok: $path is refused"
    fi
done
port=${BASE##*:}
e2e_get /ignored --request-target "http://127.0.0.1:$port/cgi-bin//tessel/_guestbook"
check_contains "an absolute request target is refused" 'illegal call' "$BODY"

# The server hands over only names that end in ".html".
for path in /gallery/x.html.gif /gallery/x.html.txt; do
    e2e_get "$path"
    check_equal "$path is sent as it is" '^eval[6*7]' "$(cat "$BODY")"
done
# SERVER_NAME, which names the resource log's file, is the server's own name whatever Host
# the client sends.
printf '^env[SERVER_NAME]\n' >"$SITE/name.html"
e2e_get /name.html -H 'Host: visitor-1.example'
check_equal "SERVER_NAME is the configured name" 127.0.0.1 "$(cat "$BODY")"
e2e_finish
