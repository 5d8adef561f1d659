#!/usr/bin/env bash
# Runs a Windows build's test suite under wine:  wine-tests.sh BUILD_DIR
# (WINE_TESTS_REGEX=... to run only the matching tests.)
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
# The wine server and its system processes live for the whole run, started
# here with no output: started later by some test, they would inherit its
# output pipe and hold the test open until the run ends.
wineserver -p >/dev/null 2>&1
# No prompts for the engines wine lacks (.NET, HTML) while the prefix is made.
WINEDLLOVERRIDES="mscoree=;mshtml=" timeout 300 wine wineboot -i >/dev/null 2>&1

# The real SQLite, built once for Windows, beside the test programs.
bash "$(dirname "$0")/win-sqlite.sh" "$dir" || echo "-- no sqlite3.dll: its tests skip"

# PHP for the Windows runs: the php-cgi.exe stand-in on the search path,
# relaying to the host's php-cgi through a relay that lives for this run.
standin=$(cd "$dir/tests/php-standin" 2>/dev/null && pwd)
if [[ -n $standin && -x /usr/bin/php-cgi ]]; then
  rm -f "$standin/php-relay.port"
  python3 "$(dirname "$0")/../tests/helpers/php_relay.py" "$standin/php-relay.port" &
  relay=$!
  for _ in $(seq 50); do [[ -f $standin/php-relay.port ]] && break; sleep 0.1; done
  export WINEPATH="Z:${standin//\//\\}" LUMETTA_PHP_STANDIN=$standin
fi
cleanup() {
  [[ -n ${relay:-} ]] && kill "$relay" 2>/dev/null
  timeout 30 wineserver -k >/dev/null 2>&1
  rm -rf "$WINEPREFIX"
}
trap cleanup EXIT

log=$(mktemp /tmp/lumetta-wine-ctest.XXXXXX)
# WINE_TESTS_REGEX runs only the matching tests (ctest -R), for a quick check.
ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 120 ${WINE_TESTS_REGEX:+-R "$WINE_TESTS_REGEX"} 2>&1 | tee "$log"
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
