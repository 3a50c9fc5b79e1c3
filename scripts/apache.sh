#!/usr/bin/env bash
# Starts and stops a private Apache httpd (Debian's apache2) that serves a site through tessel
# the way a real site is deployed: the program in a ScriptAlias'd cgi-bin folder and every
# .html file handed to it by mod_actions. Everything the server owns (configuration, pid,
# logs, the cgid socket, the cgi-bin folder) lives in one folder of its own.
#
#   scripts/apache.sh start [--fastcgi] DIR SITE PROGRAM [PORT]
#       DIR      folder for the server's files (created; empty or absent)
#       SITE     the DocumentRoot, served as it stands
#       PROGRAM  the built tessel program, copied to DIR/cgi-bin/tessel
#       PORT     port on 127.0.0.1; absent or 0 picks a free one
#     Prints the port once the server answers. A file DIR/cgi-bin/.profile (the working
#     directory of the program) may be added afterwards; error_log and access_log land there.
#     With --fastcgi the pages go to resident workers instead (tessel --fastcgi on
#     DIR/socket/tessel.sock, pid in DIR/run/tessel.pid, messages in DIR/logs/tessel.log),
#     through mod_proxy_fcgi as the shipped deploy/tessel-fastcgi.conf hands them over, with
#     DIR/cgi-bin as the site's state folder; the program has no URL then.
#   scripts/apache.sh stop DIR
#       Stops the server started in DIR, and its workers, and waits for them to go.
#
# The server is Debian's default set-up: the event MPM with mod_cgid. Every run of the program
# is held to TESSEL_RLIMIT_CPU seconds of CPU (default 30) and TESSEL_RLIMIT_MEM bytes of
# address space (default 1 GiB), so a page that loops without end cannot take the host down.
set -euo pipefail

APACHE=${APACHE:-/usr/sbin/apache2}
MODULES=${APACHE_MODULES:-/usr/lib/apache2/modules}
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

SERVER_SCRIPT=apache.sh
source "$ROOT/scripts/server_lib.sh"

