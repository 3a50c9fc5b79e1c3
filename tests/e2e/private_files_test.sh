#!/usr/bin/env bash
# A site's private files are refused (403) by the server that scripts/apache.sh starts, the
# same rules as the shipped tessel.conf's macros: macro, configuration and table files ("_*"),
# .profile, counters, .htaccess, and the program's logs and cache folder in cgi-bin. The page
# that uses them still renders.
# Usage: private_files_test.sh PROGRAM
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"

mkdir -p "$SITE/shop"
printf '@price[amount]\n<b>$amount</b> EUR\n' >"$SITE/_macro.cfg"
printf '@shop_name\nThe shop\n' >"$SITE/shop/_tessel.cfg"
printf 'name\tprice\nTea\t3\n' >"$SITE/shop/_products"
printf 'SECRET=1\n' >"$SITE/.profile"
printf '41\n' >"$SITE/shop/hits.count"
printf 'AuthUserFile x\n' >"$SITE/shop/.htaccess"
printf '%s\n' '^macro_use[tessel.cfg]^macro[shop_name]: ^context[p;^load[names;products]^menu[^item[name] ^macro[price;^item[price]]]]' \
    >"$SITE/shop/index.html"
chmod -R a+rX "$SITE"
e2e_start

e2e_get /shop/index.html
check_equal "the page renders" 200 "$STATUS"
check_body "the page reads its private files" "The shop
: Tea <b>3</b> EUR
"

# The program's folder: its .profile, its logs (written by the request above), its cache.
printf 'A=1\n' >"$CGI_BIN/.profile"
mkdir -p "$CGI_BIN/cache" "$CGI_BIN/chat/admin" && printf 'cached' >"$CGI_BIN/cache/entry"
printf 'hash' >"$CGI_BIN/chat/admin/password"
chmod -R a+rX "$CGI_BIN"
for path in /_macro.cfg /shop/_tessel.cfg /shop/_products /.profile /shop/hits.count \
    /shop/.htaccess /cgi-bin/.profile /cgi-bin/error_log /cgi-bin/access_log \
    /cgi-bin/cache/entry /cgi-bin/cache/ /cgi-bin/chat/admin/password; do
    e2e_get "$path"
    check_equal "$path is refused" 403 "$STATUS"
done
# The SQL client module beside the program, when the build made one, is neither run nor
# handed out.
if [[ -f $CGI_BIN/tessel-mysql.so ]]; then
    e2e_get /cgi-bin/tessel-mysql.so
    if [[ $STATUS != 200 ]] && ! grep -q 'mysql_init' "$BODY"; then
        echo "ok: the client module is not served ($STATUS)"
    else
        fail "the client module is not served (status $STATUS)"
    fi
fi
# The shipped configuration refuses the same names, hands the same names to the program and
# turns on the same settings. It writes them inside its macros, indented and some twice; the
# state folder is each site's own.
rules() {
    grep -E '<FilesMatch|SetHandler|SetEnv TESSEL_|UseCanonicalName' "$1" |
        sed 's/^[[:space:]]*//' | grep -v '^SetEnv TESSEL_STATE_DIR ' | sort -u
}
check_equal "tessel.conf has the same rules" "$(rules "$SERVER/conf/httpd.conf")" \
    "$(rules "$E2E_ROOT/deploy/tessel.conf.in")"
e2e_finish
