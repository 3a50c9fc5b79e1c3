#!/usr/bin/env bash
# Starts and stops a private lighttpd that serves a site through tessel the way Debian deploys
# it: the server's default modules, deploy/lighttpd.conf included with the program set to this
# server's own, and /cgi-bin/ mapped to the program's folder as Debian's 10-cgi.conf maps it
# (so that the tests can try the program's own URL). No state folder is named: the program
# works in its own folder. Everything the server owns (configuration, pid, logs, the cgi-bin
# folder) lives in one folder of its own.
#
#   scripts/lighttpd.sh start DIR SITE PROGRAM [PORT]
#       DIR      folder for the server's files (created; empty or absent)
#       SITE     the document root, served as it stands
#       PROGRAM  the built tessel program, copied to DIR/cgi-bin/tessel
#       PORT     port on 127.0.0.1; absent or 0 picks a free one
#     Prints the port once the server answers. The program works in DIR/cgi-bin: a .profile
#     may be added there, and its error_log and access_log land there.
#   scripts/lighttpd.sh stop DIR
#       Stops the server started in DIR and waits for it to go.
set -euo pipefail

LIGHTTPD=${LIGHTTPD:-/usr/sbin/lighttpd}
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
SHIPPED=$ROOT/deploy/lighttpd.conf

die() {
    echo "lighttpd.sh: $*" >&2
    exit 1
}

free_port() {
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# The account the program runs as: the caller, or www-data when started by root.
run_user() {
    if [[ $(id -u) -ne 0 ]]; then id -un; elif id www-data >/dev/null 2>&1; then echo www-data; else echo nobody; fi
}

# The shipped configuration with the program at DIR/cgi-bin/tessel; fails when the line that
# names the program is gone, so the copy never drifts from what ships.
write_shipped() {
    local dir=$1
    grep -q '^var\.tessel_program = "/usr/lib/tessel/tessel"$' "$SHIPPED" ||
        die "$SHIPPED no longer sets var.tessel_program as this script expects"
    sed "s|^var\.tessel_program = .*|var.tessel_program = \"$dir/cgi-bin/tessel\"|" "$SHIPPED" \
        >"$dir/conf/tessel.conf"
}

# A sanitizer build of the program reads its options from the environment, which lighttpd
# passes to a CGI program only through setenv.
sanitizer_options() {
    local name
    for name in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
        [[ -z ${!name:-} ]] || printf 'setenv.add-environment += ( "%s" => "%s" )\n' "$name" "${!name}"
    done
}

write_config() {
    local dir=$1 site=$2 port=$3 user=$4 mime=""
    [[ ! -x /usr/share/lighttpd/create-mime.conf.pl ]] ||
        mime='include_shell "/usr/share/lighttpd/create-mime.conf.pl"'
    cat >"$dir/conf/lighttpd.conf" <<CONF
# Private server for tessel, written by scripts/lighttpd.sh.
server.modules = ( "mod_indexfile", "mod_access", "mod_alias", "mod_redirect" )
server.document-root = "$site"
server.bind = "127.0.0.1"
server.port = $port
server.name = "127.0.0.1"
server.pid-file = "$dir/run/lighttpd.pid"
server.errorlog = "$dir/logs/error.log"
$( [[ $(id -u) -eq 0 ]] && printf 'server.username = "%s"\nserver.groupname = "%s"\n' "$user" "$(id -gn "$user")" )
index-file.names = ( "index.html" )
url.access-deny = ( "~", ".inc" )
$mime

# Debian's 10-cgi.conf: every file in the program's folder runs as a CGI program by its URL.
\$HTTP["url"] =~ "^/cgi-bin/" {
    cgi.assign = ( "" => "" )
    alias.url += ( "/cgi-bin/" => "$dir/cgi-bin/" )
}
include "$dir/conf/tessel.conf"
$(sanitizer_options)
server.modules += ( "mod_staticfile" )
CONF
}

# Waits until the server answers on its port, or fails after about ten seconds.
wait_until_up() {
    local port=$1 pidfile=$2 i
    for ((i = 0; i < 100; i++)); do
        if [[ -s $pidfile ]] && curl -s -o /dev/null "http://127.0.0.1:$port/" 2>/dev/null; then
            return 0
        fi
        sleep 0.1
    done
    return 1
}

start() {
    (($# >= 3)) || die "usage: lighttpd.sh start DIR SITE PROGRAM [PORT]"
    local dir site program port=${4:-0} user attempt
    [[ -x $LIGHTTPD ]] || die "$LIGHTTPD not found (install the lighttpd package)"
    [[ -d $2 ]] || die "no site folder $2"
    [[ -x $3 ]] || die "no program $3"
    mkdir -p "$1"
    dir=$(cd "$1" && pwd)
    site=$(cd "$2" && pwd)
    program=$(cd "$(dirname "$3")" && pwd)/$(basename "$3")
    user=$(run_user)

    mkdir -p "$dir/conf" "$dir/logs" "$dir/run" "$dir/cgi-bin"
    cp "$program" "$dir/cgi-bin/tessel"
    chmod 755 "$dir" "$dir/cgi-bin" "$dir/cgi-bin/tessel"
    # The SQL client module the program looks for beside itself; not executable.
    if [[ -f ${program%/*}/tessel-mysql.so ]]; then
        cp "${program%/*}/tessel-mysql.so" "$dir/cgi-bin/"
        chmod 644 "$dir/cgi-bin/tessel-mysql.so"
    fi
    # lighttpd opens its error log once it runs as the user.
    if [[ $(id -u) -eq 0 ]]; then chown "$user" "$dir/cgi-bin" "$dir/logs"; fi
    write_shipped "$dir"

    for attempt in 1 2 3; do
        [[ $port != 0 ]] || port=$(free_port)
        write_config "$dir" "$site" "$port" "$user"
        rm -f "$dir/run/lighttpd.pid"
        if "$LIGHTTPD" -f "$dir/conf/lighttpd.conf" && wait_until_up "$port" "$dir/run/lighttpd.pid"; then
            echo "$port" >"$dir/port"
            echo "$port"
            return 0
        fi
        stop "$dir" >/dev/null 2>&1 || true
        [[ -z ${4:-} || ${4:-} == 0 ]] || break # a port asked for by name is not replaced
        port=0
    done
    cat "$dir/logs/error.log" >&2 2>/dev/null || true
    die "the server in $dir did not start"
}

stop() {
    (($# == 1)) || die "usage: lighttpd.sh stop DIR"
    local dir=$1 pid i
    [[ -s $dir/run/lighttpd.pid ]] || return 0
    pid=$(cat "$dir/run/lighttpd.pid")
    kill -TERM "$pid" 2>/dev/null || return 0
    for ((i = 0; i < 100; i++)); do
        kill -0 "$pid" 2>/dev/null || return 0
        sleep 0.1
    done
    kill -KILL "$pid" 2>/dev/null || true
}

case ${1:-} in
start) shift; start "$@" ;;
stop) shift; stop "$@" ;;
*) die "usage: lighttpd.sh start DIR SITE PROGRAM [PORT] | stop DIR" ;;
esac
