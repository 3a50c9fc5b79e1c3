#!/usr/bin/env bash
# Runs the libFuzzer targets of tests/fuzz, each for a while, starting from its checked-in
# seeds (tests/fuzz/corpus/NAME). New inputs go to DIR/fuzz/corpus/NAME, never into the seeds,
# and a finding to DIR/fuzz/findings/; any finding fails the run. Every target prints how many
# inputs it ran.
#
#   bash scripts/fuzz.sh [SECONDS [NAME...]]
#       SECONDS per target (default 600); NAME: page, request, expr, table, ... (default all)
#       SANITIZE_DIR: the sanitizer build (default build-sanitize), built first unless
#       FUZZ_NO_BUILD=1.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=${1:-600}
shift || true
dir=${SANITIZE_DIR:-build-sanitize}
[[ ${FUZZ_NO_BUILD:-} == 1 ]] || bash scripts/sanitize_build.sh "$dir"
dir=$(cd "$dir" && pwd)

names=("$@")
if ((${#names[@]} == 0)); then
    for source in tests/fuzz/*_fuzz.cpp; do
        name=${source##*/}
        names+=("${name%_fuzz.cpp}")
    done
fi

# The page target's dictionary: every registered operator as "^name[", from the rows
# {"family", "name name ..."} of the registration test; the scan target's: the characters
# that shape a call.
mkdir -p "$dir/fuzz/findings"
printf '"^"\n"["\n"]"\n";"\n"`"\n"^^"\n' >"$dir/fuzz/scan.dict"
{
    cat "$dir/fuzz/scan.dict"
    printf '"\\x0a@"\n'
    sed -n 's/^ *{"[a-z_]*", "\([^"]*\)"},$/\1/p' tests/unit/register_all_test.cpp |
        tr ' ' '\n' | sed 's/.*/"^&["/'
} >"$dir/fuzz/page.dict"

# libFuzzer writes a finding while the input still runs, when the jail is on.
export TESSEL_FUZZ_WRITABLE=$dir/fuzz
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
status=0
for name in "${names[@]}"; do
    corpus=$dir/fuzz/corpus/$name
    mkdir -p "$corpus"
    options=(-max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 -max_len=4096
        -print_final_stats=1 -artifact_prefix="$dir/fuzz/findings/$name-")
    # Texts long enough for a cost that grows faster than the text to show: the scanner's walk
    # over 1 MB takes milliseconds when it is linear (it also aborts when it reads the text
    # more than five times), and a page or an expression of 64 KB well under the timeout.
    case $name in
    scan) options+=(-max_len=1048576 -timeout=10 -dict="$dir/fuzz/scan.dict") ;;
    page | expr) options+=(-max_len=65536) ;;
    esac
    # A page may loop for long or grow without bound by design (the server's CPU and memory
    # limits end such a run), so the page target runs in a child process that is replaced
    # when an input hangs or runs out of memory; anything else still ends the run.
    [[ $name != page ]] ||
        options+=(-dict="$dir/fuzz/page.dict" -fork=1 -ignore_timeouts=1 -ignore_ooms=1 -timeout=10)
    log=$dir/fuzz/$name.log
    stamp=$dir/fuzz/$name.started
    touch "$stamp"
    echo "fuzz: $name for ${seconds}s"
    ok=0
    if "$dir/tests/fuzz/fuzz_$name" "${options[@]}" "$corpus" "$root/tests/fuzz/corpus/$name" \
        >"$log" 2>&1; then
        ok=1
    fi
    # The page target's fork mode ends with the status of its last hung job even though hangs
    # are skipped: it succeeded when it finished and left no finding but hangs and exhausted
    # memory.
    if [[ $name == page ]] && grep -q '^INFO: exiting: ' "$log" &&
        [[ -z $(find "$dir/fuzz/findings" -newer "$stamp" -name 'page-*' \
            ! -name 'page-timeout-*' ! -name 'page-oom-*') ]]; then
        ok=1
    fi
    if ((ok)); then
        # "#N ... exec/s: R" lines, or "#N: ... exec/s R" in the page target's fork mode.
        runs=$(grep -o '^#[0-9]\+' "$log" | tail -1 | tr -d '#' || true)
        rate=$(grep -o 'exec/s:\? [0-9]*' "$log" | tail -1 || true)
        echo "fuzz: $name ran $runs inputs without a finding ($rate)"
    else
        status=1
        tail -60 "$log"
        echo "fuzz: $name FOUND A FAULT (log $log, input in $dir/fuzz/findings/)"
    fi
done
exit $status
