#!/usr/bin/env bash
# Peak memory of one request that uploads a 16 MB file and saves it to disk, run as a web
# server runs the program (the multipart body on standard input). Beside it the same request
# whose page only asks for the size, and a page without any upload, so that the share of
# the save shows. Not a test: it prints peak resident sizes.
#
#   bash bench/upload_memory.sh      SIZE_MB=... (default 16); TESSEL=path to skip the build
# Target: the upload and save need no more than about three times the file's size.
set -euo pipefail
size_mb=${SIZE_MB:-16}

source "$(dirname "$0")/common.sh" tessel-upbench
trap 'rm -rf "$work"' EXIT
cd "$work"
cc -O2 -o peak_rss "$root/bench/peak_rss.c"

printf '[^upload[f;saved/file.bin]]\n' >save.html
printf '[^upload[f;size]]\n' >size.html
printf 'nothing\n' >plain.html
# Browsers pick long boundaries that the file's bytes do not hold by chance.
boundary=----tesselbench7ma4ywxktrzu0gw
head -c $((size_mb * 1024 * 1024)) /dev/urandom >file.bin
{
    printf -- '--%s\r\nContent-Disposition: form-data; name="f"; filename="file.bin"\r\n' "$boundary"
    printf 'Content-Type: application/octet-stream\r\n\r\n'
    cat file.bin
    printf -- '\r\n--%s--\r\n' "$boundary"
} >body

# Prints the peak resident size in MB of one request for a page.
peak_mb() {
    local page=$1 input=$2 length=0 kb status
    [[ $input == /dev/null ]] || length=$(stat -c %s "$input")
    read -r kb status < <(env -i PATH=/usr/bin:/bin REQUEST_METHOD=POST \
        CONTENT_TYPE="multipart/form-data; boundary=$boundary" CONTENT_LENGTH="$length" \
        DOCUMENT_ROOT="$work" REQUEST_URI="/$page" PATH_TRANSLATED="$work/$page" \
        ./peak_rss "$input" "$TESSEL")
    [[ $status == 0 ]] || { echo "upload_memory: $page exited with $status" >&2; exit 1; }
    awk -v kb="$kb" 'BEGIN { printf "%.1f", kb / 1024 }'
}

base=$(peak_mb plain.html /dev/null)
inspect=$(peak_mb size.html body)
save=$(peak_mb save.html body)
cmp -s file.bin saved/file.bin && same=yes || same=NO
ratio() { awk -v a="$1" -v b="$size_mb" 'BEGIN { printf "%.2f", a / b }'; }
echo "file: $size_mb MB, request body $(stat -c %s body) bytes"
echo "no upload:          peak RSS $base MB"
echo "upload, size only:  peak RSS $inspect MB ($(ratio "$inspect")x the file)"
echo "upload and save:    peak RSS $save MB ($(ratio "$save")x the file); saved file identical: $same"
echo "target: at most about 3x the file"
