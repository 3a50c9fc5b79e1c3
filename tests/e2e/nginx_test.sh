#!/usr/bin/env bash
# The example site through a private nginx and fcgiwrap deployed with deploy/nginx.conf, as on
# Debian (scripts/nginx.sh; servers.sh holds the checks shared with lighttpd), and what only
# nginx needs: it sends the page's URL as SCRIPT_NAME, and the client's Host header and Proxy
# header reach the program only as the snippet allows.
# Usage: nginx_test.sh PROGRAM
set -uo pipefail
E2E_SERVER=nginx
source "$(dirname "$0")/servers.sh" "$1"

printf '[^env[SERVER_NAME]] [^env[HTTP_PROXY]]\n' >"$SITE/name.html"
e2e_get /name.html -H 'Host: visitor-1.example' -H 'Proxy: http://evil.example:1'
check_body "SERVER_NAME is the configured name; no proxy from a header" $'[127.0.0.1] []\n'
e2e_finish
