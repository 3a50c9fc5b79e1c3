#!/usr/bin/env bash
# The members' area of the example site behind the server's password check: a real password
# file made by htpasswd, the server asking for it, and the page's auth deciding who of the
# signed-in visitors is a member. Through the server's page handler the name arrives as
# REDIRECT_REMOTE_USER, which user reads.
# Usage: members_test.sh PROGRAM
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"
if ! command -v htpasswd >/dev/null; then
    echo "SKIP: htpasswd is not installed (package apache2-utils)"
    exit 77
fi

cp -R "$E2E_ROOT/examples/site/." "$SITE/"
passwords=$WORK/members.passwd
htpasswd -c -b "$passwords" joe tea-for-joe 2>/dev/null
htpasswd -b "$passwords" zed zed-pass 2>/dev/null
sed -i "s|^AuthUserFile .*|AuthUserFile $passwords|" "$SITE/members/.htaccess"
chmod -R a+rX "$SITE" "$passwords"
e2e_start

e2e_get /members/
check_equal "asked: no credentials" 401 "$STATUS"
check_header www-authenticate 'Basic realm="Members of the Tessel Tea House"'
e2e_get /members/ -u joe:coffee
check_equal "refused: a wrong password" 401 "$STATUS"
check_equal "the page did not run" "" "$(logged_lines | grep /members/)"

e2e_get /members/ -u zed:zed-pass
check_equal "a valid user who is not a member: the page" 200 "$STATUS"
check_contains "he is refused by the page" "This area is for members only."
check_contains "by his name" "are signed in as zed, which is not a member"
if grep -q "Members' price" "$BODY"; then fail "zed sees the members' prices"; fi

e2e_get /members/index.html -u joe:tea-for-joe
check_equal "a member: admitted" 200 "$STATUS"
check_contains "greeted by name" "<p>Welcome back, joe. Members pay ten per cent less:</p>"
check_contains "shown the members' prices" "Members' price"
e2e_finish
