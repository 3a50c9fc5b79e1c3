#!/bin/sh
# Starts and stops a private MariaDB server with tessel's sample database.
#
#   scripts/mariadb.sh start DIR [PORT]   makes a fresh data folder in DIR, starts mariadbd on
#                                         127.0.0.1:PORT (default: a free port) and loads the
#                                         sample tables; prints the connection string
#   scripts/mariadb.sh stop DIR           shuts the server of DIR down and removes its data
#   scripts/mariadb.sh url DIR            prints the connection string of the server of DIR
#
# Everything lives in DIR: data/, the socket, the pid file, the log and "port". The server
# keeps no file outside DIR and reads no option file. The sample database is "tessel", its
# user "tessel" with the password "tessel-pw" (and "reader", password "se:cret", who may only
# read). The tables are stored in KOI8-R and every connection of these users talks KOI8-R, the
# code page tessel expects from the database. Sessions of the read-only user "literal",
# password "literal-pw", start in sql_mode NO_BACKSLASH_ESCAPES, set by the server's
# init_connect after the connection is made, as a site's server may do.
set -eu

DB_NAME=tessel
DB_USER=tessel
DB_PASSWORD=tessel-pw

die() { echo "mariadb.sh: $*" >&2; exit 1; }

find_program() {
    for p in "$@"; do
        command -v "$p" 2>/dev/null && return 0
        [ -x "/usr/sbin/$p" ] && { echo "/usr/sbin/$p"; return 0; }
    done
    return 1
}

free_port() {
    python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'
}

# The sample tables: people (with NULLs), notes (with tabs), towns (KOI8-R text), stock (for
# updates), guestbook (for inserts) and bench_rows (2,000 rows for the benchmark).
sample_sql() {
    cat <<'EOF'
CREATE TABLE people (id INT PRIMARY KEY, name VARCHAR(40), city VARCHAR(40), phone VARCHAR(20));
INSERT INTO people VALUES
  (1, 'Ann', 'Oslo', '555-0101'),
  (2, 'Bob', NULL, NULL),
  (3, 'Cid', 'Rome', '555-0103'),
  (4, 'Dee', 'Oslo', NULL),
  (5, 'Eve', 'Lima', '555-0105');
CREATE TABLE notes (id INT PRIMARY KEY, body VARCHAR(80));
INSERT INTO notes VALUES (1, CONCAT('a', CHAR(9), 'b')), (2, CONCAT(CHAR(9), 'lead')), (3, 'plain');
CREATE TABLE stock (id INT PRIMARY KEY, item VARCHAR(40), qty INT);
INSERT INTO stock VALUES (1, 'bolt', 10), (2, 'nut', 5), (3, 'gear', 0);
CREATE TABLE guestbook (id INT AUTO_INCREMENT PRIMARY KEY, message VARCHAR(200));
CREATE TABLE bench_rows (id INT PRIMARY KEY, name VARCHAR(40), price DECIMAL(8,2), note VARCHAR(80));
INSERT INTO bench_rows SELECT seq, CONCAT('item ', seq), seq * 1.25, IF(seq % 7 = 0, NULL, CONCAT('note ', seq))
  FROM seq_1_to_2000;
EOF
    # Town names in KOI8-R: Moskva, Kiev, Minsk.
    printf 'CREATE TABLE towns (id INT PRIMARY KEY, name VARCHAR(40));\n'
    printf "INSERT INTO towns VALUES (1, '\355\317\323\313\327\301'), (2, '\353\311\305\327'), (3, '\355\311\316\323\313');\n"
}

