# Shared set-up of the benchmarks: the release build of the program (unless TESSEL names one)
# and a scratch folder removed on exit. Sourced with $1 = the scratch folder's name prefix.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
if [[ -z ${TESSEL:-} ]]; then
    cmake -S "$root" -B "$root/build-bench" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
    cmake --build "$root/build-bench" -j2 --target tessel >/dev/null
    TESSEL=$root/build-bench/tessel
fi
TESSEL=$(realpath "$TESSEL")
work=$(mktemp -d "${TMPDIR:-/tmp}/$1.XXXXXX")
