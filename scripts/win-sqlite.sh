#!/usr/bin/env bash
# Builds the real SQLite as sqlite3.dll for the Windows test programs:
#   win-sqlite.sh BUILD_DIR
# The amalgamation comes from a pinned npm package that carries it; the DLL
# goes beside the test programs, where their run-time binding finds it, and
# is kept there, so later runs reuse it.
set -euo pipefail
dir=${1:-build-win}
dll="$dir/tests/sqlite3.dll"
[[ -f $dll ]] && exit 0
pkg=better-sqlite3@11.10.0
sum=71e2d66a44dafc35649ff82742cf4908557fc31841108d19703b74b7065c0293
work=$(mktemp -d /tmp/lumetta-sqlite.XXXXXX)
trap 'rm -rf "$work"' EXIT
(cd "$work" && timeout 300 npm pack --silent "$pkg" >/dev/null)
tgz=("$work"/*.tgz)
echo "$sum  ${tgz[0]}" | sha256sum -c --quiet
tar xzf "${tgz[0]}" -C "$work" package/deps/sqlite3/sqlite3.c
mkdir -p "$dir/tests"
x86_64-w64-mingw32-gcc -O1 -shared -static-libgcc -DSQLITE_THREADSAFE=1 \
  -DSQLITE_API='__declspec(dllexport)' -o "$work/sqlite3.dll" "$work/package/deps/sqlite3/sqlite3.c"
mv "$work/sqlite3.dll" "$dll"
echo "-- built $dll from $pkg"
