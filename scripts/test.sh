#!/usr/bin/env bash
# Sets up, builds and runs every test: a plain build, then the suite again
# under AddressSanitizer + UndefinedBehaviorSanitizer, the threaded server
# code under ThreadSanitizer, a short run of each fuzz target, and last the
# Windows build with its suite under wine.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh test
jobs=$(nproc)

build() {  # build DIR [cmake options...]
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}

echo "== plain build"
build build
ctest --test-dir build --output-on-failure -j "$jobs"

if [[ ${LUMETTA_QUICK:-0} == 1 ]]; then exit 0; fi

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
build build-asan -DLUMETTA_SANITIZE=address -DLUMETTA_BUILD_GUI=OFF
ASAN_OPTIONS=detect_leaks=1 ctest --test-dir build-asan --output-on-failure -j "$jobs" -LE 'nosan|fuzz'

echo "== ThreadSanitizer (threaded code)"
build build-tsan -DLUMETTA_SANITIZE=thread -DLUMETTA_BUILD_GUI=OFF
TSAN_OPTIONS=halt_on_error=1 ctest --test-dir build-tsan --output-on-failure -j "$jobs" -L threads

echo "== Fuzz targets (libFuzzer, clang): a short fixed run each"
CC=clang CXX=clang++ build build-fuzz -DLUMETTA_FUZZ=ON -DLUMETTA_BUILD_GUI=OFF
ctest --test-dir build-fuzz --output-on-failure -L fuzz

echo "== Windows (mingw-w64): the programs and the test suite, run under wine"
build build-win -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake -DLUMETTA_CROSS_TESTS=ON
bash scripts/wine-tests.sh build-win
