#!/usr/bin/env bash
# Runs a Windows program under wine for the cross-built test suite (the
# CMake emulator of Windows builds). The caller's WINEPREFIX is used; without
# one, a throw-away prefix is made for this run. Every run is bounded.
set -u
export WINEDEBUG=${WINEDEBUG:--all}
own_prefix=
if [[ -z ${WINEPREFIX:-} ]]; then
  WINEPREFIX=$(mktemp -d) && own_prefix=$WINEPREFIX && export WINEPREFIX
fi
wine=$(command -v wine64 || command -v wine || echo /usr/lib/wine/wine64)
# The output goes through a file: a process the program leaves behind (a
# console host, a program it had the desktop open) may keep that file open
# for a while, but not the pipe that ctest waits on to end the test.
out=$(mktemp)
timeout -k 5 "${LUMETTA_WINE_TIMEOUT:-90}" "$wine" "$@" >"$out" 2>&1
code=$?
cat "$out"
rm -f "$out"
if [[ -n $own_prefix ]]; then
  timeout 20 wineserver -k 2>/dev/null
  rm -rf "$own_prefix"
fi
exit $code
