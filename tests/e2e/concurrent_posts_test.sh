#!/usr/bin/env bash
# Visitors posting at once: the example guestbook, with 5,000 entries already, takes 200 posts
# sent 20 at a time through two Apache servers that share the site folder. Its lock makes each
# post's load, append and save one step, so every entry is kept exactly once. A visitor's TAB or
# line break cannot add cells or rows.
# Usage: concurrent_posts_test.sh PROGRAM
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"

cp -R "$E2E_ROOT/examples/site/." "$SITE/"
{
    printf 'who\ttext\n'
    for ((i = 0; i < 5000; i++)); do printf 'old%d\tan entry from before\n' "$i"; done
} >"$SITE/_guestbook"
chmod -R a+rwX "$SITE"
e2e_start
e2e_stop_more() { "$APACHE_SH" stop "$WORK/server2"; }
port2=$("$APACHE_SH" start "$WORK/server2" "$SITE" "$E2E_PROGRAM") || exit 1

seq 1 200 | xargs -P 20 -I{} sh -c \
    'if [ $(({} % 2)) = 0 ]; then base=$1; else base=$2; fi
     curl -s -o /dev/null --data "who=post{}&text=hello" "$base/guestbook.html"' \
    sh "$BASE" "http://127.0.0.1:$port2"
check_equal "every post is kept" 5200 "$(grep -c $'\tan entry from before$\|\thello$' "$SITE/_guestbook")"
check_equal "each post once" 200 "$(cut -f1 "$SITE/_guestbook" | grep '^post' | sort -u | wc -l)"

e2e_get /guestbook.html --data-urlencode $'who=eve\tforged' --data-urlencode $'text=a\nmallory\tb'
check_equal "a visitor's TAB and line break stay inside the entry" $'eve forged\ta mallory b' \
    "$(tail -1 "$SITE/_guestbook")"
e2e_finish
