#!/usr/bin/env bash
# Requests per second of four pages served three ways by one private Apache (event MPM): the
# CGI program (mod_cgid, as scripts/apache.sh deploys it), the resident program
# (tessel --fastcgi with N workers, through mod_proxy_fcgi and the shipped
# deploy/tessel-fastcgi.conf) and PHP-FPM (N static children, OPcache on, through
# mod_proxy_fcgi) running PHP scripts that print the same bytes (bench/fastcgi/pages.py). Then
# the same through a private nginx: the shipped deploy/nginx.conf with fcgiwrap for the CGI
# program, deploy/nginx-fastcgi.conf for the same resident workers, and PHP-FPM. Not a test:
# it checks that every way gives the same body, then prints the median rate of interleaved ab
# runs and the workers' CPU time per request.
#
#   bash bench/fastcgi_bench.sh     ROUNDS=... (default 3) SECONDS_EACH=... (default 3)
#                                   CLIENTS=... (default 4) WORKERS=... (default: processors)
#                                   SERVERS="apache nginx" TESSEL=path to skip the build
#                                   KEEP=1 keeps the scratch folder (pages, configurations, logs)
#
# Pages: the small page of bench/run.sh, the table and calls pages of bench/expander_bench.sh,
# and a macros page (300 rows through the site's macros). Target: the resident program at
# least PHP-FPM's rate on the small, table and macros pages, at least half of it on the calls
# page. Runs as root too: then every server, worker and child runs as www-data.
set -euo pipefail
export PATH=/usr/sbin:/usr/bin:/sbin:/bin:$PATH
rounds=${ROUNDS:-3}
seconds=${SECONDS_EACH:-3}
clients=${CLIENTS:-4}
workers=${WORKERS:-$(nproc)}
servers=${SERVERS:-apache nginx}
pages=(small table macros calls)
modes=(cgi resident php)
APACHE=${APACHE:-/usr/sbin/apache2}
MODULES=${APACHE_MODULES:-/usr/lib/apache2/modules}
NGINX=${NGINX:-/usr/sbin/nginx}
FCGIWRAP=${FCGIWRAP:-/usr/sbin/fcgiwrap}
PHP_FPM=${PHP_FPM:-$(command -v php-fpm8.2 || command -v php-fpm || true)}

source "$(dirname "$0")/common.sh" tessel-fastcgi
SERVER_SCRIPT=fastcgi_bench.sh
source "$root/scripts/server_lib.sh"
command -v ab >/dev/null || die "ab missing (apache2-utils)"
[[ -x $APACHE ]] || die "$APACHE missing"
chmod 755 "$work"

# ---- the folders, the pages and the program ----------------------------------------------
# work/apache is the Apache's ServerRoot, with the program in its cgi-bin, which is also the
# working folder of the resident workers (the CGI program works there too); work/apache/run/sock
# holds the sockets, owned by the account everything runs as.
dir='' site='' user=''
mkdir -p "$work/site" "$work/php"
python3 "$root/bench/fastcgi/pages.py" "$work/site" "$work/php"
server_prepare "$work/apache" "$work/site" "$TESSEL" run/sock
group=$(id -gn "$user")
as_user=()
if [[ $(id -u) -eq 0 ]]; then
    chown "$user:$group" "$dir/run/sock"
    as_user=(setpriv --reuid="$user" --regid="$group" --clear-groups)
fi
sock=$dir/run/sock
chmod -R a+rX "$work/site" "$work/php"

pids=()
cleanup() {
    local pid
    for pid in "${pids[@]}"; do kill -TERM -- "-$pid" 2>/dev/null || true; done
    stop_pid_file "$dir/run/httpd.pid" || true
    stop_pid_file "$dir/run/nginx.pid" || true
    stop_pid_file "$dir/run/php-fpm.pid" || true
    sleep 0.5
    if [[ -n ${KEEP:-} ]]; then echo "kept $work" >&2; else rm -rf "$work"; fi
}
trap cleanup EXIT

# Starts a program in folder, in a process group of its own with a clean environment, as the
# run user; its output goes to log.
start_group() {
    local folder=$1 log=$2
    shift 2
    env -i -C "$folder" PATH=/usr/bin:/bin setsid "${as_user[@]}" "$@" </dev/null >>"$log" 2>&1 &
    pids+=($!)
}

