#!/usr/bin/env bash
# Sets up, builds and starts the player on the bundled demo application.
# Without a display it starts lumetta-serve instead and prints the address
# to open in a browser.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
bash scripts/setup.sh build
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMETTA_BUILD_GUI=ON >/dev/null
cmake --build build -j "$(nproc)"
# The demo's settings name its home directory relative to its own folder.
cd examples/demo
if [[ -z ${DISPLAY:-}${WAYLAND_DISPLAY:-} ]]; then
  echo "No display: serving the demo without a window (Ctrl+C stops it)." >&2
  exec "$root/build/shell/lumetta-serve" /INI Lumetta.ini "$@"
fi
exec "$root/build/shell/lumetta" /INI Lumetta.ini "$@"
