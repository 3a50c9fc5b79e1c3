#!/usr/bin/env bash
# Starts and stops a private nginx with fcgiwrap that serves a site through tessel the way a
# Debian user deploys it: deploy/nginx.conf included in the site's server block with the
# program and fcgiwrap's socket set to this server's own, and /cgi-bin/ handed to fcgiwrap as
# fcgiwrap's own example configuration does. Everything the servers own (configuration, pids,
# logs, the socket, the cgi-bin folder) lives in one folder of its own.
#
#   scripts/nginx.sh start [--fastcgi] DIR SITE PROGRAM [PORT]
#       DIR      folder for the servers' files (created; empty or absent)
#       SITE     the document root, served as it stands
#       PROGRAM  the built tessel program, copied to DIR/cgi-bin/tessel
#       PORT     port on 127.0.0.1; absent or 0 picks a free one
#     Prints the port once the server answers. The program works in DIR/cgi-bin: a .profile
#     may be added there, and its error_log and access_log land there.
#     With --fastcgi the pages go to resident workers instead of fcgiwrap (tessel --fastcgi on
#     DIR/socket/tessel.sock, pid in DIR/run/tessel.pid, messages in DIR/logs/tessel.log),
#     through the shipped deploy/nginx-fastcgi.conf; the program has no URL then.
#   scripts/nginx.sh stop DIR
#       Stops the servers started in DIR and waits for them to go.
set -euo pipefail

NGINX=${NGINX:-/usr/sbin/nginx}
FCGIWRAP=${FCGIWRAP:-/usr/sbin/fcgiwrap}
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

SERVER_SCRIPT=nginx.sh
source "$ROOT/scripts/server_lib.sh"

# A shipped snippet with each "FROM|TO" replacement made; fails when FROM is no longer in it,
# so the copy never drifts from what ships.
write_snippet() {
    local shipped=$ROOT/deploy/$1 dir=$2 pair edits=()
    for pair in "${@:3}"; do
        grep -qF "${pair%%|*}" "$shipped" || die "$shipped no longer holds '${pair%%|*}'"
        edits+=(-e "s|${pair%%|*}|${pair#*|}|")
    done
    sed "${edits[@]}" "$shipped" >"$dir/conf/tessel.conf"
}

# The shipped snippet with the program and fcgiwrap's socket set to DIR's own, or, for the
# FastCGI variant, the workers' socket.
write_shipped() {
    local dir=$1
    if ((fastcgi)); then
        write_snippet nginx-fastcgi.conf "$dir" \
            "fastcgi_pass unix:/run/tessel/fastcgi.sock;|fastcgi_pass unix:$dir/socket/tessel.sock;"
    else
        write_snippet nginx.conf "$dir" \
            "fastcgi_param SCRIPT_FILENAME /usr/lib/tessel/tessel;|fastcgi_param SCRIPT_FILENAME $dir/cgi-bin/tessel;" \
            "fastcgi_pass unix:/run/fcgiwrap.socket;|fastcgi_pass unix:$dir/socket/fcgiwrap.socket;"
    fi
}

# fcgiwrap's example configuration: every file of the program's folder runs as a CGI program
# by its URL. The FastCGI variant has no fcgiwrap.
cgi_bin_location() {
    ((!fastcgi)) || return 0
    cat <<CONF
        location /cgi-bin/ {
            root $1;
            fastcgi_pass unix:$1/socket/fcgiwrap.socket;
            include /etc/nginx/fastcgi_params;
            fastcgi_param SCRIPT_FILENAME $1\$fastcgi_script_name;
        }
CONF
}

