#!/usr/bin/env bash
# Builds tessel, its tests and the libFuzzer targets with clang under AddressSanitizer and
# UndefinedBehaviorSanitizer (every report fatal), warnings as errors, in a folder of its own.
# test.sh runs the whole suite on this build and fuzz.sh runs its fuzz targets.
#
#   bash scripts/sanitize_build.sh DIR
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh

# clang and its sanitizer and libFuzzer runtimes (libclang-rt-14-dev on Debian 12).
ensure_packages clang libclang-rt-14-dev cmake libgtest-dev python3

dir=${1:?usage: sanitize_build.sh DIR}
CC=clang CXX=clang++ cmake -S . -B "$dir" -DBUILD_TESTING=ON -DTESSEL_FUZZ=ON \
    -DCMAKE_COMPILE_WARNING_AS_ERROR=ON \
    -DCMAKE_CXX_FLAGS="-fsanitize=address,undefined -fsanitize=fuzzer-no-link -fno-sanitize-recover=all -fno-omit-frame-pointer"
cmake --build "$dir" -j2
