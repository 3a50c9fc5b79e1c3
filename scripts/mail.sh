#!/usr/bin/env bash
# The local mail transfer agent of the mail tests: Debian's exim4-daemon-light, set up by
# debconf for local delivery only (mbox files in /var/mail/, SMTP on loopback only).
#
#   scripts/mail.sh install
#       Installs exim4-daemon-light with that configuration when it is missing (as root, or
#       through sudo) and stops the daemon that the package starts. An agent already
#       installed is used as it is (every Debian configuration delivers to local users).
#       Exits 77 when the agent is missing and neither root nor sudo may install it.
#   scripts/mail.sh start
#       Starts the daemon when none runs (root only) and prints its pid, or prints nothing
#       when a daemon ran already or cannot be started. Mail handed to /usr/sbin/sendmail is
#       delivered by the agent either way.
#   scripts/mail.sh stop PID
#       Stops a daemon printed by start and waits for it to go.
set -euo pipefail
cd "$(dirname "$0")/.."

PACKAGE=exim4-daemon-light
PID_FILE=/run/exim4/exim.pid

die() {
    echo "mail.sh: $*" >&2
    exit 1
}

# The debconf answers: local delivery only, SMTP on loopback only.
preseed() {
    cat <<SEL
exim4-config exim4-config/dc_eximconfig_configtype select local delivery only; not on a network
exim4-config exim4-config/dc_local_interfaces string 127.0.0.1 ; ::1
exim4-config exim4-config/dc_other_hostnames string
exim4-config exim4-config/dc_relay_domains string
exim4-config exim4-config/dc_relay_nets string
exim4-config exim4-config/dc_minimaldns boolean false
exim4-config exim4-config/dc_localdelivery select mbox format in /var/mail/
exim4-config exim4-config/use_split_config boolean false
exim4-config exim4-config/mailname string $(hostname -f 2>/dev/null || hostname)
SEL
}

install_agent() {
    source scripts/packages.sh
    if ! package_missing "$PACKAGE"; then
        return 0
    fi
    local sudo=()
    if [[ $(id -u) -ne 0 ]]; then
        sudo=(sudo -n)
        if ! sudo -n true 2>/dev/null; then
            echo "mail.sh: $PACKAGE is missing and may be installed by root only"
            exit 77
        fi
    fi
    preseed | "${sudo[@]}" debconf-set-selections
    ensure_packages "$PACKAGE"
    grep -q "^dc_eximconfig_configtype='local'" /etc/exim4/update-exim4.conf.conf ||
        die "debconf did not configure local delivery"
    # The package starts its daemon; the tests start their own and stop it again.
    if [[ -x /etc/init.d/exim4 ]]; then "${sudo[@]}" /etc/init.d/exim4 stop >/dev/null 2>&1 || true; fi
}

daemon_running() {
    [[ -s $PID_FILE ]] && kill -0 "$(cat "$PID_FILE")" 2>/dev/null
}

start_daemon() {
    if daemon_running || [[ $(id -u) -ne 0 ]]; then
        return 0
    fi
    mkdir -p /run/exim4
    chown Debian-exim:Debian-exim /run/exim4 2>/dev/null || true
    /usr/sbin/exim4 -bd -q30m
    local i
    for i in $(seq 50); do
        if daemon_running; then
            cat "$PID_FILE"
            return 0
        fi
        sleep 0.1
    done
    die "the exim daemon did not start"
}

stop_daemon() {
    local pid=$1 i
    [[ -n $pid ]] || return 0
    kill "$pid" 2>/dev/null || return 0
    for i in $(seq 50); do
        kill -0 "$pid" 2>/dev/null || return 0
        sleep 0.1
    done
    die "the exim daemon $pid did not stop"
}

case ${1:-} in
install) install_agent ;;
start) start_daemon ;;
stop) stop_daemon "${2:-}" ;;
*) die "usage: mail.sh install | start | stop PID" ;;
esac
