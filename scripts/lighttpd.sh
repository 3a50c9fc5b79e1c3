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

SERVER_SCRIPT=lighttpd.sh
source "$ROOT/scripts/server_lib.sh"

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

# Writes the configuration for port and starts the server; true once it answers.
launch() {
    write_config "$dir" "$site" "$1" "$user"
    rm -f "$dir/run/lighttpd.pid"
    "$LIGHTTPD" -f "$dir/conf/lighttpd.conf" && wait_until_up "$1" "$dir/run/lighttpd.pid"
}

start() {
    (($# >= 3)) || die "usage: lighttpd.sh start DIR SITE PROGRAM [PORT]"
    local dir site program user
    [[ -x $LIGHTTPD ]] || die "$LIGHTTPD not found (install the lighttpd package)"
    server_prepare "$1" "$2" "$3"
    # lighttpd opens its error log once it runs as the user.
    if [[ $(id -u) -eq 0 ]]; then chown "$user" "$dir/logs"; fi
    write_shipped "$dir"
    start_on_port "${4:-0}" launch stop "$dir/logs/error.log"
}

stop() {
    (($# == 1)) || die "usage: lighttpd.sh stop DIR"
    stop_pid_file "$1/run/lighttpd.pid"
}

case ${1:-} in
start) shift; start "$@" ;;
stop) shift; stop "$@" ;;
*) die "usage: lighttpd.sh start DIR SITE PROGRAM [PORT] | stop DIR" ;;
esac
