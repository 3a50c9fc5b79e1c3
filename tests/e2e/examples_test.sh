#!/usr/bin/env bash
# The example site served as scripts/serve.sh serves it: the welcome page and every page it
# links to render through Apache without an error page or an operator error in them.
# sql.html runs against the sample database of scripts/mariadb.sh, as serve.sh sets it up,
# when MariaDB is installed.
# Usage: examples_test.sh PROGRAM
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"

# A copy that the server's user can read wherever the checkout lives, and write: the start
# page's hit counter lives beside it.
cp -R "$E2E_ROOT/examples/site/." "$SITE/"
chmod -R a+rwX "$SITE"
e2e_start

db=""
if command -v mariadbd >/dev/null || [[ -x /usr/sbin/mariadbd ]]; then
    e2e_stop_more() { sh "$E2E_ROOT/scripts/mariadb.sh" stop "$WORK/mariadb"; }
    db=$(sh "$E2E_ROOT/scripts/mariadb.sh" start "$WORK/mariadb") || fail "MariaDB did not start"
    # The program's folder is cgi-bin: its .profile passes the database on, as serve.sh does.
    printf 'TESSEL_DB=%s\n' "$db" >"$CGI_BIN/.profile"
fi

# Page errors come out in brackets: an unknown operator, an undefined macro, a bad count.
check_renders() {
    e2e_get "$1"
    check_equal "$1: status" 200 "$STATUS"
    check_equal "$1: content-type" text/html "$(header_value content-type)"
    if grep -q -e '<title>Error!</title>' -e '\[invalid operator' -e '\[undefined macro' \
        -e '\[invalid parameters to operator' -e '\[sql ' -e '\[counter: ' "$BODY"; then
        fail "$1: the page shows an error"
        grep -o -e '<h2>.*' -e '\[invalid [^]]*\]' -e '\[undefined macro[^]]*\]' "$BODY" | head -5
    fi
}

check_renders /
links=$(grep -o 'href="[a-z_]*\.html"' "$BODY" | sed 's/href="\(.*\)"/\1/')
check_equal "the welcome page links the example pages" \
    "tables.html loops.html form.html text.html guestbook.html gallery.html download.html contact.html calendar.html sql.html images.html chat.html thread.html" "$(echo $links)"
# The members' area asks for a password; members_test.sh signs in.
e2e_get /members/
check_equal "/members/ asks for a password" 401 "$STATUS"
for page in $links; do
    if [[ $page != sql.html || -n $db ]]; then check_renders "/$page"; fi
done
if [[ -n $db ]]; then
    e2e_get "/sql.html?city=Oslo"
    check_contains "sql page filters" '<h2>2 people in Oslo</h2>'
else
    echo "note: MariaDB is not installed, sql.html not checked"
fi

# Every page is framed by the shared header and footer files (private_files_test.sh shows such
# files refused); the start page counts its visits and shows a fragment from the page cache,
# built once.
e2e_get /download.html
check_contains "the header names the page" "<title>Downloads - Tessel Tea House</title>"
check_contains "the footer closes it" "Made with tessel"
check_contains "the price list's size" "(112 bytes)"
shelf() { grep -o 'This list was built [^<]*' "$BODY"; }
e2e_get /
first=$(grep -o 'Visits to this page so far: [0-9]*' "$BODY")
first_shelf=$(shelf)
sleep 1
e2e_get /
check_equal "the counter counts each visit" "Visits to this page so far: $((${first##* } + 1))" \
    "$(grep -o 'Visits to this page so far: [0-9]*' "$BODY")"
check_equal "the shelf comes from the cache" "$first_shelf" "$(shelf)"
check_contains "the shelf lists what is in stock" "Biscuits (40 boxes), Jam (21 boxes)"
e2e_get "/?fresh=1"
if [[ -n $first_shelf && $(shelf) != "$first_shelf" ]]; then
    echo "ok: fresh=1 builds the shelf again"
else
    fail "fresh=1 builds the shelf again"
fi

# Form input arrives through the server's query string and comes out escaped.
e2e_get "/?name=%3CAnn%3E"
check_contains "greeting escaped" 'Welcome, &lt;Ann&gt;,'

e2e_finish
