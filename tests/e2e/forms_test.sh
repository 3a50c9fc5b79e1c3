#!/usr/bin/env bash
# Form input, cookies and header lines through a private Apache: what curl posts (urlencoded
# and multipart, files included) arrives decoded, cookies set by one response come back from
# curl's cookie jar to the next page, and header lines reach the client.
# Usage: forms_test.sh PROGRAM
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"

cat >"$SITE/echo.html" <<'EOF'
[^form[a]] [^combine[a]] [^form[t]] [^form[f]] [^form[after]] [^number[n]] [^env[REQUEST_METHOD]]
EOF
cat >"$SITE/set_cookie.html" <<'EOF'
^cookie[who;Ann Lee/1 <&>]^cookie[session;x;0]^cookie[gone;y;-1]set
EOF
cat >"$SITE/read_cookie.html" <<'EOF'
[^cookie[who]] [^cookie[session]] [^cookie[gone]]
EOF
cat >"$SITE/header.html" <<'EOF'
^header[X-Tessel-Test;a
b]^header[Content-Type;text/plain^; charset=koi8-r]plain   text
EOF
printf '^var[msg_42;RAN][^var[msg_^form[lang]]] [^process[^form[lang]]]\n' >"$SITE/again.html"
printf '[^length[^form[big]]]\n' >"$SITE/big_length.html"
printf '[^form[big]] [^number[big]]\n' >"$SITE/big_value.html"
printf 'line1\r\nline2\r\n' >"$WORK/crlf.txt"
printf 'GIF89a\0\1\2\r\n\0\0end' >"$WORK/binary.gif"
chmod 644 "$SITE"/*.html
e2e_start

e2e_get '/echo.html?a=1&a=%3Cb%3E&t=x+y%21'
check_equal "query string: status" 200 "$STATUS"
check_body "query string: decoded, repeated and escaped" \
    $'[1] [1|&lt;b&gt;] [x y!] [] [] [0] [GET]\n'

# The shipped configuration never expands a visitor's text a second time.
e2e_get '/again.html?lang=%5Esum%5B20%3B22%5D'
check_body "request data: not run in a variable's name or in process" $'[] [^sum[20;22]]\n'

e2e_get /echo.html --data-urlencode 'a=<b>&"x"' --data-urlencode 'a=second' \
    --data-urlencode $'t=l1\r\nl2' --data-urlencode 'n=-12.5'
check_body "urlencoded post: decoded, line breaks normalised" \
    $'[&lt;b&gt;&amp;&quot;x&quot;] [&lt;b&gt;&amp;&quot;x&quot;|second] [l1\nl2] [] [] [-12.5] [POST]\n'

e2e_get '/echo.html?a=from-query' -F a=one -F a=two -F "t=<$WORK/crlf.txt" \
    -F "f=@$WORK/binary.gif;type=image/gif" -F after=ok -F n=7
check_body "multipart post: query first, CRLF text, file kept apart" \
    $'[from-query] [from-query|one|two] [line1\nline2\n] [(file)] [ok] [7] [POST]\n'

# A value whose length plus one passes 0x7FFFF is refused by form (and reads as 0 by number).
{ printf 'big='; head -c 524286 /dev/zero | tr '\0' 7; } >"$WORK/big_ok"
{ printf 'big='; head -c 524287 /dev/zero | tr '\0' 7; } >"$WORK/big_refused"
e2e_get /big_length.html --data-binary "@$WORK/big_ok"
check_body "long field: the longest accepted" $'[524286]\n'
e2e_get /big_value.html --data-binary "@$WORK/big_refused"
check_body "long field: refused" $'[[form element big exceeds maxlength]] [0]\n'

e2e_get /set_cookie.html -c "$WORK/jar"
check_body "cookies: the page itself" $'set\n'
check_contains "cookie with expiry" 'set-cookie: who=Ann+Lee%2F1+%3C%26%3E; path=/; expires=' "$HEADERS"
check_contains "session cookie" 'set-cookie: session=x; path=/' "$HEADERS"
e2e_get /read_cookie.html -b "$WORK/jar"
check_body "cookies: sent back by the jar, decoded and escaped" \
    $'[Ann Lee/1 &lt;&amp;&gt;] [x] []\n'

e2e_get /header.html
check_header x-tessel-test 'a b'
check_header content-type 'text/plain; charset=koi8-r'
check_body "header: content type switches compaction to line breaks" $'plain   text\n'

e2e_finish
