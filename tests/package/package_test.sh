#!/usr/bin/env bash
# The Debian package as an administrator gets it. Built with cpack from the build, its control
# fields and files are checked with dpkg-deb. Then, as root on a Debian host with apache2 (and
# no tessel installed, no system Apache running), it is installed with dpkg and a private
# Apache serves, with the installed tessel.conf, tessel-fastcgi.conf and Debian's
# serve-cgi-bin.conf, three tessel sites on loopback (one whole host, one folder, one through
# the installed program's resident workers) and a static site: each site keeps its own state,
# the static site is served as it is, private files are refused, and nothing warns about
# overlapping aliases. dpkg -r must turn both configurations off, dpkg -P remove what the
# package made. The machine's Apache module and configuration links are put back as they were.
# Usage: package_test.sh BUILD_DIR
# Exits 77 (skipped) when it cannot install: not root, no dpkg or apache2, tessel installed;
# and for a sanitizer build, which is never packaged.
set -uo pipefail
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
source "$ROOT/tests/e2e/checks.sh"
BUILD=$(realpath "$1")
export PATH=/usr/sbin:/usr/bin:/sbin:/bin:$PATH

skip() {
    echo "SKIP: $*"
    exit 77
}
command -v cpack >/dev/null && command -v dpkg-deb >/dev/null || skip "cpack or dpkg-deb missing"
# A sanitizer build is no package: its program needs terabytes of address space for its
# shadow memory, which the package's run limits (RLimitMEM) rightly refuse.
grep -q -- '-fsanitize' "$BUILD/CMakeCache.txt" 2>/dev/null && skip "a sanitizer build is not packaged"
WORK=$(mktemp -d "${TMPDIR:-/tmp}/tessel-package.XXXXXX")
chmod 755 "$WORK" # the server's children read the sites
INSTALLED=0
stop_apache() {
    local pid i
    # Site d's workers go with the server.
    kill "$(cat "$WORK/run/workers.pid" 2>/dev/null)" 2>/dev/null
    pid=$(cat "$WORK/run/httpd.pid" 2>/dev/null) && kill "$pid" 2>/dev/null || return 0
    for ((i = 0; i < 100; i++)); do
        kill -0 "$pid" 2>/dev/null || return 0
        sleep 0.1
    done
}
# dpkg ARGS...: its output goes to dpkg.log; waits while apt or another dpkg holds the
# package database.
dpkg_run() {
    local i
    for ((i = 0; i < 300; i++)); do
        dpkg "$@" >"$WORK/dpkg.out" 2>&1
        local status=$?
        cat "$WORK/dpkg.out" >>"$WORK/dpkg.log"
        ((status != 0)) && grep -q 'lock' "$WORK/dpkg.out" || return $status
        sleep 1
    done
    return 1
}
cleanup() {
    stop_apache
    if ((INSTALLED)); then
        dpkg_run -P tessel
        restore_apache_state
    fi
    rm -rf "$WORK"
}
trap cleanup EXIT

# --- The package file -------------------------------------------------------------------
commits() { git -C "$ROOT" rev-list --count HEAD 2>/dev/null; }
commits_before=$(commits)
cpack -G DEB -B "$WORK/deb" --config "$BUILD/CPackConfig.cmake" >"$WORK/cpack.log" 2>&1 ||
    { cat "$WORK/cpack.log"; fail "cpack"; exit 1; }