wait_for_socket() {
    local i
    for ((i = 0; i < 100; i++)); do
        [[ -S $1 ]] && return 0
        sleep 0.1
    done
    die "no socket $1; see $2: $(tail -5 "$2" 2>/dev/null)"
}

# ---- the resident workers and PHP-FPM ----------------------------------------------------
start_group "$dir/cgi-bin" "$dir/logs/tessel.log" ./tessel --fastcgi "unix:$sock/tessel" \
    --workers "$workers"
tessel_parent=$!
wait_for_socket "$sock/tessel" "$dir/logs/tessel.log"

have_php=0
if [[ -n $PHP_FPM ]]; then
    have_php=1
    # Only the settings below: no scan of the system's conf.d, whose opcache line is loaded here.
    cat >"$dir/conf/php.ini" <<INI
zend_extension=opcache.so
opcache.enable=1
opcache.memory_consumption=64
display_errors=Off
log_errors=On
INI
    cat >"$dir/conf/php-fpm.conf" <<CONF
[global]
pid = $dir/run/php-fpm.pid
error_log = $dir/logs/php-fpm.log
daemonize = yes
[bench]
$( [[ $(id -u) -eq 0 ]] && printf 'user = %s\ngroup = %s\n' "$user" "$group" )
listen = $sock/php
listen.mode = 0660
$( [[ $(id -u) -eq 0 ]] && printf 'listen.owner = %s\nlisten.group = %s\n' "$user" "$group" )
pm = static
pm.max_children = $workers
security.limit_extensions = .html
CONF
    env -i PATH=/usr/bin:/bin PHP_INI_SCAN_DIR= "$PHP_FPM" -c "$dir/conf/php.ini" \
        -y "$dir/conf/php-fpm.conf" || die "php-fpm did not start"
    wait_for_socket "$sock/php" "$dir/logs/php-fpm.log"
    echo '<?= function_exists("opcache_get_status") && opcache_get_status(false)["opcache_enabled"] ? "on" : "off" ?>' \
        >"$work/php/opcache.html"
else
    modes=(cgi resident)
    echo "php-fpm is not installed: PHP-FPM is left out" >&2
fi

# ---- Apache ------------------------------------------------------------------------------
# The settings that scripts/apache.sh sets for the CGI program.
settings() {
    local name
    for name in TESSEL_STOP_AT_DOCUMENT_ROOT TESSEL_INERT_REQUEST_DATA \
        TESSEL_SERVER_ERROR_AS_TEXT TESSEL_SAFE_ESCAPING TESSEL_SAFE_ERROR_PAGES \
        TESSEL_MULTIPART_AS_SENT "$@"; do
        echo "    SetEnv $name 1"
    done
}

write_apache_config() {
    local base=$1
    cat >"$dir/conf/httpd.conf" <<CONF
# Private server of bench/fastcgi_bench.sh: port $base the CGI program, $((base + 1)) the
# resident program, $((base + 2)) PHP-FPM.
ServerRoot "$dir"
ServerName 127.0.0.1
Listen 127.0.0.1:$base
Listen 127.0.0.1:$((base + 1))
Listen 127.0.0.1:$((base + 2))
PidFile "$dir/run/httpd.pid"
DefaultRuntimeDir "$dir/run"
ErrorLog "$dir/logs/error.log"
LogLevel warn

LoadModule mpm_event_module $MODULES/mod_mpm_event.so
LoadModule authz_core_module $MODULES/mod_authz_core.so
LoadModule mime_module $MODULES/mod_mime.so
LoadModule alias_module $MODULES/mod_alias.so
LoadModule actions_module $MODULES/mod_actions.so
LoadModule cgid_module $MODULES/mod_cgid.so
LoadModule env_module $MODULES/mod_env.so
LoadModule proxy_module $MODULES/mod_proxy.so
LoadModule proxy_fcgi_module $MODULES/mod_proxy_fcgi.so
LoadModule macro_module $MODULES/mod_macro.so
# The shipped configuration of the resident workers, whose macro the resident port uses.
Include "$root/deploy/tessel-fastcgi.conf"

StartServers 1
ServerLimit 4
ThreadsPerChild 16
MaxRequestWorkers 64
MinSpareThreads 8
MaxSpareThreads 32
ScriptSock "$dir/run/cgid.sock"
$( [[ $(id -u) -eq 0 ]] && printf 'User %s\nGroup %s\n' "$user" "$group" )
TypesConfig /etc/mime.types

<Directory />
    AllowOverride None
    Require all denied
</Directory>
<Directory "$site">
    Require all granted
</Directory>
<Directory "$work/php">
    Require all granted
</Directory>
<Directory "$dir/cgi-bin">
    Require all granted
    UseCanonicalName On
</Directory>

<VirtualHost 127.0.0.1:$base>
    DocumentRoot "$site"
    ScriptAlias /cgi-bin/ "$dir/cgi-bin/"
    Action tessel-page /cgi-bin/tessel
    <FilesMatch "\.html\$">
        SetHandler tessel-page
    </FilesMatch>
$(settings TESSEL_REQUIRE_REDIRECT TESSEL_AUTH_NEEDS_USER)
</VirtualHost>
<VirtualHost 127.0.0.1:$((base + 1))>
    DocumentRoot "$site"
    Use TesselFastCGISite "$dir/cgi-bin" "$sock/tessel"
</VirtualHost>
<VirtualHost 127.0.0.1:$((base + 2))>
    DocumentRoot "$work/php"
    <FilesMatch "\.html\$">
        SetHandler "proxy:unix:$sock/php|fcgi://localhost/"
    </FilesMatch>
</VirtualHost>
CONF
}

