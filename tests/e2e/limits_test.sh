#!/usr/bin/env bash
# The server's limits end a run-away page cleanly: a page that loops past the CPU limit and a
# page that grows a table without end each leave one line in the program's error log and end
# with no page, while an ordinary page on the same server still renders.
# Usage: limits_test.sh PROGRAM
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"

printf '^for[i;1;2000000000;^var[x;1]]\n' >"$SITE/spin.html"
printf '^config[a;x]^menu[^config[b;y]]\n' >"$SITE/grow.html"
printf 'fine ^eval[6*7]\n' >"$SITE/fine.html"
# First a server that allows 2 s of CPU, then one that allows a minute but little memory, so
# each page meets the limit it is meant to meet however busy the machine is.
export TESSEL_RLIMIT_CPU=2 TESSEL_RLIMIT_MEM=$((128 << 20))
e2e_start

e2e_get /fine.html
check_body "an ordinary page renders under the limits" $'fine 42\n'

e2e_get /spin.html
check_equal "CPU limit: no page" 500 "$STATUS"
check_equal "CPU limit: one log line" "$SITE/spin.html: CPU time limit exceeded" "$(logged_lines)"
rm -f "$CGI_BIN/error_log"

"$APACHE_SH" stop "$SERVER" >/dev/null
export TESSEL_RLIMIT_CPU=60 TESSEL_RLIMIT_MEM=$((64 << 20))
e2e_start
e2e_get /fine.html
check_body "an ordinary page renders in 64 MB" $'fine 42\n'
e2e_get /grow.html
check_equal "memory limit: no page" 500 "$STATUS"
got=$(logged_lines)
check_equal "memory limit: one log line" 1 "$(printf '%s\n' "$got" | grep -c .)"
if [[ $got != "$SITE/grow.html: unable to "*alloc*" bytes" ]]; then
    fail "memory limit: the out-of-memory line, got: $got"
fi

e2e_finish
