# Shared helpers for the end-to-end tests: each test sources this file, builds a site in a
# temp folder, and talks to its own private Apache (scripts/apache.sh) with curl.
#
#   source "$(dirname "$0")/lib.sh" "$1"    # $1: the built tessel program
#   e2e_start [FOLDER]                      # serves $SITE (or FOLDER) on a free port: sets $BASE
#   e2e_get /page.html                      # sets $STATUS, $HEADERS (file), $BODY (file)
#   check_equal "what" "$want" "$got";  check_body "what" "$want";  check_header NAME VALUE
#   check_contains "what" "$text" [FILE];  check_same_file "what" FILE1 FILE2  (checks.sh)
#   logged_lines                            # the program's error log without time stamps
#   e2e_finish                              # exit status: 0, or 1 when a check failed
#
# Exits 77 (ctest's "skipped") when apache2 or curl is not installed.
#
# A test of another server sets E2E_SERVER before sourcing this file (lighttpd or nginx: the
# script scripts/$E2E_SERVER.sh, which takes the same arguments as apache.sh) and installs
# that server itself; e2e_start then starts it instead of Apache, and Apache need not be there.
# E2E_FASTCGI=1 starts the server's FastCGI variant (apache.sh or nginx.sh start --fastcgi):
# resident workers render the pages, and $SERVER/run/tessel.pid holds their parent's pid.

E2E_PROGRAM=$(realpath "$1")
E2E_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
APACHE_SH=$E2E_ROOT/scripts/apache.sh
E2E_SERVER=${E2E_SERVER:-apache}
SERVER_SH=$E2E_ROOT/scripts/$E2E_SERVER.sh
source "$E2E_ROOT/tests/e2e/checks.sh"

if [[ $E2E_SERVER == apache && ! -x ${APACHE:-/usr/sbin/apache2} ]] || ! command -v curl >/dev/null; then
    echo "SKIP: $E2E_SERVER or curl is not installed (scripts/test.sh installs them)"
    exit 77
fi

WORK=$(mktemp -d "${TMPDIR:-/tmp}/tessel-e2e.XXXXXX")
chmod 755 "$WORK"  # the server's children may run as another user and must read the site
SITE=$WORK/site
SERVER=$WORK/server
CGI_BIN=$SERVER/cgi-bin
mkdir -p "$SITE"

# A test that starts more servers defines e2e_stop_more to stop them.
e2e_cleanup() {
    if declare -F e2e_stop_more >/dev/null; then e2e_stop_more || true; fi
    "$SERVER_SH" stop "$SERVER" || true
    rm -rf "$WORK"
}
trap e2e_cleanup EXIT

e2e_start() {
    local port variant=()
    [[ ${E2E_FASTCGI:-0} != 1 ]] || variant=(--fastcgi)
    port=$("$SERVER_SH" start "${variant[@]}" "$SERVER" "${1:-$SITE}" "$E2E_PROGRAM") || exit 1
    BASE=http://127.0.0.1:$port
}

# Fetches a path; further arguments go to curl (e.g. --data). Header names are lower-cased
# and carriage returns removed, so checks can compare plain lines.
e2e_get() {
    local path=$1
    shift
    HEADERS=$WORK/headers BODY=$WORK/body
    STATUS=$(curl -s -o "$BODY" -D "$WORK/raw_headers" -w '%{http_code}' "$@" "$BASE$path")
    tr -d '\r' <"$WORK/raw_headers" | sed 's/^\([^:]*\):/\L\1:/' >"$HEADERS"
}

# The whole body, byte for byte (a trailing newline counts).
check_body() {
    local want=$WORK/want
    printf '%s' "$2" >"$want"
    if cmp -s "$want" "$BODY"; then
        echo "ok: $1"
    else
        fail "$1 (body differs)"
        diff <(od -c "$want") <(od -c "$BODY") | head -20
    fi
}

# The value of a response header (name in lower case), or empty when absent.
header_value() {
    sed -n "s/^$1: //p" "$HEADERS" | head -1
}

check_header() {
    check_equal "header $1" "$2" "$(header_value "$1")"
}

# Apache does not pass the program's Content-length line on: it counts the body itself when
# it holds it whole and otherwise sends it chunked. When a length is sent it must be right.
check_length() {
    local size length
    size=$(stat -c %s "$BODY")
    length=$(header_value content-length)
    if [[ -n $length ]]; then
        check_equal "$1: content-length is the body size" "$size" "$length"
    fi
}

logged_lines() {
    sed 's/^\[[^]]*\] //' "$CGI_BIN/error_log" 2>/dev/null
}

e2e_finish() {
    if ((E2E_FAILED)); then
        echo "server error log:"
        cat "$SERVER/logs/error.log" 2>/dev/null || true
        return 1
    fi
    echo "all checks passed"
}
