#!/usr/bin/env bash
# Times the chat as a web server runs it, one whole process per request: reading the room
# (the newest 20 of 100 messages and a list of 50 visitors), posting a message (the index
# rewritten under its lock, the day's archive appended to; the poster is the admin, whom the
# limit of 10 messages a minute does not stop, so that every round posts), the admin's login
# (one password hash, the address's guesses counted and forgotten; sent without the reader's
# cookie, since a login gives up the nick of the ticket it comes with), and a 4 KB message
# quoted for a reply, beside a small page without any of them. Not a test: it prints medians
# of interleaved runs.
#
#   bash bench/chat_bench.sh    ROUNDS=... (default 100); TESSEL=path to skip the build
# Targets: reading and posting within 2x the small page; the admin's login under half a
# second (the hash is meant to be slow, to make guessing costly).
set -euo pipefail
rounds=${ROUNDS:-100}

source "$(dirname "$0")/common.sh" tessel-chat-bench
trap 'rm -rf "$work"' EXIT
cd "$work"
cc -O2 -o runner "$root/bench/runner.c"

export DOCUMENT_ROOT=$work SCRIPT_NAME=/cgi-bin/tessel REQUEST_METHOD=GET
export REMOTE_ADDR=127.0.0.1 SERVER_NAME=localhost QUERY_STRING=
ticket=0123456789abcdef0123456789abcdef
export HTTP_COOKIE="chat=$ticket"

python3 - "$ticket" <<'PY'
import os, sys
ticket = sys.argv[1]
os.makedirs("chat/admin", exist_ok=True)
os.makedirs("chat/log", exist_ok=True)
with open("chat/userlist", "w") as f:
    f.write("ann\t%s\t4000000000\t1\n" % ticket)
    for i in range(49):
        f.write("user%d\t%032x\t4000000000\t0\n" % (i, i))
with open("chat/index", "w") as f:
    for i in range(100):
        f.write("2026-01-02\t10:00:00\tuser%d\tmessage number %d, about sixty bytes of chat text\n"
                % (i % 49, i))
open("small.html", "w").write("<p>Hello ^default[^form[name];guest], ^left[a small page;7].</p>\n")
open("read.html", "w").write(
    "^chat[20]<table>^menu[<tr><td>^item[time]</td><td>^item[nick]</td><td>^item[text]</td></tr>]"
    "</table>\n^userlist[]<p>^menu[^item[nick];, ]</p>\n")
open("post.html", "w").write("[^message[a message posted by the benchmark]]\n")
open("admin.html", "w").write("[^login[boss;bench password]]\n")
text = "\n".join(("word " * 15 + "> quoted") for _ in range(50))
open("quote.html", "w").write("<pre>^hotline_quote[%s;60]</pre>\n" % text)
PY
PATH_TRANSLATED=$work/small.html REQUEST_URI=/small.html "$TESSEL" >/dev/null
printf '^startup[bench password]ok\n' >set.html
PATH_TRANSLATED=$work/set.html REQUEST_URI=/set.html "$TESSEL" | grep -q '^ok$' ||
    { echo "could not set the admin password" >&2; exit 1; }
printf '#!/bin/sh\nunset HTTP_COOKIE\nexec "%s"\n' "$TESSEL" >no_cookie
chmod +x no_cookie
for page in read post admin quote; do
    program=$TESSEL
    [[ $page == admin ]] && program=$work/no_cookie
    PATH_TRANSLATED=$work/$page.html REQUEST_URI=/$page.html "$program" >"$page.out"
    if grep -q '\[[a-z_]*: ' "$page.out"; then
        echo "$page.html fails: $(grep -o '\[[a-z_]*: [^]]*\]' "$page.out" | head -1)" >&2
        exit 1
    fi
done

echo "timing $rounds interleaved rounds of whole processes..."
./runner "$rounds" small="$TESSEL@$work/small.html" read="$TESSEL@$work/read.html" \
    post="$TESSEL@$work/post.html" admin="$work/no_cookie@$work/admin.html" \
    quote="$TESSEL@$work/quote.html" >times

python3 - "$work" <<'PY'
import os, sys
t = {}
for row in open(os.path.join(sys.argv[1], "times")):
    label, ms = row.split()[:2]
    t[label] = float(ms)
small = t["small"]
print()
print("%-52s %9s %8s" % ("request", "median", "/ small"))
for label, title in (("small", "small page, no chat"),
                     ("read", "read the room: 20 of 100 messages, 50 visitors"),
                     ("post", "post a message"),
                     ("admin", "the admin's login (one password hash)"),
                     ("quote", "quote a 4 KB message, 60 columns")):
    print("%-52s %6.3f ms %7.2fx" % (title, t[label], t[label] / small))
ok = lambda c: "met" if c else "MISSED"
print()
print("reading and posting within 2x the small page: %s" % ok(max(t["read"], t["post"]) <= 2 * small))
print("the admin's login under half a second: %s" % ok(t["admin"] < 500))
PY
