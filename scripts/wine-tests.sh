#!/usr/bin/env bash
# Runs a Windows build's test suite under wine:  wine-tests.sh BUILD_DIR
# First checks that the programs need no DLL beyond Windows' own, then runs
# ctest (each test bounded) in a wine prefix made for this run and removed
# afterwards, and prints the counts.
set -uo pipefail
dir=${1:-build-win}
jobs=$(nproc)

echo "-- DLLs the programs import"
bad=0
for exe in "$dir"/shell/lumetta.exe "$dir"/shell/lumetta-serve.exe; do
  dlls=$(x86_64-w64-mingw32-objdump -p "$exe" | sed -n 's/^\tDLL Name: //p' | tr '\n' ' ')
  echo "$(basename "$exe"): $dlls"
  # Windows' own DLLs only: the compiler's run-time (libgcc_s, libstdc++,
  # libwinpthread) must be linked in.
  if grep -qi 'lib[a-z0-9_+-]*\.dll' <<< "$dlls"; then bad=1; fi
done
(( bad )) && { echo "a program needs a DLL of the compiler's run-time" >&2; exit 1; }

export WINEPREFIX
WINEPREFIX=$(mktemp -d /tmp/lumetta-wine.XXXXXX)
export WINEDEBUG=-all
# No prompts for the engines wine lacks (.NET, HTML) while the prefix is made.
WINEDLLOVERRIDES="mscoree=;mshtml=" timeout 300 wine wineboot -i >/dev/null 2>&1
cleanup() {
  timeout 30 wineserver -k >/dev/null 2>&1
  rm -rf "$WINEPREFIX"
}
trap cleanup EXIT

log=$(mktemp /tmp/lumetta-wine-ctest.XXXXXX)
ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 120 2>&1 | tee "$log"
rc=${PIPESTATUS[0]}
echo "-- skipped under wine, with their reasons"
awk '/^[0-9]+\/[0-9]+ Testing: /{name=$3} /: Skipped\r?$/{getline why; print "  " name ": " why}
     /^SKIP: /{print "  " name ": " substr($0, 7)}' "$dir/Testing/Temporary/LastTest.log" | tr -d '\r'
total=$(sed -n 's/.*tests passed, \([0-9]*\) tests failed out of \([0-9]*\)/\2/p' "$log")
failed=$(sed -n 's/.*tests passed, \([0-9]*\) tests failed out of.*/\1/p' "$log")
skipped=$(grep -c '(Skipped)$' "$log")
echo "-- under wine: ${total:-0} tests, $(( ${total:-0} - ${failed:-0} - skipped )) passed," \
     "$skipped skipped (reasons above), ${failed:-0} failed"
rm -f "$log"
exit "$rc"
