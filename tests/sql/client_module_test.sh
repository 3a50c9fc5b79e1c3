#!/usr/bin/env bash
# Which client a page's first SQL call loads, seen through the files the program opens: the
# build's module beside the program, which brings no TLS or crypto library and looks no
# service up; and the system's shared client when TESSEL_MYSQL_LIBRARY names it, which still
# answers the same page.
# Usage: client_module_test.sh PROGRAM SERVER_FOLDER
set -uo pipefail
program=$(realpath "$1")
server=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/tessel-client.XXXXXX")
trap 'rm -rf "$work"' EXIT
failed=0
check() {
    if eval "$2"; then echo "ok: $1"; else echo "FAIL: $1"; failed=1; fi
}

port=$(cat "$server/port")
printf '^server[tessel:tessel-pw@127.0.0.1:%s/tessel;^sql[select 6*7 as n]^item[n]]\n' "$port" \
    >"$work/page.html"
export DOCUMENT_ROOT=$work PATH_TRANSLATED=$work/page.html REQUEST_URI=/page.html
export REQUEST_METHOD=GET SCRIPT_NAME=/cgi-bin/tessel REMOTE_ADDR=127.0.0.1 QUERY_STRING=
unset TESSEL_MYSQL_LIBRARY MYSQL_TCP_PORT

# run NAME: the page's body in NAME.out, the files opened in NAME.trace. A sanitizer build's
# leak check cannot run under strace, and would say so.
run() {
    (cd "$work" && ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0 \
        strace -f -e trace=openat,open -o "$work/$1.trace" "$program" >"$work/$1.out")
}

run module
check "the module answers" "grep -qx 42 '$work/module.out'"
check "the module beside the program is loaded" \
    "grep -q '\"${program%/*}/tessel-mysql.so\"' '$work/module.trace'"
check "no TLS or crypto library is loaded" "! grep -qE 'libssl|libcrypto' '$work/module.trace'"
check "the service is not looked up" "! grep -qE '/etc/services|nsswitch' '$work/module.trace'"

TESSEL_MYSQL_LIBRARY=libmariadb.so.3 run shared
check "the shared client answers the same" "grep -qx 42 '$work/shared.out'"
check "the shared client is the one loaded" "grep -q 'libmariadb.so.3' '$work/shared.trace'"
exit $failed