# A sanitizer build of the program reads its options from the environment, which a CGI
# program gets only through PassEnv.
sanitizer_options() {
    local name passed=()
    for name in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
        [[ -z ${!name:-} ]] || passed+=("$name")
    done
    ((${#passed[@]})) || return 0
    printf 'PassEnv %s\n' "${passed[*]}"
}

write_config() {
    local dir=$1 site=$2 port=$3 user=$4 group
    group=$(id -gn "$user")
    cat >"$dir/conf/httpd.conf" <<CONF
# Private server for tessel, written by scripts/apache.sh.
ServerRoot "$dir"
ServerName 127.0.0.1:$port
Listen 127.0.0.1:$port
PidFile "$dir/run/httpd.pid"
DefaultRuntimeDir "$dir/run"
ErrorLog "$dir/logs/error.log"
LogLevel warn
LogFormat "%h %l %u %t \"%r\" %>s %b" common
CustomLog "$dir/logs/access.log" common

LoadModule mpm_event_module $MODULES/mod_mpm_event.so
LoadModule authz_core_module $MODULES/mod_authz_core.so
LoadModule mime_module $MODULES/mod_mime.so
LoadModule alias_module $MODULES/mod_alias.so
LoadModule actions_module $MODULES/mod_actions.so
LoadModule cgid_module $MODULES/mod_cgid.so
LoadModule dir_module $MODULES/mod_dir.so
LoadModule env_module $MODULES/mod_env.so
LoadModule auth_basic_module $MODULES/mod_auth_basic.so
LoadModule authn_core_module $MODULES/mod_authn_core.so
LoadModule authn_file_module $MODULES/mod_authn_file.so
LoadModule authz_user_module $MODULES/mod_authz_user.so
$(sanitizer_options)

StartServers 1
ServerLimit 4
ThreadsPerChild 16
MaxRequestWorkers 64
MinSpareThreads 8
MaxSpareThreads 32
ScriptSock "$dir/run/cgid.sock"
RLimitCPU ${TESSEL_RLIMIT_CPU:-30}
RLimitMEM ${TESSEL_RLIMIT_MEM:-1073741824}
$( [[ $(id -u) -eq 0 ]] && printf 'User %s\nGroup %s\n' "$user" "$group" )

TypesConfig /etc/mime.types
DirectoryIndex index.html

<Directory />
    AllowOverride None
    Require all denied
</Directory>

DocumentRoot "$site"
<Directory "$site">
    Options None
    # A site's .htaccess may ask for a password (AuthType, AuthUserFile, Require); nothing else.
    AllowOverride AuthConfig
    Require all granted
</Directory>
$(if ((fastcgi)); then deploy_fastcgi "$dir"; else deploy_cgi "$dir"; fi)
CONF
}

# The deployment of the FastCGI variant: the shipped macros, the state folder the program's.
deploy_fastcgi() {
    local dir=$1
    cat <<CONF
LoadModule proxy_module $MODULES/mod_proxy.so
LoadModule proxy_fcgi_module $MODULES/mod_proxy_fcgi.so
LoadModule macro_module $MODULES/mod_macro.so
Include "$ROOT/deploy/tessel-fastcgi.conf"
Use TesselFastCGISite "$dir/cgi-bin" "$dir/socket/tessel.sock"
CONF
}

deploy_cgi() {
    local dir=$1
    cat <<CONF
# The deployment of tessel: the program in cgi-bin, and every page handed to it.
ScriptAlias /cgi-bin/ "$dir/cgi-bin/"
<Directory "$dir/cgi-bin">
    Require all granted
    # SERVER_NAME is the configured name, not the client's Host header.
    UseCanonicalName On
</Directory>
Action tessel-page /cgi-bin/tessel
<FilesMatch "(?i)\.html\$">
    SetHandler tessel-page
</FilesMatch>
# Pages run only when the server dispatched them through the handler above.
SetEnv TESSEL_REQUIRE_REDIRECT 1
# A visitor nobody signed in passes no rule of auth, not even require valid-user.
SetEnv TESSEL_AUTH_NEEDS_USER 1
SetEnv TESSEL_STOP_AT_DOCUMENT_ROOT 1
# Request data is never expanded a second time; a connect error is text in SERVER_ERROR.
SetEnv TESSEL_INERT_REQUEST_DATA 1
SetEnv TESSEL_SERVER_ERROR_AS_TEXT 1
# Each escaping mode is safe where it is meant for; error pages carry a status and no paths.
SetEnv TESSEL_SAFE_ESCAPING 1
SetEnv TESSEL_SAFE_ERROR_PAGES 1
# A multipart boundary is matched as the browser sent it (Chromium sends capitals).
SetEnv TESSEL_MULTIPART_AS_SENT 1

# A site's private files are never served: macro, configuration and table files (names
# beginning with "_"), .profile, counters, .htaccess, and the program's own logs, cache and chat.
<FilesMatch "^(_.*|\.profile|\.htaccess|.*\.count|error_log|access_log)$">
    Require all denied
</FilesMatch>
<DirectoryMatch "^$dir/cgi-bin/(cache|chat)">
    Require all denied
</DirectoryMatch>
CONF
}

# Writes the configuration for port and starts the server; true once it answers (and, for
# the FastCGI variant, the workers' socket is there).
launch() {
    local ready=("$dir/run/httpd.pid")
    ((!fastcgi)) || ready+=("$dir/socket/tessel.sock")
    write_config "$dir" "$site" "$1" "$user"
    rm -f "$dir/run/httpd.pid"
    "$APACHE" -f "$dir/conf/httpd.conf" -k start && wait_until_up "$1" "${ready[@]}"
}

start() {
    local dir site program user fastcgi=0
    if [[ ${1:-} == --fastcgi ]]; then
        fastcgi=1
        shift
    fi
    (($# >= 3)) || die "usage: apache.sh start [--fastcgi] DIR SITE PROGRAM [PORT]"
    [[ -x $APACHE ]] || die "$APACHE not found (install the apache2 package)"
    server_prepare "$1" "$2" "$3"
    ((!fastcgi)) || start_resident "$dir" "$user"
    start_on_port "${4:-0}" launch stop_apache "$dir/logs/error.log" "$dir/logs/tessel.log"
}

stop_apache() { stop_pid_file "$1/run/httpd.pid"; }

stop() {
    (($# == 1)) || die "usage: apache.sh stop DIR"
    stop_apache "$1"
    stop_resident "$1"
}

case ${1:-} in
start) shift; start "$@" ;;
stop) shift; stop "$@" ;;
*) die "usage: apache.sh start [--fastcgi] DIR SITE PROGRAM [PORT] | stop DIR" ;;
esac