launch_apache() {
    write_apache_config "$1"
    rm -f "$dir/run/httpd.pid"
    "$APACHE" -f "$dir/conf/httpd.conf" -k start && wait_until_up "$1" "$dir/run/httpd.pid"
}

# Three ports in a row, the first one free; the others are tried by binding.
free_base() {
    python3 -c '
import socket
for _ in range(50):
    s = socket.socket(); s.bind(("127.0.0.1", 0)); base = s.getsockname()[1]; s.close()
    try:
        for p in range(base, base + 3):
            t = socket.socket(); t.bind(("127.0.0.1", p)); t.close()
        print(base); break
    except OSError:
        pass'
}

# ---- nginx -------------------------------------------------------------------------------
# The shipped page locations with their sockets and program set to these: deploy/nginx.conf
# for the CGI program through fcgiwrap, deploy/nginx-fastcgi.conf for the resident workers.
# Fails when a line to set is no longer there, so that the copy never drifts from what ships.
nginx_location() {
    local file=$root/deploy/$1 from=$2 to=$3
    grep -qF "$from" "$file" || die "$file no longer holds '$from'"
    sed -e "s|SCRIPT_FILENAME /usr/lib/tessel/tessel;|SCRIPT_FILENAME $dir/cgi-bin/tessel;|" \
        -e "s|$from|$to|" "$file"
}

write_nginx_config() {
    local base=$1 ng=$work/nginx
    mkdir -p "$ng/conf" "$ng/tmp"
    nginx_location nginx.conf "fastcgi_pass unix:/run/fcgiwrap.socket;" \
        "fastcgi_pass unix:$sock/fcgiwrap;" >"$ng/conf/cgi.conf"
    nginx_location nginx-fastcgi.conf "fastcgi_pass unix:/run/tessel/fastcgi.sock;" \
        "fastcgi_pass unix:$sock/tessel;" >"$ng/conf/resident.conf"
    cat >"$ng/conf/nginx.conf" <<CONF
daemon on;
pid $dir/run/nginx.pid;
error_log $dir/logs/nginx-error.log warn;
$( [[ $(id -u) -eq 0 ]] && printf 'user %s %s;\n' "$user" "$group" )
worker_processes 1;
events {
    worker_connections 256;
}
http {
    include /etc/nginx/mime.types;
    access_log off;
    client_body_temp_path $ng/tmp/body;
    fastcgi_temp_path $ng/tmp/fastcgi;
    proxy_temp_path $ng/tmp/proxy;
    uwsgi_temp_path $ng/tmp/uwsgi;
    scgi_temp_path $ng/tmp/scgi;
    # The largest page (176 KB) is kept in memory, never in a temporary file.
    fastcgi_buffers 32 8k;
    server {
        listen 127.0.0.1:$base;
        root $site;
        set \$tessel_state "";
        include $ng/conf/cgi.conf;
    }
    server {
        listen 127.0.0.1:$((base + 1));
        root $site;
        set \$tessel_state "";
        include $ng/conf/resident.conf;
    }
    server {
        listen 127.0.0.1:$((base + 2));
        root $work/php;
        location ~ \.html\$ {
            fastcgi_pass unix:$sock/php;
            include /etc/nginx/fastcgi_params;
            fastcgi_param SCRIPT_FILENAME \$document_root\$fastcgi_script_name;
        }
    }
}
CONF
}

