#!/usr/bin/env bash
# Mail through a real local mail transfer agent: pages behind a private Apache hand messages
# to the system's sendmail (Debian's exim4, installed and set up for local delivery only by
# scripts/mail.sh), and the test reads them back from the mailbox of a local user: headers,
# the body recoded for mail, and attachments made by uuencode and by upload, compared line by
# line with what Python's binascii makes of the original bytes. Messages the agent
# refuses show its exit code; a program that prints anything has failed.
# Usage: mail_test.sh PROGRAM
#
# Runs as root (creates a mail user of its own and removes it after) or as a user of a
# machine where the agent is installed (mail goes to that user and is removed after). Exits
# 77 when the agent is missing and cannot be installed.
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"

bash "$E2E_ROOT/scripts/mail.sh" install
case $? in
0) ;;
77) exit 77 ;;
*) echo "FAIL: the mail agent could not be installed"; exit 1 ;;
esac

TOKEN=tessel-mail-$$-$RANDOM
DAEMON=
MAIL_USER=
SENDER=
MAILBOX=

# Messages of this run are taken out of a mailbox again, in place (the file keeps its owner),
# under the lock that the agent respects.
remove_test_mail() {
    python3 - "$1" "$TOKEN" <<'PY' || true
import fcntl, re, sys
path, token = sys.argv[1], sys.argv[2].encode()
try:
    f = open(path, "r+b")
except OSError:
    sys.exit(0)
with f:
    fcntl.lockf(f, fcntl.LOCK_EX)
    text = f.read()
    messages = re.split(rb"(?m)^(?=From )", text)
    kept = b"".join(m for m in messages if token not in m)
    if kept != text:
        f.seek(0)
        f.write(kept)
        f.truncate()
PY
}

e2e_stop_more() {
    bash "$E2E_ROOT/scripts/mail.sh" stop "$DAEMON" || true
    [[ -z $SENDER ]] || remove_test_mail "/var/mail/$SENDER"
    if [[ -n $MAIL_USER ]]; then
        userdel "$MAIL_USER" 2>/dev/null || true
        rm -f "/var/mail/$MAIL_USER"
    elif [[ -n $MAILBOX ]]; then
        remove_test_mail "$MAILBOX"
    fi
}

# As root, a user of this run receives the mail; the server's children send it.
SENDER=$(id -un)
if [[ $(id -u) -eq 0 ]]; then
    name=tsm$$r$RANDOM
    useradd -M -d "$WORK/home" -s /usr/sbin/nologin "$name" || exit 1
    MAIL_USER=$name
    mkdir -p "$WORK/home"
    chown "$MAIL_USER" "$WORK/home"
    SENDER=$(id -un www-data 2>/dev/null || echo nobody)
fi
RECIPIENT=${MAIL_USER:-$(id -un)}
MAILBOX=/var/mail/$RECIPIENT
DAEMON=$(bash "$E2E_ROOT/scripts/mail.sh" start) || fail "the mail daemon did not start"

# Waits until the mailbox holds count messages of this run; false after about 20 seconds.
wait_for_mail() {
    local i
    for ((i = 0; i < 200; i++)); do
        if [[ $(grep -c "^Subject: $TOKEN" "$1" 2>/dev/null) -ge $2 ]]; then return 0; fi
        sleep 0.1
    done
    return 1
}

