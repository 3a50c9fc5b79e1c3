#!/usr/bin/env bash
# Installs what the tests need, checks the layout of the C++ files, builds tessel in build/ and
# runs every test suite: unit tests, page tests, the end-to-end tests through a private Apache
# and the SQL tests against a private MariaDB. Then it builds everything again with clang
# under AddressSanitizer and UndefinedBehaviorSanitizer, runs the whole suite on that build,
# and runs each fuzz target of tests/fuzz for a short while. Warnings are errors in both
# builds. Works unattended on a fresh Debian machine (as root, or with sudo).
#
#   bash scripts/test.sh      (BUILD_DIR=... to build elsewhere than build/; the sanitizer
#                              build goes to BUILD_DIR-sanitize, FUZZ_SECONDS per target)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh
# The system's tools first: Debian's packages are what the tests are written against, and a
# version manager's shims (a python3 that takes seconds to start) must not stand in for them.
export PATH=/usr/sbin:/usr/bin:/sbin:/bin:$PATH

ensure_packages build-essential cmake libgtest-dev python3 apache2 apache2-utils mariadb-server \
    libmariadb-dev libgd-dev libcrypt-dev libfcgi-dev curl clang-format git \
    python3-pil strace lighttpd nginx fcgiwrap chromium firefox-esr
# The mail tests need a local mail transfer agent, set up for local delivery only.
bash scripts/mail.sh install || echo "no mail agent: the mail tests will be skipped"

# Layout: every C++ file tracked in git must be as clang-format lays it out (.clang-format).
git ls-files -z '*.cpp' '*.h' | xargs -0 clang-format --dry-run --Werror

build=${BUILD_DIR:-build}
cmake -S . -B "$build" -DBUILD_TESTING=ON -DCMAKE_COMPILE_WARNING_AS_ERROR=ON
cmake --build "$build" -j2
ctest --test-dir "$build" -j2 --output-on-failure

# The suite again under the sanitizers. Every report fails a test (-fno-sanitize-recover, and
# a report changes the exit status) and is also written to a file in $reports, which catches
# the runs under the private Apache as well (apache.sh passes the options on); any file there
# fails this script. Leak checking reports memory that was lost, not what is still reachable
# when the process exits: the request state lives until the exit by design. The deliberate
# SIGFPE of a zero divisor is left to its default action (handle_sigfpe=0), and a failed
# allocation returns null to the program's own out-of-memory path, as in the release build.
# The private Apache gets no memory limit here, and e2e/limits, which tests the limits
# themselves, does not run: the sanitizers reserve far more address space than any memory
# limit allows.
sanitize=$build-sanitize
bash scripts/sanitize_build.sh "$sanitize"
reports=$(mktemp -d)
chmod 1777 "$reports"
trap 'rm -rf "$reports"' EXIT
suite=0
ASAN_OPTIONS="detect_leaks=1:handle_sigfpe=0:allocator_may_return_null=1:log_path=$reports/asan" \
    UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:log_path=$reports/ubsan" \
    TESSEL_RLIMIT_MEM=max ctest --test-dir "$sanitize" -j2 --output-on-failure -E '^e2e/limits$' ||
    suite=$?
if compgen -G "$reports/*" >/dev/null; then
    cat "$reports"/*
    echo "sanitizer reports above" >&2
    exit 1
fi
((suite == 0)) || exit "$suite"

FUZZ_NO_BUILD=1 SANITIZE_DIR=$sanitize bash scripts/fuzz.sh "${FUZZ_SECONDS:-25}"