launch_nginx() {
    write_nginx_config "$1"
    rm -f "$dir/run/nginx.pid"
    "$NGINX" -p "$work/nginx" -c "$work/nginx/conf/nginx.conf" 2>>"$dir/logs/nginx-error.log" &&
        wait_until_up "$1" "$dir/run/nginx.pid"
}

start_server() {
    local name=$1 base
    for _ in 1 2 3; do
        base=$(free_base)
        if "launch_$name" "$base" >&2; then
            echo "$base"
            return 0
        fi
    done
    die "$name did not start: $(tail -5 "$dir/logs/"*error.log)"
}

# ---- measuring ---------------------------------------------------------------------------
port_of() { # mode base
    case $1 in cgi) echo "$2" ;; resident) echo $(($2 + 1)) ;; php) echo $(($2 + 2)) ;; esac
}

# Every mode must print the very same body for every page.
check_bodies() {
    local server=$1 base=$2 page mode
    for page in "${pages[@]}"; do
        for mode in "${modes[@]}"; do
            curl -sS -o "$work/$server-$mode-$page.body" "http://127.0.0.1:$(port_of "$mode" "$base")/$page.html"
        done
        for mode in "${modes[@]}"; do
            cmp -s "$work/$server-cgi-$page.body" "$work/$server-$mode-$page.body" ||
                die "$server: $mode's $page page differs from the CGI program's:
$(diff "$work/$server-cgi-$page.body" "$work/$server-$mode-$page.body" | head -8)"
        done
        grep -q '\[invalid operator\|\[undefined macro' "$work/$server-cgi-$page.body" &&
            die "$page: the page uses what this build lacks"
    done
    return 0
}

# The CPU time (user and system, in clock ticks) that the workers of a mode have used so far:
# the children of the resident program's parent or of PHP-FPM's master. Other processes that
# share the machine do not count in it, so it reads steadier than the rate. Nothing for CGI.
worker_ticks() {
    local parent
    case $1 in
    resident) parent=$tessel_parent ;;
    php) parent=$(cat "$dir/run/php-fpm.pid") ;;
    *) echo 0; return ;;
    esac
    pgrep -P "$parent" | sed 's|.*|/proc/&/stat|' | xargs cat 2>/dev/null |
        awk '{sub(/.*\) /, ""); n += $12 + $13} END {print n + 0}'
}

# One ab run; appends "server mode page round rate cpu_ms" to the results, cpu_ms being the
# workers' CPU milliseconds per request (0 for CGI).
load() {
    local server=$1 mode=$2 page=$3 round=$4 base=$5 out rate failed answered before after cpu
    before=$(worker_ticks "$mode")
    out=$(ab -q -k -c "$clients" -t "$seconds" -n 10000000 \
        "http://127.0.0.1:$(port_of "$mode" "$base")/$page.html" 2>&1) || {
        echo "ab failed for $server $mode $page: $out" >&2
        return 0
    }
    after=$(worker_ticks "$mode")
    rate=$(awk '/^Requests per second/ {print $4}' <<<"$out")
    answered=$(awk '/^Complete requests/ {print $3}' <<<"$out")
    failed=$(awk '/^(Failed requests|Non-2xx responses)/ {n += $NF} END {print n + 0}' <<<"$out")
    ((failed == 0)) || echo "warning: $server $mode $page: $failed failed requests" >&2
    cpu=$(awk -v t=$((after - before)) -v n="$answered" -v hz="$(getconf CLK_TCK)" \
        'BEGIN {print n ? 1000 * t / hz / n : 0}')
    [[ $round == warm ]] || echo "$server $mode $page $round $rate $cpu" >>"$work/results"
}

