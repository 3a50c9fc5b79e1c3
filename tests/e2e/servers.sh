# The checks that lighttpd_test.sh, nginx_test.sh and the FastCGI variants' tests share: the
# example site, deployed with the server's shipped configuration (deploy/$E2E_SERVER.conf, or
# for E2E_FASTCGI=1 deploy/nginx-fastcgi.conf or deploy/tessel-fastcgi.conf, through
# scripts/$E2E_SERVER.sh), renders its pages, takes a posted form and a multipart upload,
# refuses the site's private files, and never runs a page through the program's own URL or a
# path the server did not hand over as a page. The test then adds what only its server needs,
# and calls e2e_finish.
#
#   E2E_SERVER=lighttpd; source "$(dirname "$0")/servers.sh" "$1"
#
# Installs the server's Debian packages when they are missing (ensure_packages) and exits 77
# (skipped) only when they cannot be installed.

source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/packages.sh"
case $E2E_SERVER${E2E_FASTCGI:+/fastcgi} in
apache/fastcgi) E2E_SERVER_PACKAGES=(curl apache2) SHIPPED_CONF=tessel-fastcgi.conf ;;
lighttpd) E2E_SERVER_PACKAGES=(curl lighttpd) SHIPPED_CONF=lighttpd.conf ;;
nginx) E2E_SERVER_PACKAGES=(curl nginx fcgiwrap) SHIPPED_CONF=nginx.conf ;;
nginx/fastcgi) E2E_SERVER_PACKAGES=(curl nginx) SHIPPED_CONF=nginx-fastcgi.conf ;;
esac
if ! ensure_packages "${E2E_SERVER_PACKAGES[@]}" >/dev/null 2>&1; then
    echo "SKIP: ${E2E_SERVER_PACKAGES[*]} cannot be installed"
    exit 77
fi
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh" "$1"

cp -R "$E2E_ROOT/examples/site/." "$SITE/"
mkdir -p "$SITE/sub" "$SITE/files" "$SITE/shop"
printf '^uri[] [^env[PATH_TRANSLATED]] [^env[SCRIPT_NAME]] ^eval[6*7]\n' >"$SITE/sub/index.html"
printf '[^form[a]] [^combine[a]] [^env[REQUEST_METHOD]]\n' >"$SITE/echo.html"
printf '[^upload[f;files/up.bin]] [^upload[f;size]] [^upload[f;name]]\n' >"$SITE/save.html"
printf '^env[GREETING] [^user[]] ^nosuch[]\n' >"$SITE/sub/who.html"
printf '^eval[6*7]\n' >"$SITE/gallery/x.html.gif"
printf '^eval[6*7]\n' >"$SITE/gallery/Shout.HTML"
printf 'SECRET=1\n' >"$SITE/.profile"
printf '41\n' >"$SITE/shop/hits.count"
printf 'AuthUserFile x\n' >"$SITE/shop/.htaccess"
chmod -R a+rwX "$SITE"
e2e_start

# Pages, a folder's index page among them: the page's own URL is SCRIPT_NAME, and pages read
# their file in PATH_TRANSLATED as under Apache.
e2e_get /sub/
check_equal "folder index: status" 200 "$STATUS"
check_body "folder index: request URI, page file, script name" \
    "/sub/ [$SITE/sub/index.html] [/sub/index.html] 42"$'\n'
e2e_get /sub/index.html?x=1
check_body "page by its own name" "/sub/index.html?x=1 [$SITE/sub/index.html] [/sub/index.html] 42"$'\n'
e2e_get /
check_equal "the example site's start page" 200 "$STATUS"
check_contains "the start page is expanded" 'Tessel Tea House' "$BODY"

# The program works in its own folder: its .profile and its error log are the ones there. A
# visitor's Authorization header signs nobody in: the server checked no password.
printf 'GREETING=set by .profile\n' >"$CGI_BIN/.profile"
e2e_get /sub/who.html -u joe:guess
check_body ".profile from the program's folder, no user signed in" \
    $'set by .profile [] [invalid operator nosuch]\n'
check_contains "the error is logged in the program's folder" "who.html: line 1: invalid operator" \
    "$CGI_BIN/error_log"
check_equal "no log in the site's folders" "" "$(find "$SITE" -name error_log -o -name access_log)"

# A posted form, urlencoded and multipart with a file of every byte value.
e2e_get '/echo.html?a=q' --data-urlencode 'a=<b>"x"'
check_body "urlencoded post" $'[q] [q|&lt;b&gt;&quot;x&quot;] [POST]\n'
python3 -c 'import sys; sys.stdout.buffer.write(bytes(range(256)) * 3 + b"\0\r\n")' >"$WORK/all.bin"
e2e_get /save.html -F "f=@$WORK/all.bin;filename=all.bin"
check_body "multipart upload: saved" $'[] [771] [all.bin]\n'
check_same_file "multipart upload: every byte lands unchanged" "$WORK/all.bin" "$SITE/files/up.bin"

