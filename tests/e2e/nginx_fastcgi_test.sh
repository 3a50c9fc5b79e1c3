#!/usr/bin/env bash
# The example site through a private nginx that hands its pages to resident workers, deployed
# with deploy/nginx-fastcgi.conf (scripts/nginx.sh --fastcgi): the checks of the other servers
# (servers.sh), then those of the workers (workers.sh).
# Usage: nginx_fastcgi_test.sh PROGRAM
set -uo pipefail
E2E_SERVER=nginx E2E_FASTCGI=1
source "$(dirname "$0")/servers.sh" "$1"
source "$(dirname "$0")/workers.sh"
e2e_finish
