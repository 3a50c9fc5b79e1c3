#!/usr/bin/env bash
# The chat through a private Apache: two visitors (two cookie jars) join, post and read each
# other's messages; 18 posts sent at once all arrive, each on a whole line of the index and of
# the day's archive, and a visitor's eleventh message in a minute is refused; the admin password
# set by scripts/chat_password.sh is checked, a wrong one refused, guesses beyond five from an
# address refused; the admin's commands are refused from other sites; a banned visitor is out
# and cannot come back under a look-alike nick; a message holding calls, markup and tabs comes
# back as inert, escaped text; the day's archive is capped; the chat's files stay out of the
# browser's reach.
# Usage: chat_test.sh PROGRAM
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"

cp "$E2E_ROOT/examples/site/"{chat.html,chatlog.html,_macro.cfg,_menu,_header.html,_footer.html} "$SITE/"
printf '[^level[none;^login[^form[nick];^form[password]]]]\n' >"$SITE/join.html"
printf '[^level[none;^message[^form[text]]]]\n' >"$SITE/post.html"
printf '[^login[]] ^userlist[]^menu[^item[nick];,]\n^chat[100]^menu[^item[nick]: ^item[text]\n]\n' \
    >"$SITE/read.html"
chmod 644 "$SITE"/*
e2e_start
JARS=$WORK/jars
mkdir -p "$JARS"

# join JAR NICK [PASSWORD]; post JAR TEXT [CURL ARGUMENTS]; read JAR
join() { e2e_get /join.html -b "$JARS/$1" -c "$JARS/$1" --data-urlencode "nick=$2" \
    --data-urlencode "password=${3:-}"; }
post() {
    local jar=$1 text=$2
    shift 2
    e2e_get /post.html -b "$JARS/$jar" -c "$JARS/$jar" --data-urlencode "text=$text" "$@"
}
read_room() { e2e_get /read.html -b "$JARS/$1" -c "$JARS/$1"; }

join a ann
check_body "ann joins" $'[]\n'
check_contains "the ticket is a session cookie" $'\tchat\t' "$JARS/a"
check_contains "scripts cannot read it, other sites' requests do not carry it" \
    "; path=/; HttpOnly; SameSite=Lax" "$HEADERS"
join b bob
check_body "bob joins" $'[]\n'
post a "hello from ann"
post b "hello from bob"
read_room a
check_body "ann reads both messages" \
    $'[ann] ann,bob\nann: hello from ann\nbob: hello from bob\n'
read_room b
check_contains "bob reads them too" "[bob] ann,bob"

# 18 posts at once, 9 from each visitor: none lost, none torn. While another process holds
# the chat's lock they all wait, then they go on together.
index=$CGI_BIN/chat/index
archive=$CGI_BIN/chat/log/$(date +%Y-%m-%d)
before=$(cat "$index")
# The locker copies the index at the end of its hold, when the posts have been waiting.
flock "$CGI_BIN/chat/.lock" -c "touch '$WORK/locked'; sleep 4; cat '$index' >'$WORK/during'" &
for ((i = 0; i < 100; i++)); do [[ -e $WORK/locked ]] && break; sleep 0.1; done
for i in $(seq 1 18); do
    if ((i % 2)); then jar=a; else jar=b; fi
    curl -s -o /dev/null -b "$JARS/$jar" --data-urlencode "text=burst $i" "$BASE/post.html" &
done
wait
check_equal "posts wait while the chat is locked" "$before" "$(cat "$WORK/during")"
line='^[0-9]{4}-[0-9]{2}-[0-9]{2}\t[0-9]{2}:[0-9]{2}:[0-9]{2}\t(ann|bob)\t(hello from (ann|bob)|burst [0-9]+)$'
for file in "$index" "$archive"; do
    check_equal "$(basename "$file"): every line whole" 20 "$(grep -cP "$line" "$file")"
    check_equal "$(basename "$file"): no other line" 20 "$(wc -l <"$file")"
    check_equal "$(basename "$file"): every burst post once" "$(seq 1 18)" \
        "$(grep -oP 'burst \K[0-9]+' "$file" | sort -n)"
done
check_equal "odd posts are ann's" 9 "$(grep -cP '\tann\tburst [0-9]*[13579]$' "$index")"
post a "one too many"
check_body "a visitor's eleventh message in a minute is refused" \
    $'[[message: at most 10 messages a minute]]\n'

# The admin: the password is stored hashed, a wrong one is refused and logged.
echo 'open sesame' | bash "$E2E_ROOT/scripts/chat_password.sh" "$CGI_BIN/tessel" "$CGI_BIN" ||
    fail "chat_password.sh"
if grep -q 'sesame' "$CGI_BIN/chat/admin/password"; then fail "password stored in plain text"; fi
check_equal "the password is a salted crypt hash" 1 \
    "$(grep -cE '^\$y\$[^$]+\$[^$]+\$[./0-9A-Za-z]+$' "$CGI_BIN/chat/admin/password")"
join d boss wrong
check_body "a wrong admin password is refused" $'[[login: wrong admin password]]\n'
check_equal "no ticket for a refused admin" "" "$(header_value set-cookie)"
check_contains "the refusal is logged" "wrong admin password for boss" "$CGI_BIN/error_log"
join d boss 'open sesame'
check_body "the admin joins" $'[]\n'

# The admin's cookie goes with a request another site's page makes (a form posted to the
# chat): the browser says where it comes from, and only the site's own pages may command.
refused=$'[[message: an admin command from another site is refused]]\n'
post d "/clear" -H "Origin: http://elsewhere.example"
check_body "a command from another site's form is refused" "$refused"
post d "/clear" -H "Referer: $BASE/chat.html" -H "Sec-Fetch-Site: cross-site"
check_body "a command the browser calls cross-site is refused" "$refused"
post d "/clear"
check_body "a command with neither Origin nor Referer is refused" "$refused"
check_equal "the room was not cleared" 20 "$(wc -l <"$index")"
post d "/ban bob" -H "Origin: $BASE" -H "Sec-Fetch-Site: same-origin"
check_body "the admin bans a nick from the site's own page" $'[]\n'
post b "still here?"
check_body "a banned visitor who was present is out" $'[[message: join the chat first]]\n'
join e 'B0b.'
check_body "a look-alike of a banned nick is banned" $'[[login: nick is banned]]\n'
join e $'\xd0\xb0nn'
check_body "a nick mixing Cyrillic and Latin letters is refused" \
    $'[[login: a nick\'s letters are all Latin or all Cyrillic]]\n'

# Calls, markup and tabs in a message are data: stored as typed, shown escaped, never run.
join c cy
post c $'^var[x;1]^include[/etc/passwd] <script>alert("x")</script>\tTAB\t^^end'
check_body "the message is accepted" $'[]\n'
read_room c
check_contains "calls and markup come back inert and escaped" \
    'cy: ^var[x;1]^include[/etc/passwd] &lt;script&gt;alert(&quot;x&quot;)&lt;/script&gt; TAB ^^end'
e2e_get /chat.html -b "$JARS/c"
check_contains "the example page shows it escaped too" \
    '<td><b>cy</b></td><td>^var[x;1]^include[/etc/passwd] &lt;script&gt;'
check_contains "the example page lists who is here" 'ann, boss (admin), cy<'
e2e_get /chat.html -c "$JARS/f" --data-urlencode 'nick=<b>'
check_contains "the example page shows a refusal" \
    "<p class=\"box warn\">[login: a nick holds only letters, digits, &#39;_&#39;, &#39;-&#39; and &#39;.&#39;]</p>"

# Five wrong admin passwords from an address; then even the right one is refused, unhashed.
for i in 1 2 3 4 5; do join g boss "guess $i"; done
check_body "the fifth guess is still checked" $'[[login: wrong admin password]]\n'
join g boss 'open sesame'
check_body "the sixth is refused" $'[[login: too many wrong admin passwords; try again later]]\n'

# The day's archive holds at most 4 MB: filled up to a few bytes, it takes no more.
size=$(stat -c %s "$archive")
{ head -c $((4194304 - size - 10)) /dev/zero | tr '\0' x; echo; } >>"$archive"
post c "no room"
check_body "a full archive takes no more" $'[[message: today\'s archive is full]]\n'

# The chat's files live in the program's folder, never below the document root.
e2e_get /cgi-bin/chat/admin/password
if grep -q '\$y\$' "$BODY"; then fail "the password hash reached the browser"; else
    echo "ok: the password file is not served"; fi
e2e_get /cgi-bin/chat/index
if grep -q 'hello from' "$BODY"; then fail "the index reached the browser"; else
    echo "ok: the index is not served"; fi

e2e_finish
