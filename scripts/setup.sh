#!/usr/bin/env bash
# Installs what Lumetta needs on a Debian 12 machine, skipping what is there.
#   setup.sh build   - compilers and libraries to build the player
#   setup.sh test    - the above plus what the test suite runs against
#   setup.sh bench   - the above plus the peer servers of the benchmarks
set -euo pipefail
what=${1:-build}

pkgs=(cmake g++ make pkg-config libgtest-dev libgtk-3-dev libwebkit2gtk-4.1-dev
      php-cgi libssl3 libsqlite3-0 xdg-utils)
if [[ $what == test || $what == bench ]]; then
  pkgs+=(xvfb xauth openssl curl chromium php-cli x11-apps x11-utils xdotool imagemagick
        g++-mingw-w64-x86-64 googletest wine wine64 clang libclang-rt-14-dev python3)
  # npm fetches the SQLite source for the Windows run. A machine whose
  # Node.js comes from elsewhere has its npm already, and Debian's npm
  # package would conflict with it.
  command -v npm >/dev/null || pkgs+=(npm)
fi
# Real PHP applications for the compatibility test, without their
# recommended companions (those would pull in and start a web server).
apps=()
if [[ $what == test || $what == bench ]]; then
  apps+=(dokuwiki phpliteadmin php-sqlite3 php-mbstring php-xml)
fi
if [[ $what == bench ]]; then
  pkgs+=(nginx-light lighttpd wrk valgrind strace)
fi

SUDO=""; [[ $(id -u) -ne 0 ]] && SUDO=sudo
updated=0
# install [APT OPTIONS...] -- PACKAGES...: installs those not installed yet.
install() {
  local opts=() missing=() p
  while [[ $1 != -- ]]; do opts+=("$1"); shift; done; shift
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  ((${#missing[@]})) || return 0
  echo "setup: installing ${missing[*]}"
  ((updated)) || { $SUDO apt-get update -qq; updated=1; }
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${opts[@]}" "${missing[@]}"
}
install -- "${pkgs[@]}"
((${#apps[@]} == 0)) || install --no-install-recommends -- "${apps[@]}"
