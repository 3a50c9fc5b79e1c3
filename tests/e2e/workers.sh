# The checks of the resident workers that apache_fastcgi_test.sh and nginx_fastcgi_test.sh
# share, sourced after servers.sh (E2E_FASTCGI=1): nothing of one request reaches the next, a
# request that ends its worker (a zero divisor) gets a 500 and a new worker takes its place,
# the two workers serve two slow requests at once, SIGHUP runs the program file anew with no
# request failing, and SIGTERM ends the parent and its workers once the request in progress
# is answered, and removes the socket. The SIGTERM check comes last: no worker serves after it.

PARENT=$(cat "$SERVER/run/tessel.pid")
SOCKET=$SERVER/socket/tessel.sock
MEET=$WORK/meet

# The parent's workers that live (one that ended is a zombie until the parent reaps it).
live_workers() {
    ps --ppid "$PARENT" -o pid=,stat= | awk '$2 !~ /^Z/ { print $1 }' | sort
}

# Runs the command until it succeeds, for about 20 seconds at most; false if it never does.
wait_until() {
    local i
    for ((i = 0; i < 200; i++)); do
        "$@" && return 0
        sleep 0.1
    done
    return 1
}
two_workers() { [[ $(live_workers | wc -l) == 2 ]]; }
one_worker() { [[ $(live_workers | wc -l) == 1 ]]; }
served_at_least() { [[ -s $WORK/statuses && $(wc -l <"$WORK/statuses") -ge $1 ]]; }

# The server's own name and no proxy from a header; a request's headers are gone by the next.
printf '[^env[SERVER_NAME]] [^env[HTTP_PROXY]] [^env[HTTP_X_MARK]] [^cookie[c]]\n' >"$SITE/name.html"
for i in 1 2 3; do e2e_get /name.html -H 'Host: visitor-1.example' -H 'X-Mark: 1' -b c=1; done
check_body "SERVER_NAME is the configured name; no proxy from a header" $'[127.0.0.1] [] [1] [1]\n'
for i in 1 2 3; do
    e2e_get /name.html -H 'Proxy: http://evil.example:1'
    check_body "request $i: nothing is left of the requests before" $'[127.0.0.1] [] [] []\n'
done

# meet.cgi MINE.THEIRS (its query) marks its request's arrival in $MEET and waits, 20 s at
# most, for THEIRS: it prints "met" once the mark is there, "alone" if it never comes.
mkdir -p "$SITE/bin" "$MEET" && chmod 777 "$MEET"
cat >"$SITE/bin/meet.cgi" <<SH
#!/bin/sh
printf 'Content-type: text/plain\n\n'
touch "$MEET/\${QUERY_STRING%.*}"
for i in \$(seq 200); do
    if [ -e "$MEET/\${QUERY_STRING#*.}" ]; then echo met; exit 0; fi
    sleep 0.1
done
echo alone
SH
chmod 755 "$SITE/bin/meet.cgi"
for pair in a.b b.a slow.go; do printf '[^exec[bin/meet.cgi;%s]]\n' "$pair" >"$SITE/meet_$pair.html"; done

# A zero divisor ends the worker after its answer; another takes its place.
printf '^var[x;1]^var[x;/;0]never shown\n' >"$SITE/zero.html"
e2e_get /zero.html
check_equal "a zero divisor: status 500" 500 "$STATUS"
check_contains "a zero divisor: the failure page" "Internal Server Error"
wait_until grep -q 'ended by signal 8' "$SERVER/logs/tessel.log" ||
    fail "the worker that divided by zero is logged as ended"
wait_until two_workers || fail "another worker takes its place"
e2e_get /sub/index.html
check_equal "the next request is served" 200 "$STATUS"

# Two slow requests at once: each waits for the other, so only two workers serve both.
curl -s "$BASE/meet_a.b.html" >"$WORK/first" &
first=$!
curl -s "$BASE/meet_b.a.html" >"$WORK/second" &
wait "$first" $!
check_equal "two requests at once: each met the other" "[met][met]" \
    "$(cat "$WORK/first" "$WORK/second" | tr -d '\n')"

# SIGHUP runs the program file again, here a new copy of it: twice while four clients send
# 20 requests each in a row, all of which are served.
before=$(live_workers)
cp "$CGI_BIN/tessel" "$CGI_BIN/tessel.new" && mv "$CGI_BIN/tessel.new" "$CGI_BIN/tessel"
clients=()
for client in 1 2 3 4; do
    for i in $(seq 20); do
        curl -s -o /dev/null -w '%{http_code}\n' "$BASE/sub/index.html" >>"$WORK/statuses"
    done &
    clients+=($!)
done
for served in 10 40; do
    wait_until served_at_least "$served"
    kill -HUP "$PARENT"
done
wait "${clients[@]}"
check_equal "SIGHUP: every request meanwhile is served" "80 200" "$(sort "$WORK/statuses" | uniq -c | xargs)"
wait_until two_workers || fail "SIGHUP: two workers serve on"
check_equal "SIGHUP: the parent stays, running the new file" "$CGI_BIN/tessel" \
    "$(readlink "/proc/$PARENT/exe")"
check_equal "SIGHUP: new workers" "" "$(comm -12 <(echo "$before") <(live_workers))"

# SIGTERM while a request is in progress: the idle worker ends at once, the busy one once the
# request is answered, then the parent, which removes the socket.
workers=$(live_workers)
curl -s "$BASE/meet_slow.go.html" >"$WORK/slow" &
slow=$!
wait_until test -e "$MEET/slow" || fail "SIGTERM: the slow request started"
kill -TERM "$PARENT"
wait_until one_worker || fail "SIGTERM: the idle worker ends"
touch "$MEET/go"
wait "$slow"
check_equal "SIGTERM: the request in progress is answered" "[met]" "$(tr -d '\n' <"$WORK/slow")"
wait_until eval '! kill -0 "$PARENT" 2>/dev/null' || fail "SIGTERM: the parent ends"
for pid in $workers; do
    ! kill -0 "$pid" 2>/dev/null || fail "SIGTERM: worker $pid ends"
done
[[ ! -e $SOCKET ]] && echo "ok: SIGTERM: the socket is removed" || fail "SIGTERM: the socket is removed"
