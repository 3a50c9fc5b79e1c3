#!/usr/bin/env bash
# Installs what is missing, builds tessel and serves examples/site/ through a private Apache
# on http://127.0.0.1:8080/ (and a private MariaDB with the sample database on 127.0.0.1:3307
# for the SQL page) until Ctrl-C. Nothing is left behind: both servers live in a temp folder.
#
#   bash scripts/serve.sh           (PORT=... and DB_PORT=... to use other ports)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
source scripts/packages.sh

port=${PORT:-8080}
db_port=${DB_PORT:-3307}

ensure_packages build-essential cmake python3 apache2 apache2-utils curl mariadb-server \
    libmariadb-dev libgd-dev libcrypt-dev libfcgi-dev

build=${BUILD_DIR:-build}
cmake -S . -B "$build" -DBUILD_TESTING=OFF >/dev/null
cmake --build "$build" -j2 --target tessel

work=$(mktemp -d "${TMPDIR:-/tmp}/tessel-serve.XXXXXX")
chmod 755 "$work"
db="" sleeper=""
stop_all() {
    trap - EXIT INT TERM
    echo
    echo "stopping"
    "$root/scripts/apache.sh" stop "$work/apache" || true
    if [[ -d $work/mariadb ]]; then sh "$root/scripts/mariadb.sh" stop "$work/mariadb" || true; fi
    if [[ -n $sleeper ]]; then kill "$sleeper" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap stop_all EXIT
trap 'exit 130' INT TERM

if [[ -f scripts/mariadb.sh ]]; then
    db=$(sh scripts/mariadb.sh start "$work/mariadb" "$db_port")
fi
# The site is served from a copy that the server's user (www-data when started by root) may
# write to: the guestbook, the gallery and the counters change as visitors use them, and the
# checkout stays as it is. Edits to examples/site/ show after a restart.
site=$work/site
cp -R examples/site "$site"
chmod -R a+rwX "$site"
# The members' area asks the server for a password: the copy reads a password file made here,
# with one member (joe) and one signed-in visitor who is not a member (zed).
htpasswd -c -b "$work/members.passwd" joe tea 2>/dev/null
htpasswd -b "$work/members.passwd" zed tea 2>/dev/null
chmod 644 "$work/members.passwd"
sed -i "s|^AuthUserFile .*|AuthUserFile $work/members.passwd|" "$site/members/.htaccess"
scripts/apache.sh start "$work/apache" "$site" "$build/tessel" "$port" >/dev/null
# The program's working folder is the server's cgi-bin; its .profile passes the database on.
if [[ -n $db ]]; then printf 'TESSEL_DB=%s\n' "$db" >"$work/apache/cgi-bin/.profile"; fi

echo "serving a copy of examples/site on http://127.0.0.1:$port/"
if [[ -n $db ]]; then echo "sample database: $db"; fi
echo "members' area: sign in as joe (a member) or zed (not one), password tea"
echo "program logs: $work/apache/cgi-bin/error_log, server logs: $work/apache/logs/"
echo "press Ctrl-C to stop"
sleep infinity &
sleeper=$!
wait "$sleeper"
