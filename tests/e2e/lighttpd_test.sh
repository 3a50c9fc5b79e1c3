#!/usr/bin/env bash
# The example site through a private lighttpd deployed with deploy/lighttpd.conf, as on Debian
# (scripts/lighttpd.sh; servers.sh holds the checks shared with nginx), and what only lighttpd
# needs: /cgi-bin/ reaches the program by its own URL, as Debian's 10-cgi.conf maps it.
# Usage: lighttpd_test.sh PROGRAM
set -uo pipefail
E2E_SERVER=lighttpd
source "$(dirname "$0")/servers.sh" "$1"

# Debian's /cgi-bin/ reaches the program by its own URL, which it refuses itself.
for path in "${OWN_URLS[@]}"; do
    e2e_get "$path" --path-as-is
    check_contains "$path: the program refuses its own URL" 'illegal call' "$BODY"
done
e2e_finish
