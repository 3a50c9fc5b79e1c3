#!/usr/bin/env bash
# Uploads posted by curl -F through a private Apache land on disk byte for byte (every byte
# value, a 16 MB file, a target in missing directories), and downloads come back unchanged
# with the headers a browser sees. Failures (no file field, an unwritable target, a missing
# or unreadable download) show their bracketed text and log line, and the page goes on.
# Usage: upload_download_test.sh PROGRAM
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"

LOG=$SERVER/cgi-bin/error_log

# The error log holds a line (after its time stamp and page path).
check_logged() { check_contains "$1" "$2" "$LOG"; }

# Pages. The server's children write into files/ (and into locked/, which they may not).
mkdir -p "$SITE/files" "$SITE/locked"
chmod 777 "$SITE/files"
chmod 555 "$SITE/locked"
printf '@MIME_TYPES\nbin\tapplication/x-test-bin\ntxt\ttext/plain\n' >"$SITE/_macro.cfg"
cat >"$SITE/save.html" <<'EOF2'
[^upload[f;files/new dir/a b/all.bin]] [^upload[f;size]] [^upload[f;name]]
EOF2
cat >"$SITE/save_big.html" <<'EOF2'
[^upload[f;files/big/deep/big.bin]] [^upload[f;size]]
EOF2
cat >"$SITE/save_fails.html" <<'EOF2'
[^upload[f;locked/x.bin]] [^upload[t;size]] [^upload[none;size]] after
EOF2
printf '^download[files/new_dir/a_b/all.bin]\n' >"$SITE/get.html"
printf '^download[files/big/deep/big.bin;report 1.pdf;application/pdf]\n' >"$SITE/get_big.html"
printf '[^download[files/missing.bin]] [^download[secret.txt]] after\n' >"$SITE/get_fails.html"
printf 'top secret\n' >"$SITE/secret.txt"
chmod 000 "$SITE/secret.txt"
chmod 644 "$SITE"/*.html "$SITE/_macro.cfg"
e2e_start

# Every byte value, zero bytes included, with a client file name holding blanks and
# backslashes: the name keeps what follows its last backslash, blanks made "_".
python3 -c 'import sys; sys.stdout.buffer.write(bytes(range(256)) * 3 + b"\0\0end\r\n")' \
    >"$WORK/all.bin"
e2e_get /save.html -F "f=@$WORK/all.bin;filename=C:\\My Docs\\all bytes.bin"
check_equal "upload: status" 200 "$STATUS"
check_body "upload: saved, size and client name" $'[] [775] [all_bytes.bin]\n'
check_same_file "upload: every byte value lands unchanged" "$WORK/all.bin" \
    "$SITE/files/new_dir/a_b/all.bin"
check_equal "upload: missing directories made group-writable" 775 \
    "$(stat -c %a "$SITE/files/new_dir/a_b")"

# Download: the same bytes, offered under the file's own name with the type of its extension.
e2e_get /get.html
check_equal "download: status" 200 "$STATUS"
check_same_file "download: bytes unchanged" "$WORK/all.bin" "$BODY"
check_header content-type application/x-test-bin
check_header content-disposition 'filename="all.bin"'
check_length "download"

# 16 MB up and down again.
head -c $((16 * 1024 * 1024)) /dev/urandom >"$WORK/big.bin"
e2e_get /save_big.html -F "f=@$WORK/big.bin"
check_body "16 MB upload: saved" $'[] [16777216]\n'
check_same_file "16 MB upload: lands unchanged" "$WORK/big.bin" "$SITE/files/big/deep/big.bin"
e2e_get /get_big.html
check_same_file "16 MB download: bytes unchanged" "$WORK/big.bin" "$BODY"
check_header content-type application/pdf
check_header content-disposition 'filename="report 1.pdf"'

# Failures: an unwritable target, a field that is not a file, a field that is absent.
e2e_get /save_fails.html -F "f=@$WORK/all.bin" -F t=text
check_body "upload failures: texts in the page, page goes on" \
    "[[upload field 'f' to 'locked/x.bin' failed: Permission denied(#13)]] [[upload field 't' to '(no file)' failed: field is not of file type/wrong method/enctype]] [[upload field 'none' to '(no file)' failed: no such field]] after"$'\n'
check_logged "upload failure logged" \
    "save_fails.html: line 1: upload field 'f' to 'locked/x.bin' failed: Permission denied(#13)"

e2e_get /get_fails.html
check_equal "download failures: status" 200 "$STATUS"
check_header content-type text/html
check_body "download failures: texts in the page, page goes on" \
    $'[[download error: No such file or directory(#2)]] [[download error: Permission denied(#13)]] after\n'
check_logged "download failure logged" "get_fails.html: line 1: download error: Permission denied(#13)"

e2e_finish