cat >"$SITE/send.html" <<EOF2
[^sendmail[From: Tessel Test <$SENDER@localhost>
To: $RECIPIENT@localhost
Subject: $TOKEN report

Hello $(printf '\xc0\xe1') ^form[note]
^uuencode[^form[text];notes.txt]
^upload[f;uuencode;photo.gif]
]] sent
EOF2
cat >"$SITE/refused.html" <<EOF2
[^sendmail[To: a@b@c
Subject: $TOKEN refused

x
]] [^sendmail[Subject: $TOKEN nobody

x
]] [^sendmail[^if[0;To: $RECIPIENT@localhost]]]
EOF2
chmod 644 "$SITE"/*.html
e2e_start

python3 -c 'import sys; sys.stdout.buffer.write(bytes(range(256)) + bytes(range(255, -1, -1)) * 2)' \
    >"$WORK/photo.gif"
printf 'first line\nsecond <&> line\t end\n' >"$WORK/notes.txt"
e2e_get /send.html --form-string $'note=x<y>\tz' -F "text=<$WORK/notes.txt" \
    -F "f=@$WORK/photo.gif"
check_body "send: the page" $'[] sent\n'
if wait_for_mail "$MAILBOX" 1; then
    echo "ok: the message was delivered to $MAILBOX"
else
    fail "no message in $MAILBOX"
    tail -5 /var/log/exim4/mainlog 2>/dev/null
fi

# The delivered message: headers as written, the body with its 8-bit bytes (no code pages are
# set) and form data escaped for "config" (tab made blank, markup kept), the attachments
# byte for byte.
python3 - "$MAILBOX" "$TOKEN" "$SENDER" "$RECIPIENT" "$WORK/notes.txt" "$WORK/photo.gif" <<'PY'
import binascii, re, sys
mailbox, token, sender, recipient, notes, photo = sys.argv[1:]
failed = False
def check(what, ok, detail=""):
    global failed
    print(("ok: " if ok else "FAIL: ") + what + ("" if ok else "\n  " + detail))
    failed |= not ok

text = open(mailbox, "rb").read()
message = next(m for m in re.split(rb"(?m)^(?=From )", text) if token.encode() in m)
head, _, body = message.partition(b"\n\n")
for line in [b"Subject: " + token.encode() + b" report", b"To: " + recipient.encode() + b"@localhost",
             b"From: Tessel Test <" + sender.encode() + b"@localhost>"]:
    check("header " + line.decode(), line in head.split(b"\n"), head.decode("latin-1"))
hello = b"Hello \xc0\xe1 x<y> z\n"
check("body: 8-bit bytes kept, form data escaped for config", body.startswith(hello), repr(body[:60]))

def attachment(name, media_type, data):
    header = (b"Content-Type: " + media_type + b"\nContent-Transfer-Encoding: x-uuencode\n"
              b"Content-Disposition: attachment; filename=\"" + name + b"\"\n\nbegin 644 " + name + b"\n")
    at = body.find(header)
    check(name.decode() + ": attachment header", at >= 0, repr(body[:400]))
    if at < 0:
        return
    lines = body[at + len(header):].split(b"\n")
    end = lines.index(b"end")
    encoded = lines[:end]
    check(name.decode() + ": trailer", encoded[-1] == b"`", repr(encoded[-2:]))
    want = [binascii.b2a_uu(data[i:i + 45], backtick=True).rstrip(b"\n")
            for i in range(0, len(data), 45)]
    check(name.decode() + ": lines as binascii writes them", encoded[:-1] == want,
          repr(encoded[:3]) + " vs " + repr(want[:3]))

attachment(b"notes.txt", b"Application/Octet-Stream", open(notes, "rb").read())
attachment(b"photo.gif", b"image/gif", open(photo, "rb").read())
sys.exit(1 if failed else 0)
PY
(($? == 0)) || E2E_FAILED=1

# Refusals: a malformed address and a message without recipients end the agent with status 1
# and print nothing on its output; an empty message runs nothing.
e2e_get /refused.html
check_body "refused: exit codes in the page" \
    $'[[sendmail reported error: UNKNOWN, #1]] [[sendmail reported error: UNKNOWN, #1]] []\n'
# The agent mails its complaints, each with a copy of the message, to the sender; they are
# removed with the rest once they are there.
wait_for_mail "/var/mail/$SENDER" 2 || true

# A mail program that prints a warning has failed even with exit code 0. The program is
# chosen as /usr/lib/sendmail when that is executable: a talking one is mounted there in a
# mount namespace of this test alone (root only), and the page runs without the server. What
# it was given shows the message recoded from the pages' code page to KOI8-R.
if [[ $(id -u) -eq 0 ]] && command -v unshare >/dev/null && [[ -e /usr/lib/sendmail ]]; then
    cat >"$WORK/talking_sendmail" <<EOF2
#!/bin/sh
cat >"$WORK/talked"
echo "\$*" >>"$WORK/talked"
echo "warning: queued for later"
EOF2
    chmod 755 "$WORK/talking_sendmail"
    printf '[^sendmail[To: nobody\n\n\xc0\xe1 ^form[n]\n]]\n' >"$WORK/warn.html"
    got=$(cd "$WORK" && unshare -m sh -c "mount --bind '$WORK/talking_sendmail' /usr/lib/sendmail &&
        env -i REQUEST_URI=/warn.html PATH_TRANSLATED='$WORK/warn.html' REQUEST_METHOD=GET \
        QUERY_STRING='n=a%09b%3C' SOURCE_CHARSET=windows-1251 DOCUMENT_ROOT='$WORK' \
        '$E2E_PROGRAM'" | sed '1,/^$/d')
    check_equal "a warning fails the mail" \
        $'[[sendmail reported error: warning: queued for later\n, #0]]' "$got"
    check_equal "the program got the message recoded, and -t" \
        $'To: nobody\n\n\xe1\xc2 a b<\n-t' "$(cat "$WORK/talked")"
else
    echo "skipped: the talking mail program needs root and unshare"
fi

e2e_finish
