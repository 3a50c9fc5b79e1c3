#!/usr/bin/env bash
# The static program maps itself before the C library starts: its first system calls populate
# every loaded segment (code and read-only data for reading, data and bss for writing) and the
# top of the stack. A kernel that refuses those calls changes nothing in what a page renders.
# Usage: prefault_test.sh PROGRAM
set -uo pipefail
program=$(realpath "$1")
work=$(mktemp -d "${TMPDIR:-/tmp}/tessel-prefault.XXXXXX")
trap 'rm -rf "$work"' EXIT
failed=0
check() {
    if eval "$2"; then echo "ok: $1"; else echo "FAIL: $1"; failed=1; fi
}

cat >"$work/page.html" <<'PAGE'
<p>^toupper[order] ^left[A-2026-000117-X;6] ^default[^form[name];guest] ^length[bolts]</p>
^var[n;0]^for[i;1;50;^var[n;^eval[^var[n]+^var[i]]]]<p>^var[n]</p>
PAGE
export DOCUMENT_ROOT=$work PATH_TRANSLATED=$work/page.html REQUEST_URI=/page.html
export REQUEST_METHOD=GET SCRIPT_NAME=/cgi-bin/tessel REMOTE_ADDR=127.0.0.1 QUERY_STRING=name=ann

(cd "$work" && strace -o "$work/trace" "$program" >"$work/plain.out")
check "the page renders" "grep -q 'ORDER A-2026 ann 5' '$work/plain.out' && grep -q '<p>1275</p>' '$work/plain.out'"

# Each PT_LOAD segment, page-rounded, and the advice its flags call for.
readelf -lW "$program" | awk '$1 == "LOAD" {
    start = strtonum($3); end = start + strtonum($6)
    start = start - start % 4096; end = end + (4096 - end % 4096) % 4096
    printf "madvise(0x%x, %d, %s) = 0\n", start, end - start,
           index($7, "W") ? "MADV_POPULATE_WRITE" : "MADV_POPULATE_READ" }' >"$work/expected"
segments=$(wc -l <"$work/expected")
sed -n "2,$((segments + 1))p" "$work/trace" >"$work/first"
check "the first calls populate each of the $segments segments" "diff '$work/expected' '$work/first'"
check "then the top of the stack" \
    "sed -n '$((segments + 2))p' '$work/trace' | grep -qE '^madvise\(0x7[0-9a-f]+, [0-9]+, MADV_POPULATE_WRITE\) = 0$'"

(cd "$work" && strace -o /dev/null -e inject=madvise:error=EINVAL "$program" >"$work/refused.out")
check "a kernel that refuses the calls gets the same response" \
    "cmp -s '$work/plain.out' '$work/refused.out'"
exit $failed