write_config() {
    local dir=$1 site=$2 port=$3 user=$4
    cat >"$dir/conf/nginx.conf" <<CONF
# Private server for tessel, written by scripts/nginx.sh.
daemon on;
pid $dir/run/nginx.pid;
error_log $dir/logs/error.log warn;
$( [[ $(id -u) -eq 0 ]] && printf 'user %s %s;\n' "$user" "$(id -gn "$user")" )
worker_processes 1;
events {
    worker_connections 256;
}
http {
    include /etc/nginx/mime.types;
    default_type application/octet-stream;
    access_log $dir/logs/access.log;
    client_body_temp_path $dir/tmp/body;
    fastcgi_temp_path $dir/tmp/fastcgi;
    proxy_temp_path $dir/tmp/proxy;
    uwsgi_temp_path $dir/tmp/uwsgi;
    scgi_temp_path $dir/tmp/scgi;
    server {
        listen 127.0.0.1:$port;
        server_name 127.0.0.1;
        root $site;
        index index.html;
        # No state folder: the program works in its own, DIR/cgi-bin.
        set \$tessel_state "";
        include $dir/conf/tessel.conf;
$(cgi_bin_location "$dir")
    }
}
CONF
}

# fcgiwrap hands its own environment on to the programs it runs: it starts with a clean one
# (and a sanitizer build's options), in a process group of its own that stop ends whole.
start_fcgiwrap() {
    local dir=$1 user=$2 passed=(PATH=/usr/bin:/bin) name as_user=()
    for name in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
        [[ -z ${!name:-} ]] || passed+=("$name=${!name}")
    done
    if [[ $(id -u) -eq 0 ]]; then
        chown "$user" "$dir/socket"
        as_user=(setpriv --reuid="$user" --regid="$(id -gn "$user")" --clear-groups)
    fi
    rm -f "$dir/socket/fcgiwrap.socket"
    env -i "${passed[@]}" setsid "${as_user[@]}" "$FCGIWRAP" -c 4 \
        -s "unix:$dir/socket/fcgiwrap.socket" </dev/null >>"$dir/logs/fcgiwrap.log" 2>&1 &
    echo $! >"$dir/run/fcgiwrap.pid"
}

# Writes the configuration for port and starts nginx; true once it answers and the socket it
# hands pages to is there.
launch() {
    local socket=$dir/socket/fcgiwrap.socket
    ((!fastcgi)) || socket=$dir/socket/tessel.sock
    write_config "$dir" "$site" "$1" "$user"
    rm -f "$dir/run/nginx.pid"
    "$NGINX" -p "$dir" -c "$dir/conf/nginx.conf" 2>>"$dir/logs/error.log" &&
        wait_until_up "$1" "$dir/run/nginx.pid" "$socket"
}

start() {
    local dir site program user fastcgi=0
    if [[ ${1:-} == --fastcgi ]]; then
        fastcgi=1
        shift
    fi
    (($# >= 3)) || die "usage: nginx.sh start [--fastcgi] DIR SITE PROGRAM [PORT]"
    [[ -x $NGINX ]] || die "$NGINX not found (install the nginx package)"
    ((fastcgi)) || [[ -x $FCGIWRAP ]] || die "$FCGIWRAP not found (install the fcgiwrap package)"
    server_prepare "$1" "$2" "$3" tmp socket
    write_shipped "$dir"
    if ((fastcgi)); then
        start_resident "$dir" "$user"
    else
        start_fcgiwrap "$dir" "$user"
    fi
    start_on_port "${4:-0}" launch stop_nginx "$dir/logs/error.log" "$dir/logs/fcgiwrap.log" \
        "$dir/logs/tessel.log"
}

stop_nginx() { stop_pid_file "$1/run/nginx.pid"; }

stop() {
    (($# == 1)) || die "usage: nginx.sh stop DIR"
    stop_nginx "$1"
    # fcgiwrap's children outlive their parent: the whole group goes.
    stop_pid_file "$1/run/fcgiwrap.pid" -
    stop_resident "$1"
}

case ${1:-} in
start) shift; start "$@" ;;
stop) shift; stop "$@" ;;
*) die "usage: nginx.sh start [--fastcgi] DIR SITE PROGRAM [PORT] | stop DIR" ;;
esac