DEB=$(ls "$WORK"/deb/tessel_*.deb)
field() { dpkg-deb -f "$DEB" "$1"; }
version=$(field Version)
commits=${version#1.0.}
commits=${commits%-1}
if [[ -n $commits_before ]]; then
    # Commits made while cpack ran count too.
    ((commits >= commits_before && commits <= $(commits))) && echo "ok: the version counts the commits" ||
        fail "the version counts the commits: $version, $commits_before before cpack"
else
    check_equal "the version without git" "1.0.0-1" "$version"
fi
check_equal "no web server is required" "" "$(field Depends | grep -oE 'apache2|lighttpd|nginx')"
check_contains "a CGI web server is recommended" "apache2 | lighttpd | nginx" <(field Recommends)
check_contains "gd is recommended" "libgd3" <(field Recommends)

dpkg-deb -c "$DEB" | awk '{print $6}' | sed 's#^\./#/#' >"$WORK/contents"
for path in /usr/lib/tessel/tessel /usr/bin/tessel-check /usr/bin/tessel-render \
    /usr/sbin/tessel-chat-password /usr/share/man/man8/tessel.8.gz \
    /usr/share/doc/tessel/copyright /usr/share/doc/tessel/changelog.Debian.gz \
    /etc/apache2/conf-available/tessel.conf /etc/logrotate.d/tessel /etc/cron.daily/tessel \
    /usr/share/tessel/lighttpd.conf /usr/share/tessel/nginx.conf \
    /etc/apache2/conf-available/tessel-fastcgi.conf /usr/share/tessel/nginx-fastcgi.conf \
    /lib/systemd/system/tessel-fastcgi.socket /lib/systemd/system/tessel-fastcgi.service; do
    grep -qxF "$path" "$WORK/contents" || fail "the package holds $path"
done
for program in $(grep -E '^/usr/s?bin/.' "$WORK/contents"); do
    grep -qE "^/usr/share/man/man[18]/${program##*/}\.[18]\.gz$" "$WORK/contents" ||
        fail "a man page for $program"
done
check_equal "nothing in the cgi-bin folder Apache serves" "" "$(grep '^/usr/lib/cgi-bin' "$WORK/contents")"
dpkg-deb -e "$DEB" "$WORK/control"
check_equal "every file in /etc is a conffile" "$(grep -E '^/etc/.*[^/]$' "$WORK/contents")" \
    "$(sort "$WORK/control/conffiles")"
dpkg-deb -x "$DEB" "$WORK/files"
check_equal "the changelog names the version" "tessel ($version) unstable; urgency=medium" \
    "$(zcat "$WORK/files/usr/share/doc/tessel/changelog.Debian.gz" | head -1)"

# --- Installed ----------------------------------------------------------------------------
[[ $(id -u) == 0 ]] || skip "not root: the package is not installed"
command -v dpkg >/dev/null && [[ -x /usr/sbin/apache2 && -x /usr/sbin/a2enconf ]] ||
    skip "dpkg or Debian's apache2 missing"
! dpkg -s tessel >/dev/null 2>&1 && [[ ! -e /var/lib/tessel ]] ||
    skip "tessel is installed here already"
pid=$(cat /var/run/apache2/apache2.pid 2>/dev/null) && kill -0 "$pid" 2>/dev/null &&
    skip "the system's Apache is running, and installing would reload it"
exec 9>/var/lock/tessel-package-test.lock
flock 9

# The links and records of enabled modules and configurations, restored after the purge.
APACHE_STATE=(etc/apache2/mods-enabled etc/apache2/conf-enabled var/lib/apache2)
apache_state() { (cd / && find "${APACHE_STATE[@]}" -mindepth 1 2>/dev/null | sort); }
apache_state >"$WORK/state.before"
tar -C / -cf "$WORK/state.tar" "${APACHE_STATE[@]}" 2>/dev/null
restore_apache_state() {
    apache_state >"$WORK/state.after"
    comm -13 "$WORK/state.before" "$WORK/state.after" | sort -r | while read -r path; do
        rm -rf "/${path:?}"
    done
    comm -23 "$WORK/state.before" "$WORK/state.after" | while read -r path; do
        tar -C / -xf "$WORK/state.tar" "$path"
    done
}

INSTALLED=1
dpkg_run -i "$DEB" || { cat "$WORK/dpkg.log"; fail "dpkg -i"; exit 1; }
for conf in tessel tessel-fastcgi; do
    [[ -L /etc/apache2/conf-enabled/$conf.conf ]] || fail "$conf.conf is enabled"
done
for module in actions macro; do
    [[ -e /etc/apache2/mods-enabled/$module.load ]] || fail "mod_$module is enabled"
done
[[ -e /etc/apache2/mods-enabled/cgid.load || -e /etc/apache2/mods-enabled/cgi.load ]] ||
    fail "mod_cgid or mod_cgi is enabled"
check_equal "the default state folder" "www-data www-data 2770" \
    "$(stat -c '%U %G %a' /var/lib/tessel/default)"
apache2ctl -t >"$WORK/configtest" 2>&1 || fail "the system's configuration is valid"
check_equal "no overlapping alias in the system's configuration" "" "$(grep AH00671 "$WORK/configtest")"

# The cache expiry drops old entries only; the chat password tool finds the program.
mkdir -p /var/lib/tessel/default/cache/k
touch -d '40 days ago' /var/lib/tessel/default/cache/old_ /var/lib/tessel/default/cache/k/old_
touch /var/lib/tessel/default/cache/new_
/etc/cron.daily/tessel
check_equal "the daily job drops old cache entries" "k new_" \
    "$(ls /var/lib/tessel/default/cache | tr '\n' ' ' | sed 's/ $//')"
echo secret | tessel-chat-password /var/lib/tessel/default >/dev/null || fail "tessel-chat-password"
check_equal "the chat's password belongs to the server's user" www-data \
    "$(stat -c %U /var/lib/tessel/default/chat/admin/password 2>/dev/null)"
if command -v logrotate >/dev/null; then
    logrotate -d /etc/logrotate.d/tessel >"$WORK/logrotate" 2>&1 || fail "the logrotate rule"
fi
# The workers' units parse cleanly and name a program that is installed.
if command -v systemd-analyze >/dev/null; then
    systemd-analyze verify --man=no /lib/systemd/system/tessel-fastcgi.socket \
        /lib/systemd/system/tessel-fastcgi.service >"$WORK/units" 2>&1
    check_equal "systemd-analyze verify: the workers' units" "" "$(cat "$WORK/units")"
fi

# --- Served by a private Apache -----------------------------------------------------------
mkdir -p "$WORK"/{conf,run,logs,a,b/pages,c}
for site in a b d; do install -d -o www-data -g www-data -m 2770 "$WORK/state-$site"; done
# Site d goes to the installed program's resident workers, on a socket of their own.
install -d -o www-data -g www-data "$WORK/sock"
(cd / && exec setpriv --reuid=www-data --regid=www-data --clear-groups /usr/lib/tessel/tessel \
    --fastcgi "unix:$WORK/sock/tessel.sock" --workers 1 </dev/null >"$WORK/logs/workers.log" 2>&1) &
echo $! >"$WORK/run/workers.pid"
printf 'SITE_SECRET=alpha\n' >"$WORK/state-a/.profile"
page='^cache[shared;fragment of %s]|^env[SITE_SECRET]|^logged_by_%s[]\n'
printf "$page" a a >"$WORK/a/index.html"
printf "$page" b b >"$WORK/b/pages/index.html"
mkdir -p "$WORK/d" && printf "$page" d d >"$WORK/d/index.html" && printf '# x\n' >"$WORK/d/_macro.cfg"
printf '^var[x;1] is no page here\n' | tee "$WORK/b/static.html" >"$WORK/c/index.html"
printf '# x\n' | tee "$WORK/a/_macro.cfg" "$WORK/a/.profile" "$WORK/a/hits.count" >"$WORK/a/.htaccess"
chmod -R a+rX "$WORK/a" "$WORK/b" "$WORK/c" "$WORK/d"
port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
modules=/usr/lib/apache2/modules
{
    printf 'ServerRoot "%s"\nServerName 127.0.0.1\nListen 127.0.0.1:%s\n' "$WORK" "$port"
    printf 'PidFile "%s/run/httpd.pid"\nDefaultRuntimeDir "%s/run"\n' "$WORK" "$WORK"
    printf 'ScriptSock "%s/run/cgid.sock"\nErrorLog "%s/logs/error.log"\n' "$WORK" "$WORK"
    printf 'LogLevel warn\nUser www-data\nGroup www-data\nTypesConfig /etc/mime.types\n'
    for module in mpm_event authz_core mime alias actions cgid env dir macro proxy proxy_fcgi; do
        printf 'LoadModule %s_module %s/mod_%s.so\n' "$module" "$modules" "$module"
    done
    printf 'DirectoryIndex index.html\n'
    printf '<Directory />\n    AllowOverride None\n    Require all denied\n</Directory>\n'
    printf '<Directory "%s">\n    Require all granted\n</Directory>\n' "$WORK"
    printf 'Include /etc/apache2/conf-available/serve-cgi-bin.conf\n'
    printf 'Include /etc/apache2/conf-available/tessel.conf\n'
    printf 'Include /etc/apache2/conf-available/tessel-fastcgi.conf\n'
    for site in 'a:Use TesselSite STATE' 'b:Use TesselFolder STATE DOCROOT/pages' 'c:' \
        "d:Use TesselFastCGISite STATE $WORK/sock/tessel.sock"; do
        name=${site%%:*} use=${site#*:}
        use=${use//STATE/$WORK/state-$name}
        printf '<VirtualHost 127.0.0.1:%s>\n    ServerName %s.test\n' "$port" "$name"
        printf '    DocumentRoot "%s"\n    %s\n</VirtualHost>\n' "$WORK/$name" "${use//DOCROOT/$WORK/$name}"
    done
} >"$WORK/conf/httpd.conf"
apache2 -f "$WORK/conf/httpd.conf" -t >"$WORK/configtest" 2>&1 || fail "the private configuration is valid"
apache2 -f "$WORK/conf/httpd.conf" -k start || fail "the private Apache starts"
for ((i = 0; i < 100; i++)); do
    [[ -S $WORK/sock/tessel.sock ]] && curl -s -o /dev/null "http://127.0.0.1:$port/" && break
    sleep 0.1
done

# get HOST PATH: sets STATUS and BODY.
get() {
    BODY=$WORK/body
    STATUS=$(curl -s -o "$BODY" -w '%{http_code}' --resolve "$1.test:$port:127.0.0.1" \
        "http://$1.test:$port$2")
}
get a /index.html
check_equal "site A's page" "200 fragment of a|alpha|[invalid operator logged_by_a]" "$STATUS $(cat "$BODY")"
get b /pages/index.html
check_equal "site B's page: its own cache entry, not A's .profile" \
    "200 fragment of b||[invalid operator logged_by_b]" "$STATUS $(cat "$BODY")"
check_equal "A's cache in A's state folder" "fragment of a" "$(cat "$WORK/state-a/cache/shared_")"
check_contains "A's error in A's log" "logged_by_a" "$WORK/state-a/error_log"
check_contains "B's error in B's log" "logged_by_b" "$WORK/state-b/error_log"
check_equal "B's log holds no line of A's" "" "$(grep logged_by_a "$WORK/state-b/error_log")"
get d /index.html
check_equal "site D's page, through the workers: its own cache entry, not A's .profile" \
    "200 fragment of d||[invalid operator logged_by_d]" "$STATUS $(cat "$BODY")"
check_contains "D's error in D's log" "logged_by_d" "$WORK/state-d/error_log"
get d /_macro.cfg
check_equal "D's private files are refused" 403 "$STATUS"
get c /index.html
check_equal "the static site's .html is served as it is" "200 ^var[x;1] is no page here" \
    "$STATUS $(cat "$BODY")"
get b /static.html
check_equal "B's .html outside its tessel folder is served as it is" \
    "200 ^var[x;1] is no page here" "$STATUS $(cat "$BODY")"
for path in /_macro.cfg /.profile /hits.count /.htaccess /tessel-cgi/tessel/index.html; do
    get a "$path"
    check_equal "$path is refused" 403 "$STATUS"
done
get c /tessel-cgi/tessel
check_equal "the program has no URL on a site without tessel" 404 "$STATUS"
get a /cgi-bin/tessel
check_equal "nor in Debian's /cgi-bin/" 404 "$STATUS"
check_equal "no overlapping alias at start-up" "" \
    "$(grep -h AH00671 "$WORK/configtest" "$WORK/logs/error.log")"
stop_apache

# --- Removed, then purged -----------------------------------------------------------------
dpkg_run -r tessel || fail "dpkg -r"
for conf in tessel tessel-fastcgi; do
    [[ ! -e /etc/apache2/conf-enabled/$conf.conf && ! -L /etc/apache2/conf-enabled/$conf.conf ]] ||
        fail "dpkg -r turns $conf.conf off"
done
[[ ! -e /usr/lib/tessel/tessel ]] || fail "dpkg -r removes the program"
dpkg_run -P tessel || fail "dpkg -P"
for path in /etc/apache2/conf-available/tessel.conf /etc/apache2/conf-available/tessel-fastcgi.conf \
    /etc/logrotate.d/tessel /etc/cron.daily/tessel /var/lib/tessel /usr/share/doc/tessel; do
    [[ ! -e $path ]] || fail "dpkg -P removes $path"
done
check_equal "no record of either configuration is left" "" \
    "$(find /var/lib/apache2 -name tessel -o -name tessel-fastcgi)"
((E2E_FAILED == 0)) || cat "$WORK/dpkg.log" "$WORK/logs/error.log" 2>/dev/null
exit $E2E_FAILED