# A guestbook entry whose text holds a call is shown, not run, and never runs as a page.
e2e_get /guestbook.html --data-urlencode 'who=eve' --data-urlencode 'text=^exec[x^;echo^;echo^;id]'
check_contains "the entry is shown as text" '^exec[x^;echo^;echo^;id]' "$BODY"

# The site's private files and the program's own are refused.
# A cache entry holds what the page cached, a visitor's text among it.
mkdir -p "$CGI_BIN/cache" "$CGI_BIN/chat/admin" && printf 'cached ^eval[6*7]\n' >"$CGI_BIN/cache/entry"
printf 'hash' >"$CGI_BIN/chat/admin/password"
chmod -R a+rX "$CGI_BIN"
REFUSED=(/_macro.cfg /_guestbook /_header.html /.profile /shop/hits.count /shop/.htaccess)
UNSERVED=(/_guestbook/x /cgi-bin/cache/entry /cgi-bin/chat/admin/password /cgi-bin/tessel-mysql.so)
# Resident workers have no URL: their folder is outside the site, where Apache has no file to
# refuse.
PROGRAM_FILES=(/cgi-bin/.profile /cgi-bin/error_log /cgi-bin/access_log)
if [[ ${E2E_FASTCGI:-0} == 1 ]]; then UNSERVED+=("${PROGRAM_FILES[@]}"); else REFUSED+=("${PROGRAM_FILES[@]}"); fi
for path in "${REFUSED[@]}"; do
    e2e_get "$path"
    check_equal "$path is refused" 403 "$STATUS"
done
for path in "${UNSERVED[@]}"; do
    e2e_get "$path"
    if [[ $STATUS == 200 ]] || grep -qE 'eve|cached|hash|mysql_init|GREETING|who\.html' "$BODY"; then
        fail "$path is not served (status $STATUS)"
    else
        echo "ok: $path is not served ($STATUS)"
    fi
done

# No request runs a file the server did not hand over as a page: not the guestbook or a cache
# entry through the program's URL in any spelling nor after a page's URL, not a picture through
# a name that only looks like a page's. A page named in capitals never has its source sent.
OWN_URLS=(/cgi-bin/tessel/cache/entry /cgi-bin//tessel/cache/entry /cgi-bin/./tessel/cache/entry
    /cgi-bin/%74essel/cache/entry /x/../cgi-bin/tessel/cache/entry /cgi-bin/tessel/guestbook.html
    "/cgi-bin/tessel/cache/entry?x" /cgi-bin/tessel/cgi-bin/tessel)
for path in "${OWN_URLS[@]}" /cgi-bin/tessel /cgi-bin/tessel/_guestbook /index.html/_guestbook \
    /guestbook.html/../_guestbook /guestbook.html%2F_guestbook; do
    e2e_get "$path" --path-as-is
    if grep -qE 'uid=|entries so far|cached 42' "$BODY"; then
        fail "$path runs no page (status $STATUS)"
        head -c 300 "$BODY"
    else
        echo "ok: $path runs no page ($STATUS)"
    fi
done
for path in /gallery/x.html.gif/y.html /gallery/x.html.gif%00.html /gallery/Shout.HTML; do
    e2e_get "$path" --path-as-is
    shown='^42$'
    [[ $path != *.HTML ]] || shown='\^eval'
    if grep -qE "$shown" "$BODY"; then
        fail "$path: neither the picture run nor the page's source sent (status $STATUS)"
    else
        echo "ok: $path: neither the picture run nor the page's source sent ($STATUS)"
    fi
done

# The shipped configuration turns on the settings that tessel.conf turns on, with
# TESSEL_REQUIRE_HANDLER for Apache's TESSEL_REQUIRE_REDIRECT.
shipped_settings() {
    grep -oE "$1" "$2" | grep -oE 'TESSEL_[A-Z_]+' | sed 's/REQUIRE_REDIRECT/REQUIRE_HANDLER/' | sort
}
check_equal "deploy/$SHIPPED_CONF turns on the settings of tessel.conf" \
    "$(shipped_settings 'SetEnv TESSEL_[A-Z_]+ 1$' "$E2E_ROOT/deploy/tessel.conf.in")" \
    "$(shipped_settings '"TESSEL_[A-Z_]+" => "1"|fastcgi_param TESSEL_[A-Z_]+ 1;|SetEnv TESSEL_[A-Z_]+ 1$' \
        "$E2E_ROOT/deploy/$SHIPPED_CONF")"
