#!/usr/bin/env bash
# The resource log as the program writes it on its way out: a request that used more than 2
# seconds of CPU time appends one line to /tmp/rusage.SERVER_NAME.log, a cheap one nothing.
# Runs the program directly (no server needed). The busy page loops longer until it passes the
# threshold, so a fast machine does not make the test fail.
# Usage: resource_log_test.sh PROGRAM
set -uo pipefail
program=$(realpath "$1")
work=$(mktemp -d "${TMPDIR:-/tmp}/tessel-rusage.XXXXXX")
server=tessel-test-$$-$RANDOM
log=/tmp/rusage.$server.log
trap 'rm -rf "$work" "$log"' EXIT
source "$(dirname "$0")/checks.sh"

# Renders page FILE (in $work) as a server would, with SERVER_NAME set to $server.
render() {
    (cd "$work" && env -i PATH="$PATH" DOCUMENT_ROOT="$work" SCRIPT_NAME=/cgi-bin/tessel \
        REQUEST_METHOD=GET SERVER_NAME="$server" REQUEST_URI="/$1" PATH_TRANSLATED="$work/$1" \
        "$program" >/dev/null)
}

printf 'cheap\n' >"$work/cheap.html"
render cheap.html
check_equal "a cheap request writes nothing" no "$([[ -e $log ]] && echo yes || echo no)"

for calls in 4000000 8000000 16000000 32000000 64000000; do
    printf '^for[i;1;%d;^var[y;^length[abc]]]busy\n' "$calls" >"$work/busy.html"
    render busy.html
    [[ -s $log ]] && break
done
line='^\[[0-9]{2}/[A-Z][a-z]{2}/[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}\] [0-9]{3}\.[0-9]{2}s [0-9]{3}\.[0-9]{2}s  -?[0-9]+ -?[0-9]+ -?[0-9]+ /busy\.html$'
if [[ $(wc -l <"$log" 2>/dev/null) == 1 ]] && grep -Eq "$line" "$log"; then
    echo "ok: a busy request appended one line: $(cat "$log")"
else
    fail "the busy request's line is missing or malformed: $(cat "$log" 2>/dev/null)"
fi
exit $E2E_FAILED