measure() {
    local server=$1 base=$2 round page mode i
    check_bodies "$server" "$base"
    if ((have_php)); then
        [[ $(curl -s "http://127.0.0.1:$((base + 2))/opcache.html") == on ]] ||
            die "OPcache is off in php-fpm"
    fi
    echo "$server: warming up..." >&2
    seconds=1
    for page in "${pages[@]}"; do
        for mode in "${modes[@]}"; do load "$server" "$mode" "$page" warm "$base"; done
    done
    seconds=${SECONDS_EACH:-3}
    for ((round = 1; round <= rounds; round++)); do
        echo "$server: round $round of $rounds, load $(cut -d' ' -f1-3 /proc/loadavg)" >&2
        for page in "${pages[@]}"; do
            # Each round starts with another mode, so no mode always runs right after another.
            for ((i = 0; i < ${#modes[@]}; i++)); do
                mode=${modes[(i + round) % ${#modes[@]}]}
                load "$server" "$mode" "$page" "$round" "$base"
            done
        done
    done
}

echo "load before: $(cut -d' ' -f1-3 /proc/loadavg); $workers workers, $clients clients," \
    "$rounds rounds of ${seconds}s" >&2
: >"$work/results"
for server in $servers; do
    case $server in
    apache)
        base=$(start_server apache)
        measure apache "$base"
        stop_pid_file "$dir/run/httpd.pid"
        ;;
    nginx)
        if [[ ! -x $NGINX ]]; then
            echo "nginx is not installed: left out" >&2
            continue
        fi
        if [[ -x $FCGIWRAP ]]; then
            rm -f "$sock/fcgiwrap"
            start_group / "$dir/logs/fcgiwrap.log" "$FCGIWRAP" -c 4 -s "unix:$sock/fcgiwrap"
            wait_for_socket "$sock/fcgiwrap" "$dir/logs/fcgiwrap.log"
        else
            echo "fcgiwrap is not installed: nginx runs no CGI" >&2
        fi
        base=$(start_server nginx)
        measure nginx "$base"
        stop_pid_file "$dir/run/nginx.pid"
        ;;
    esac
done
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)" >&2

python3 - "$work/results" <<'PY'
import collections, statistics, sys
rates = collections.defaultdict(list)
cpu = collections.defaultdict(list)
for row in open(sys.argv[1]):
    server, mode, page, _, rate, ms = row.split()
    rates[server, mode, page].append(float(rate))
    cpu[server, mode, page].append(float(ms))
goals = {"small": 1.0, "table": 1.0, "macros": 1.0, "calls": 0.5}
servers = list(dict.fromkeys(k[0] for k in rates))
for server in servers:
    def rate(mode, page):
        r = rates.get((server, mode, page))
        return statistics.median(r) if r else None
    def spread(mode, page):
        r = rates.get((server, mode, page))
        return 100.0 * (max(r) - min(r)) / statistics.median(r) if r else 0.0
    print()
    print("%s: requests/s, median of rounds (spread max-min in %% of the median)" % server)
    print("%-8s %16s %16s %16s %10s %10s  %s" % ("page", "CGI", "resident", "PHP-FPM",
                                                 "res/PHP", "res/CGI", "goal res/PHP"))
    for page in ("small", "table", "macros", "calls"):
        cgi, res, php = rate("cgi", page), rate("resident", page), rate("php", page)
        def cell(mode, value):
            return "%9.1f (%3.0f%%)" % (value, spread(mode, page)) if value else "%16s" % "-"
        vs_php = "%9.2fx" % (res / php) if res and php else "%10s" % "-"
        vs_cgi = "%9.2fx" % (res / cgi) if res and cgi else "%10s" % "-"
        goal = ">= %.1fx %s" % (goals[page], "met" if res / php >= goals[page] else "MISSED") \
            if res and php else ""
        print("%-8s %s %s %s %s %s  %s" % (page, cell("cgi", cgi), cell("resident", res),
                                           cell("php", php), vs_php, vs_cgi, goal))
    if not any(cpu.get((server, "php", p)) for p in goals):
        continue
    print("%-8s %16s %16s %10s   (the workers' CPU ms per request, median of rounds)" % (
        "", "resident", "PHP-FPM", "PHP/res"))
    for page in ("small", "table", "macros", "calls"):
        res = statistics.median(cpu[server, "resident", page])
        php = statistics.median(cpu[server, "php", page])
        print("%-8s %16.3f %16.3f %9.2fx" % (page, res, php, php / res if res else 0))
PY
