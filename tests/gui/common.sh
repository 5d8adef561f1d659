# Helpers shared by the player's script tests. Sourced; BIN_DIR (build/shell)
# and SRC_DIR (the source tree) come from the caller's arguments.
set -uo pipefail

WORK=$(mktemp -d /tmp/lumetta_gui.XXXXXX)
PIDS=()
cleanup() {
  local p
  for p in "${PIDS[@]}"; do kill "$p" 2>/dev/null; done
  rm -rf "$WORK"
}
trap cleanup EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }
skip() { echo "SKIP: $*" >&2; exit 77; }

# A port no socket uses right now, and the next one neither: tests of the
# port search need both. Sockets in TIME_WAIT count, since they also keep a
# listener off the port.
port_in_use() {
  local hex
  hex=$(printf ':%04X ' "$1")
  grep -qi "^ *[0-9]*: [0-9A-F]*$hex" /proc/net/tcp
}

free_port() {
  local p i
  for i in $(seq 1 200); do
    p=$(( 20000 + RANDOM % 40000 ))
    port_in_use "$p" || port_in_use $((p + 1)) || { echo "$p"; return 0; }
  done
  return 1
}

# Whether something listens on the port. Looked up rather than connected to:
# a test connection would leave its own port in TIME_WAIT, and that port is
# often the very next one, which the player may want.
port_listening() {
  if command -v ss >/dev/null; then
    ss -Hltn "sport = :$1" 2>/dev/null | grep -q .
  else  # state 0A is LISTEN in the kernel's table
    grep -qi ":$(printf '%04X' "$1") 00000000:0000 0A" /proc/net/tcp
  fi
}

# wait_for SECONDS COMMAND...: retries the command every 0.1 s.
wait_for() {
  local tries=$(( $1 * 10 )); shift
  while (( tries-- > 0 )); do "$@" && return 0; sleep 0.1; done
  return 1
}

# A home directory whose start page fills the view with one colour.
make_colour_site() {  # dir colour
  mkdir -p "$1/docs"
  cat > "$1/index.html" <<HTML
<!doctype html><html><head><link rel="stylesheet" href="page.css"></head>
<body><p>colour page</p></body></html>
HTML
  echo "html,body{margin:0;height:100%;background:$2}" > "$1/page.css"
  echo "<!doctype html><html><body style='margin:0;background:#ff00ff'>a</body></html>" \
    > "$1/docs/a.html"
}

# write_ini FILE KEY=VALUE...: a settings file with one section.
write_ini() {
  local f=$1; shift
  { echo "[Lumetta]"; printf '%s\n' "$@"; } > "$f"
}

# The player (PLAYER_PID) ends within 15 s with exit code 0.
expect_exit_0() {
  local tries=150
  while kill -0 "$PLAYER_PID" 2>/dev/null && (( tries-- > 0 )); do sleep 0.1; done
  kill -0 "$PLAYER_PID" 2>/dev/null && fail "player still running"
  wait "$PLAYER_PID"; local rc=$?
  [[ $rc == 0 ]] || fail "exit code $rc"
}

# open_key: opens the address lumetta-serve printed ($URL) the way a browser
# would, keeping the access key's cookie in $JAR for the requests that follow
# (curl "${KEY[@]}"); LOCATION is where the key address led.
open_key() {
  JAR=$WORK/jar
  KEY=(-b "$JAR")
  local head
  head=$(curl -sS -D - -o /dev/null -c "$JAR" "$URL") || fail "key address"
  grep -q '^HTTP/1.1 302' <<< "$head" || fail "key address did not redirect"
  grep -qi "^Set-Cookie: lumetta_key=[0-9a-f]\{32\}; HttpOnly; SameSite=Strict; Path=/" <<< "$head" \
    || fail "key cookie: $head"
  LOCATION=$(grep -i '^Location:' <<< "$head" | tr -d '\r' | cut -d' ' -f2)
}