do_start() {
    dir=$1
    port=${2:-}
    mariadbd=$(find_program mariadbd mysqld) || die "mariadbd not found: install mariadb-server"
    install_db=$(find_program mariadb-install-db mysql_install_db) || die "mariadb-install-db not found: install mariadb-server"
    client=$(find_program mariadb mysql) || die "the mariadb client program is missing: install mariadb-client"
    mkdir -p "$dir"
    dir=$(cd "$dir" && pwd)
    [ -f "$dir/mariadbd.pid" ] && do_stop "$dir"
    rm -rf "$dir/data" "$dir/tmp"
    mkdir -p "$dir/tmp"  # its own temp folder: servers set up at once must not share /tmp files
    [ -n "$port" ] || port=$(free_port)
    user_opt=""
    [ "$(id -u)" = 0 ] && user_opt=--user=root

    "$install_db" --no-defaults --datadir="$dir/data" $user_opt --auth-root-authentication-method=socket \
        --tmpdir="$dir/tmp" --skip-test-db --innodb-log-file-size=8M >"$dir/install.log" 2>&1 || { cat "$dir/install.log" >&2; die "mariadb-install-db failed"; }

    "$mariadbd" --no-defaults --datadir="$dir/data" --tmpdir="$dir/tmp" $user_opt --bind-address=127.0.0.1 --port="$port" \
        --socket="$dir/mariadbd.sock" --pid-file="$dir/mariadbd.pid" --log-error="$dir/mariadbd.log" \
        --character-set-server=koi8r --collation-server=koi8r_general_ci \
        --skip-log-bin --skip-name-resolve --innodb-buffer-pool-size=16M --innodb-log-file-size=8M --max-connections=50 \
        --init-connect="SET NAMES koi8r, sql_mode = IF(CURRENT_USER() LIKE 'literal@%', CONCAT(@@sql_mode, ',NO_BACKSLASH_ESCAPES'), @@sql_mode)" \
        >/dev/null 2>&1 &
    server_pid=$!

    i=0
    until "$client" --no-defaults --socket="$dir/mariadbd.sock" -uroot -e 'SELECT 1' >/dev/null 2>&1; do
        i=$((i + 1))
        if [ $i -gt 300 ] || ! kill -0 "$server_pid" 2>/dev/null; then
            cat "$dir/mariadbd.log" >&2 2>/dev/null || true
            die "mariadbd did not come up"
        fi
        sleep 0.1
    done
    echo "$port" >"$dir/port"

    {
        echo "CREATE DATABASE $DB_NAME CHARACTER SET koi8r;"
        echo "CREATE USER '$DB_USER'@'127.0.0.1' IDENTIFIED BY '$DB_PASSWORD';"
        echo "CREATE USER '$DB_USER'@'localhost' IDENTIFIED BY '$DB_PASSWORD';"
        echo "GRANT ALL ON $DB_NAME.* TO '$DB_USER'@'127.0.0.1', '$DB_USER'@'localhost';"
        # A read-only user whose password holds a colon.
        echo "CREATE USER 'reader'@'127.0.0.1' IDENTIFIED BY 'se:cret';"
        echo "GRANT SELECT ON $DB_NAME.* TO 'reader'@'127.0.0.1';"
        echo "CREATE USER 'literal'@'127.0.0.1' IDENTIFIED BY 'literal-pw';"
        echo "GRANT SELECT ON $DB_NAME.* TO 'literal'@'127.0.0.1';"
        echo "USE $DB_NAME;"
        sample_sql
    } | "$client" --no-defaults --socket="$dir/mariadbd.sock" -uroot --default-character-set=koi8r ||
        die "loading the sample database failed"
    do_url "$dir"
}

do_stop() {
    dir=$1
    pidfile="$dir/mariadbd.pid"
    [ -f "$pidfile" ] || return 0
    pid=$(cat "$pidfile")
    kill "$pid" 2>/dev/null || true
    i=0
    while kill -0 "$pid" 2>/dev/null; do
        i=$((i + 1))
        [ $i -gt 300 ] && { kill -9 "$pid" 2>/dev/null || true; break; }
        sleep 0.1
    done
    rm -f "$pidfile"
    rm -rf "$dir/data"  # a sample database only: the next start makes a fresh one
}

do_url() {
    [ -f "$1/port" ] || die "no server in $1"
    echo "$DB_USER:$DB_PASSWORD@127.0.0.1:$(cat "$1/port")/$DB_NAME"
}

case "${1:-}" in
start) [ $# -ge 2 ] || die "usage: mariadb.sh start DIR [PORT]"; do_start "$2" "${3:-}" ;;
stop) [ $# -ge 2 ] || die "usage: mariadb.sh stop DIR"; do_stop "$2" ;;
url) [ $# -ge 2 ] || die "usage: mariadb.sh url DIR"; do_url "$2" ;;
*) die "usage: mariadb.sh start DIR [PORT] | stop DIR | url DIR" ;;
esac
