#!/usr/bin/env bash
# The example site in real browsers: Debian's chromium and firefox-esr, each driven by
# puppeteer-core from npm, walk examples/site/ through a private Apache (with the sample
# MariaDB when it is installed, as serve.sh sets it up) and send its forms themselves, the
# gallery's multipart upload included (site_test.mjs says what is checked). Screenshots of
# every page land in BUILD/browser/screenshots/chromium/ and .../firefox/.
#
#   site_test.sh PROGRAM BUILD
#
# Installs chromium and firefox-esr (apt) and puppeteer-core (npm, into BUILD/browser, from the
# checked-in package-lock.json) when they are missing; exits 77 (skipped) only when they
# cannot be.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(realpath "$2")
source "$here/../e2e/lib.sh" "$1"
source "$E2E_ROOT/scripts/packages.sh"

skip() {
    echo "SKIP: $*"
    exit 77
}
# Only what is missing: a Node.js from elsewhere brings its own npm.
if ! command -v chromium >/dev/null; then
    ensure_packages chromium >/dev/null || skip "chromium cannot be installed"
fi
if ! command -v firefox-esr >/dev/null; then
    ensure_packages firefox-esr >/dev/null || skip "firefox-esr cannot be installed"
fi
if ! command -v npm >/dev/null; then
    ensure_packages nodejs npm >/dev/null || skip "nodejs and npm cannot be installed"
fi
chrome=$(command -v chromium) || skip "chromium is not installed"
firefox=$(command -v firefox-esr) || skip "firefox-esr is not installed"
modules=$build/browser
mkdir -p "$modules"
if [[ ! -d $modules/node_modules/puppeteer-core ]] ||
    ! cmp -s "$here/package-lock.json" "$modules/package-lock.json"; then
    cp "$here/package.json" "$here/package-lock.json" "$modules/"
    (cd "$modules" && npm ci --no-audit --no-fund --ignore-scripts >/dev/null 2>&1) ||
        skip "puppeteer-core cannot be installed from npm"
fi
# Node finds puppeteer-core from the script's folder: the script runs from there.
cp "$here/site_test.mjs" "$modules/"

# A copy the server's user may write to: the guestbook, the gallery and the counters change.
cp -R "$E2E_ROOT/examples/site/." "$SITE/"
# The members' area asks for a password: the browser signs in as the member joe.
htpasswd -c -b "$WORK/members.passwd" joe tea 2>/dev/null || fail "htpasswd failed"
sed -i "s|^AuthUserFile .*|AuthUserFile $WORK/members.passwd|" "$SITE/members/.htaccess"
chmod -R a+rwX "$SITE" "$WORK/members.passwd"
e2e_start
if command -v mariadbd >/dev/null || [[ -x /usr/sbin/mariadbd ]]; then
    e2e_stop_more() { sh "$E2E_ROOT/scripts/mariadb.sh" stop "$WORK/mariadb"; }
    db=$(sh "$E2E_ROOT/scripts/mariadb.sh" start "$WORK/mariadb") || fail "MariaDB did not start"
    printf 'TESSEL_DB=%s\n' "$db" >"$CGI_BIN/.profile"
fi

shots=$build/browser/screenshots
rm -rf "$shots"
# Every page of the menu must be reached by following links from the start page; each browser
# walks the site and sends every form. The gallery's form is multipart: chromium's boundary
# has capital letters, firefox's has none.
export MEMBER=joe:tea
SITE_PAGES=$(sed -n 's/^\(\/[^\t]*\)\t.*/\1/p' "$SITE/_menu" | tr '\n' ' ')
export SITE_PAGES
picture=$E2E_ROOT/examples/site/images/button.gif
node "$modules/site_test.mjs" chromium "$chrome" "$BASE" "$shots/chromium" "$picture" ||
    fail "chromium found faults (above)"
node "$modules/site_test.mjs" firefox "$firefox" "$BASE" "$shots/firefox" "$picture" ||
    fail "firefox found faults (above)"
echo "screenshots: $shots"
e2e_finish
