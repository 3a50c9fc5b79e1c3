#!/usr/bin/env bash
# Installs what the tests need, checks the layout of the C++ files, builds tessel in build/ and
# runs every test suite: unit tests, page tests, the end-to-end tests through a private Apache
# and the SQL tests against a private MariaDB. Works unattended on a fresh Debian machine (as
# root, or with sudo).
#
#   bash scripts/test.sh            (BUILD_DIR=... to build elsewhere than build/)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh
# The system's tools first: Debian's packages are what the tests are written against, and a
# version manager's shims (a python3 that takes seconds to start) must not stand in for them.
export PATH=/usr/sbin:/usr/bin:/sbin:/bin:$PATH

ensure_packages build-essential cmake libgtest-dev python3 apache2 mariadb-server \
    libmariadb-dev libgd-dev libcrypt-dev curl clang-format git python3-pil
# The mail tests need a local mail transfer agent, set up for local delivery only.
bash scripts/mail.sh install || echo "no mail agent: the mail tests will be skipped"

# Layout: every C++ file tracked in git must be as clang-format lays it out (.clang-format).
git ls-files -z '*.cpp' '*.h' | xargs -0 clang-format --dry-run --Werror

build=${BUILD_DIR:-build}
cmake -S . -B "$build" -DBUILD_TESTING=ON
cmake --build "$build" -j2
ctest --test-dir "$build" -j2 --output-on-failure
