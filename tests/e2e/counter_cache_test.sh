#!/usr/bin/env bash
# Counters and the fragment cache under concurrent requests through private Apache servers:
# many requests on one counter each get their own number and none is lost, two servers sharing
# one site folder (two hosts on one disk) count into the same file, and many first fills of one
# cache key never show or leave a partial fragment. Also: an unwritable counter file gives its
# message, and an unreadable file reads as missing.
# Usage: counter_cache_test.sh PROGRAM
set -uo pipefail
source "$(dirname "$0")/lib.sh" "$1"

# Fetches PATH COUNT times, PARALLEL at once, into DIR/1 .. DIR/COUNT (base URL in $4).
fetch_many() {
    local path=$1 count=$2 parallel=$3 base=$4 dir=$5
    mkdir -p "$dir"
    seq "$count" | xargs -P "$parallel" -I{} curl -s -o "$dir/{}" "$base$path"
}

# The responses in the folders DIR... hold exactly the numbers 1..COUNT, each once.
check_distinct_numbers() {
    local what=$1 count=$2 dir numbers=()
    shift 2
    for dir in "$@"; do numbers+=("$dir"/*); done
    check_equal "$what: every response a distinct number 1..$count" \
        "$(seq "$count")" "$(cat "${numbers[@]}" | tr ' ' '\n' | grep -v '^$' | sort -n)"
}

chmod 777 "$SITE"  # the server's user creates the count files beside the pages
printf '^counter[hits]\n' >"$SITE/count.html"
printf '^counter[shared]\n' >"$SITE/shared.html"
printf '^counter[locked]\n' >"$SITE/locked.html"
printf '0000000007' >"$SITE/locked.count"
chmod 444 "$SITE/locked.count"
# A fragment of about 240 KB that takes a while to build: large enough that a read racing a
# write would come back short.
python3 -c 'import sys; sys.stdout.write("".join("line %06d of the fragment, padded to sixty bytes ........\n" % i for i in range(4000)))' \
    >"$SITE/fragment.txt"
printf '^cache[shared fragment;^for[i;1;100;^var[j;^length[x]]]^include[fragment.txt]]' >"$SITE/cached.html"
e2e_start

# ---- one counter, 500 requests, 16 at a time ----------------------------------------------
SECONDS=0
fetch_many /count.html 500 16 "$BASE" "$WORK/counts"
echo "(500 requests in ${SECONDS}s)"
check_distinct_numbers "one counter" 500 "$WORK/counts"
check_equal "one counter: the count file" 0000000500 "$(cat "$SITE/hits.count")"

# ---- two servers on one site folder --------------------------------------------------------
SERVER2=$WORK/server2
e2e_stop_more() { "$APACHE_SH" stop "$SERVER2"; }
BASE2=http://127.0.0.1:$("$APACHE_SH" start "$SERVER2" "$SITE" "$E2E_PROGRAM") || exit 1
fetch_many /shared.html 200 8 "$BASE" "$WORK/shared1" &
fetch_many /shared.html 200 8 "$BASE2" "$WORK/shared2"
wait
check_distinct_numbers "two servers" 400 "$WORK/shared1" "$WORK/shared2"
check_equal "two servers: the count file holds the sum" 0000000400 "$(cat "$SITE/shared.count")"

# ---- 200 first fills of one cache key at once --------------------------------------------
SECONDS=0
fetch_many /cached.html 200 16 "$BASE" "$WORK/fills"
echo "(200 fills in ${SECONDS}s)"
whole=0
for response in "$WORK"/fills/*; do
    cmp -s "$response" "$SITE/fragment.txt" && whole=$((whole + 1))
done
check_equal "cache: every response holds the whole fragment" 200 "$whole"
check_same_file "cache: the file holds the whole fragment" "$SITE/fragment.txt" \
    "$CGI_BIN/cache/shared~fragment_"

# ---- bad input (private files: private_files_test.sh) -------------------------------------
# The server's children never run as root, so a read-only count file is not writable for them.
e2e_get /locked.html
check_body "an unwritable count file" \
    "[counter: count file \"locked.count\" not writable or non-existant.]"$'\n'
check_equal "an unwritable count file is left as it was" 0000000007 "$(cat "$SITE/locked.count")"

# A file the server's user may not read is, for include and -f, a missing file; stat still
# sees it.
printf 'secret\n' >"$SITE/unreadable.txt"
chmod 000 "$SITE/unreadable.txt"
printf '[^include[unreadable.txt]|^-f[unreadable.txt]|^stat[size;unreadable.txt]]\n' \
    >"$SITE/unreadable.html"
e2e_get /unreadable.html
check_body "an unreadable file" $'[||7]\n'

e2e_finish
