#!/usr/bin/env bash
# The program deployed under a private Apache as a site deploys it: pages render through the
# handler, the program's own URL is refused, and unprintable pages get the error page.
# Usage: spine_test.sh PROGRAM
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"

ERROR_OPEN='<html><head><title>Error!</title></head><body bgcolor=white><h2>'
ERROR_CLOSE='</h2></body></html>'

mkdir -p "$SITE/sub"
printf '<p>Hello,    ^^world</p>\n<p>^uri[] ^env[SCRIPT_NAME] ^env[PATH_INFO]</p>\n' >"$SITE/hello.html"
printf '^uri[] ^env[PATH_TRANSLATED] ^env[DOCUMENT_ROOT]\n' >"$SITE/sub/index.html"
printf 'a ^^b   c\n' >"$SITE/plain.txt"
printf 'secret\n' >"$SITE/locked.html"
chmod 000 "$SITE/locked.html"
e2e_start

e2e_get /hello.html
check_equal "page: status" 200 "$STATUS"
check_header content-type text/html
check_body "page: expanded and compacted" \
    $'<p>Hello, ^world</p>\n<p>/hello.html /cgi-bin/tessel /hello.html</p>\n'
check_length "page"

# mod_dir maps the folder to its index.html, which the handler then renders.
e2e_get /sub/
check_equal "folder index: status" 200 "$STATUS"
check_body "folder index: request URI, page file and document root" \
    "/sub/ $SITE/sub/index.html $SITE"$'\n'

# The program runs in the cgi-bin folder, so the deployment's .profile is the one there.
printf 'GREETING=set by .profile\n' >"$CGI_BIN/.profile"
printf '^env[GREETING]\n' >"$SITE/profile.html"
e2e_get /profile.html
check_body ".profile read from the program's folder" $'set by .profile\n'
rm "$CGI_BIN/.profile"

e2e_get /plain.txt
check_body "other files are served as they are" $'a ^^b   c\n'

e2e_get /cgi-bin/tessel/hello.html
check_equal "own URL: status" 200 "$STATUS"
check_header content-type text/html
check_body "own URL: illegal call page" "$ERROR_OPEN"$'\nillegal call'"$ERROR_CLOSE"$'\n'
check_equal "own URL: error log" \
    "$SITE/hello.html: script error by host 127.0.0.1"$'\n'"$SITE/hello.html: illegal call" \
    "$(logged_lines)"
rm -f "$CGI_BIN/error_log"

e2e_get /cgi-bin/tessel
check_body "own URL without a page: banner" \
    "$ERROR_OPEN"$'\ntessel 1.0 (168mysql-omr2 build)'"$ERROR_CLOSE"$'\n'

# A page the program cannot read is, for it, a missing page.
e2e_get /locked.html
check_header content-type text/html
check_body "unreadable page: unable to print" \
    "$ERROR_OPEN"$'\n'"unable to print $SITE/locked.html$ERROR_CLOSE"$'\n'

# A page file that does not exist never reaches the program: the server answers it.
rm -f "$CGI_BIN/error_log"
e2e_get /missing.html
check_equal "missing page: the server's 404" 404 "$STATUS"
check_equal "missing page: the program did not run" no "$([[ -e $CGI_BIN/error_log ]] && echo yes || echo no)"

e2e_finish
