#!/usr/bin/env bash
# The example site through a private Apache that hands its pages to resident workers with
# mod_proxy_fcgi, deployed with deploy/tessel-fastcgi.conf (scripts/apache.sh --fastcgi): the
# checks of the other servers (servers.sh), then those of the workers (workers.sh).
# Usage: apache_fastcgi_test.sh PROGRAM
set -uo pipefail
E2E_SERVER=apache E2E_FASTCGI=1
source "$(dirname "$0")/servers.sh" "$1"
source "$(dirname "$0")/workers.sh"
e2e_finish
