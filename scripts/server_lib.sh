# Sourced by apache.sh, lighttpd.sh and nginx.sh: what starting and stopping a private web
# server for tessel takes whatever the server. The sourcing script sets SERVER_SCRIPT (its
# name, for messages) first, and defines stop DIR.

die() {
    echo "$SERVER_SCRIPT: $*" >&2
    exit 1
}

free_port() {
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# The account the server's children and the program run as: the caller, or www-data when
# started by root (which the servers refuse to serve as).
run_user() {
    if [[ $(id -u) -ne 0 ]]; then
        id -un
    elif id www-data >/dev/null 2>&1; then
        echo www-data
    else
        echo nobody
    fi
}

# Checks the arguments of start DIR SITE PROGRAM and sets dir, site and program to their
# absolute paths and user to run_user's; then makes DIR's folders (conf, logs, run, cgi-bin
# and any named after the arguments) and copies the program into DIR/cgi-bin, where it works.
server_prepare() {
    local extra
    [[ -d $2 ]] || die "no site folder $2"
    [[ -x $3 ]] || die "no program $3"
    mkdir -p "$1"
    dir=$(cd "$1" && pwd)
    site=$(cd "$2" && pwd)
    program=$(cd "$(dirname "$3")" && pwd)/$(basename "$3")
    user=$(run_user)
    mkdir -p "$dir/conf" "$dir/logs" "$dir/run" "$dir/cgi-bin"
    for extra in "${@:4}"; do mkdir -p "$dir/$extra"; done
    cp "$program" "$dir/cgi-bin/tessel"
    chmod 755 "$dir" "$dir/cgi-bin" "$dir/cgi-bin/tessel"
    # The SQL client module that the build keeps beside the program, where the program looks
    # for it. Not executable, so the server cannot run it as a program either.
    if [[ -f ${program%/*}/tessel-mysql.so ]]; then
        cp "${program%/*}/tessel-mysql.so" "$dir/cgi-bin/"
        chmod 644 "$dir/cgi-bin/tessel-mysql.so"
    fi
    # The program's working folder is cgi-bin: it writes its logs there.
    if [[ $(id -u) -eq 0 ]]; then chown "$user" "$dir/cgi-bin"; fi
}

# Waits until the server answers on port and the files named after it exist (a pid file, a
# socket), or fails after about ten seconds.
wait_until_up() {
    local port=$1 i file ready
    for ((i = 0; i < 100; i++)); do
        ready=1
        for file in "${@:2}"; do [[ -s $file || -S $file ]] || ready=0; done
        if ((ready)) && curl -s -o /dev/null "http://127.0.0.1:$port/" 2>/dev/null; then
            return 0
        fi
        sleep 0.1
    done
    return 1
}

# Runs "launch PORT" until the server is up: on the port asked for (not 0), or on up to three
# free ports in turn, calling halt DIR after each failure. Prints the port and keeps it in
# DIR/port; when the server never starts, shows the logs named after halt and fails.
start_on_port() {
    local asked=$1 launch=$2 halt=$3 port=$1 attempt
    for attempt in 1 2 3; do
        [[ $port != 0 ]] || port=$(free_port)
        if "$launch" "$port"; then
            echo "$port" >"$dir/port"
            echo "$port"
            return 0
        fi
        "$halt" "$dir" >/dev/null 2>&1 || true
        [[ $asked == 0 ]] || break # a port asked for by name is not replaced
        port=0
    done
    stop "$dir" >/dev/null 2>&1 || true
    cat "${@:4}" >&2 2>/dev/null || true
    die "the server in $dir did not start"
}

# Sends TERM to the process (or, with a second argument "-", the process group) whose id the
# file holds, and waits for it to go; KILL after about ten seconds.
stop_pid_file() {
    local file=$1 group=${2:-} pid i
    [[ -s $file ]] || return 0
    pid=$(cat "$file")
    kill -TERM -- "$group$pid" 2>/dev/null || return 0
    for ((i = 0; i < 100; i++)); do
        kill -0 -- "$group$pid" 2>/dev/null || return 0
        sleep 0.1
    done
    kill -KILL -- "$group$pid" 2>/dev/null || true
}

# The FastCGI variant's resident workers: DIR/cgi-bin/tessel --fastcgi on the socket file
# DIR/socket/tessel.sock with two workers, started in DIR/cgi-bin (where they work, as the CGI
# program does) with a clean environment (and a sanitizer build's options), as user, in a
# session of its own. Its pid goes to DIR/run/tessel.pid, its messages to DIR/logs/tessel.log.
start_resident() {
    local dir=$1 user=$2 passed=(PATH=/usr/bin:/bin) name as_user=()
    for name in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
        [[ -z ${!name:-} ]] || passed+=("$name=${!name}")
    done
    mkdir -p "$dir/socket"
    if [[ $(id -u) -eq 0 ]]; then
        chown "$user" "$dir/socket"
        as_user=(setpriv --reuid="$user" --regid="$(id -gn "$user")" --clear-groups)
    fi
    (cd "$dir/cgi-bin" && exec env -i "${passed[@]}" setsid "${as_user[@]}" ./tessel \
        --fastcgi "unix:$dir/socket/tessel.sock" --workers 2 </dev/null \
        >>"$dir/logs/tessel.log" 2>&1) &
    echo $! >"$dir/run/tessel.pid"
}

# Stops the workers: SIGTERM to their parent, which waits for them and removes the socket.
stop_resident() { stop_pid_file "$1/run/tessel.pid"; }
