#!/usr/bin/env bash
# The program deployed under a private Apache as a site deploys it: pages render through the
# handler, and a missing page never reaches the program. The error pages, with the safe
# setting the server turns on, are error_pages_test.sh's.
# Usage: spine_test.sh PROGRAM
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"

mkdir -p "$SITE/sub"
printf '<p>Hello,    ^^world</p>\n<p>^uri[] ^env[SCRIPT_NAME] ^env[PATH_INFO]</p>\n' >"$SITE/hello.html"
printf '^uri[] ^env[PATH_TRANSLATED] ^env[DOCUMENT_ROOT]\n' >"$SITE/sub/index.html"
printf 'a ^^b   c\n' >"$SITE/plain.txt"
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

# A page file that does not exist never reaches the program: the server answers it.
rm -f "$CGI_BIN/error_log"
e2e_get /missing.html
check_equal "missing page: the server's 404" 404 "$STATUS"
check_equal "missing page: the program did not run" no "$([[ -e $CGI_BIN/error_log ]] && echo yes || echo no)"

e2e_finish
