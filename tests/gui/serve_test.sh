#!/usr/bin/env bash
# lumetta-serve on the demo application and on small sites:
#   serve_test.sh BIN_DIR SRC_DIR CASE
BIN_DIR=$1 SRC_DIR=$2 CASE=$3
source "$SRC_DIR/tests/gui/common.sh"
# The Windows build runs under wine, which turns SIGINT into the console's
# Ctrl+C (SIGTERM just ends wine) and writes CR LF line ends.
ON_WINE=0
SERVE=("$BIN_DIR/lumetta-serve")
if [[ -e $BIN_DIR/lumetta-serve.exe ]]; then
  command -v wine >/dev/null || skip "wine missing"
  ON_WINE=1
  export WINEDEBUG=-all
  SERVE=(timeout 60 wine "$BIN_DIR/lumetta-serve.exe")
fi
text() { tr -d '\r' < "$1"; }
command -v curl >/dev/null || skip "curl missing"

# start_serve OUTFILE ARGS...: starts the server, waits for its address line.
start_serve() {
  local out=$1; shift
  "${SERVE[@]}" "$@" > "$out" 2> "$out.err" &
  PIDS+=($!)
  SERVE_PID=$!
  wait_for 20 grep -qs '^http://' "$out" || { cat "$out.err" >&2; fail "no start address"; }
  URL=$(text "$out" | head -1)
}

stop_serve() {  # signal
  kill -"$1" "$SERVE_PID"
  wait "$SERVE_PID"; local rc=$?
  [[ $rc == 0 ]] || fail "exit code $rc after SIG$1"
}

case $CASE in
demo)
  (( ON_WINE )) && skip "no PHP interpreter for Windows on this machine"
  command -v php-cgi >/dev/null || skip "php-cgi missing"
  PORT=$(free_port)
  # The demo's settings with this test's port; HOMEDIR stays relative to the
  # current directory, as run-demo.sh uses it.
  sed "s/^PORT=.*/PORT=$PORT/" "$SRC_DIR/examples/demo/Lumetta.ini" > "$WORK/demo.ini"
  cd "$SRC_DIR/examples/demo"
  start_serve "$WORK/out" /INI "$WORK/demo.ini"
  [[ $URL == "http://localhost:$PORT" ]] || fail "start address $URL"
  curl -fsS "$URL/" | grep -q "<h1>Lumetta demo</h1>" || fail "index page"
  ctype=$(curl -fsS -o /dev/null -w '%{content_type}' "$URL/style.css")
  [[ $ctype == text/css* ]] || fail "style sheet served as '$ctype'"
  ctype=$(curl -fsS -o /dev/null -w '%{content_type}' "$URL/img/banner.png")
  [[ $ctype == image/png* ]] || fail "image served as '$ctype'"
  curl -fsS "$URL/docs/" | grep -q "The docs folder" || fail "folder index page"
  curl -fsS -d "name=Ada+L" "$URL/form.php" | grep -q '<strong id="name">Ada L</strong>' \
    || fail "PHP form"
  # Uploads arrive byte-exact well past the server's default 4 KiB body limit.
  head -c 3000000 /dev/urandom > "$WORK/upload.bin"
  want=$(md5sum < "$WORK/upload.bin" | cut -d' ' -f1)
  page=$(curl -fsS -F "name=Up" -F "attachment=@$WORK/upload.bin" "$URL/form.php")
  grep -q "<span id=\"upload-size\">3000000</span>" <<< "$page" || fail "upload size"
  grep -q "$want" <<< "$page" || fail "upload content"
  curl -fsS "$URL/notes.php" | grep -q 'href="/run.ebd?file=[^"]*notes.txt' \
    || fail "run wrapper link"
  stop_serve TERM
  port_listening "$PORT" && fail "port still open after SIGTERM"
  ;;
port-search)
  PORT=$(free_port)
  mkdir -p "$WORK/site" && echo one > "$WORK/site/index.html"
  write_ini "$WORK/a.ini" "HOMEDIR=$WORK/site" "PORT=$PORT"
  start_serve "$WORK/out1" /INI "$WORK/a.ini"
  first=$SERVE_PID
  [[ $URL == "http://localhost:$PORT" ]] || fail "first server at $URL"
  start_serve "$WORK/out2" /INI "$WORK/a.ini" /START docs/a.html
  [[ $URL == "http://localhost:$((PORT + 1))/docs/a.html" ]] || fail "second server at $URL"
  stop_serve INT
  SERVE_PID=$first
  stop_serve INT
  ;;
options)
  "${SERVE[@]}" /INI "$WORK/missing.ini" > "$WORK/o" 2> "$WORK/e"; rc=$?
  [[ $rc == 0 ]] || fail "exit code $rc for a missing settings file"
  text "$WORK/e" | grep -qx "Initialization file not found" || fail "missing-file message"
  [[ -s $WORK/o ]] && fail "served despite the error"
  "${SERVE[@]}" /ini > "$WORK/o" 2> "$WORK/e"; rc=$?
  [[ $rc == 0 ]] || fail "exit code $rc for /INI alone"
  text "$WORK/e" | grep -qx "Missing argument" || fail "missing-argument message"
  "${SERVE[@]}" /START /TITLE > "$WORK/o" 2> "$WORK/e"
  text "$WORK/e" | grep -qx "Missing argument" || fail "/START /TITLE message"
  ;;
*) fail "unknown case $CASE" ;;
esac
echo "ok: $CASE"
