#!/usr/bin/env bash
# A full disk: the site lies on a small tmpfs filled to the last block. Every writer keeps the
# old file whole, leaves no partial file behind, and names the true cause in the page and in
# the error log. Runs the program directly; needs root for the mount (exit 77 otherwise).
# Usage: disk_full_test.sh PROGRAM
set -uo pipefail
program=$(realpath "$1")
source "$(dirname "$0")/../e2e/checks.sh"
disk=$(mktemp -d "${TMPDIR:-/tmp}/tessel-full.XXXXXX")
trap 'umount "$disk" 2>/dev/null; rm -rf "$disk"' EXIT
if ! mount -t tmpfs -o size=512k,mode=755 tmpfs "$disk" 2>/dev/null; then
    echo "SKIP: cannot mount a tmpfs (needs root)"
    exit 77
fi
site=$disk/site
mkdir -p "$site/cache"
# The logs are elsewhere, as on a real host: a full site disk must not hide what went wrong.
log=$(mktemp "${TMPDIR:-/tmp}/tessel-full-log.XXXXXX")
trap 'umount "$disk" 2>/dev/null; rm -rf "$disk" "$log"' EXIT
ln -s "$log" "$site/error_log"
FULL='No space left on device(#28)'

# Renders page FILE (in $site, also the working folder) as a server would; stdin is the body.
render() {
    local page=$1
    shift
    (cd "$site" && env -i PATH="$PATH" DOCUMENT_ROOT="$site" SCRIPT_NAME=/cgi-bin/tessel \
        REQUEST_URI="/$page" PATH_TRANSLATED="$site/$page" "$@" "$program") |
        sed '1,/^$/d'
}

# A 4,000-row table and a picture that the pages write over, then the disk filled up.
for ((i = 0; i < 4000; i++)); do printf 'entry %d\ttext of entry %d\n' "$i" "$i"; done >"$site/_book"
head -c 20000 /dev/urandom >"$site/photo.bin"
cp "$site/_book" "$disk/book.before"
cp "$site/photo.bin" "$disk/photo.before"
printf '^context[b;^load[book]^config[insert;new\tfirst]^save[book]]\n' >"$site/save.html"
printf '^cache[key;^for[i;1;3000;fragment ]]\n' >"$site/cache.html"
printf '^counter[hits]\n' >"$site/count.html"
printf '^upload[f;photo.bin]\n' >"$site/upload.html"
# The chat: ann, who is present, posts. The user list is small, the index (100 long messages)
# is not.
ticket=0123456789abcdef0123456789abcdef
mkdir -p "$site/chat/admin" "$site/chat/log"
: >"$site/chat/.lock"
printf 'ann\t%s\t4000000000\t0\n' "$ticket" >"$site/chat/userlist"
for ((i = 0; i < 100; i++)); do printf '2026-01-01\t10:00:00\tbob\t%d %0900d\n' "$i" 0; done \
    >"$site/chat/index"
printf '2026-01-01\t10:00:00\tbob\tfirst\n' >"$site/chat/log/$(date +%Y-%m-%d)"
cp -r "$site/chat" "$disk/chat.before"
printf '^message[hello]\n' >"$site/post.html"
dd if=/dev/zero of="$site/filler" bs=4k 2>/dev/null

out=$(render save.html REQUEST_METHOD=GET)
check_equal "save: the page names the cause" "[save to '$site/_book' failed: $FULL]" "$out"
check_same_file "save: the old rows are intact" "$disk/book.before" "$site/_book"

out=$(render cache.html REQUEST_METHOD=GET)
check_equal "cache: the page still gets the fragment" 3000 "$(grep -o fragment <<<"$out" | wc -l)"
check_equal "cache: no partial entry is kept" "" "$(ls "$site/cache")"

out=$(render count.html REQUEST_METHOD=GET)
check_equal "counter: a count that cannot be written says so" \
    "[counter: count file \"$site/hits.count\" not written: $FULL]" "$out"

body=$(printf -- '--xyz42\r\nContent-Disposition: form-data; name="f"; filename="p.bin"\r\n\r\n%s\r\n--xyz42--\r\n' \
    "$(head -c 30000 /dev/zero | tr '\0' x)")
out=$(render upload.html REQUEST_METHOD=POST CONTENT_TYPE='multipart/form-data; boundary=xyz42' \
    CONTENT_LENGTH=${#body} <<<"$body")
check_equal "upload: the page names the cause" \
    "[upload field 'f' to '$site/photo.bin' failed: $FULL]" "$out"
check_same_file "upload: the old file is intact" "$disk/photo.before" "$site/photo.bin"

out=$(render post.html REQUEST_METHOD=GET HTTP_COOKIE="chat=$ticket")
check_equal "chat: a post that cannot mark its visitor seen says so" \
    "[message: cannot use chat/userlist: $FULL]" "$out"
check_equal "chat: no chat file changed" "" "$(diff -r "$disk/chat.before" "$site/chat")"
# Room for the user list but not for the index: the line already added to the archive is
# taken back, so the failed post is in neither.
truncate -s -16K "$site/filler"
out=$(render post.html REQUEST_METHOD=GET HTTP_COOKIE="chat=$ticket")
check_equal "chat: a post that cannot be written to the index says so" \
    "[message: cannot use chat/index: $FULL]" "$out"
check_equal "chat: index and archive keep their old content" "" \
    "$(diff -r -x userlist "$disk/chat.before" "$site/chat")"

check_equal "no temporary file is left" "" "$(find "$site" -name '*.tmp-*')"
check_equal "the error log names the cause of each" 5 "$(grep -cF "$FULL" "$log")"
exit $E2E_FAILED
