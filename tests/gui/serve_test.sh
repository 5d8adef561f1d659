#!/usr/bin/env bash
# lumetta-serve on the demo application and on small sites:
#   serve_test.sh BIN_DIR SRC_DIR CASE
BIN_DIR=$1 SRC_DIR=$2 CASE=$3
source "$SRC_DIR/tests/gui/common.sh"
# The Windows build runs under wine, which turns SIGINT into the console's
# Ctrl+C (SIGTERM just ends wine) and writes CR LF line ends.
ON_WINE=0
STOP=TERM
SERVE=("$BIN_DIR/lumetta-serve")
if [[ -e $BIN_DIR/lumetta-serve.exe ]]; then
  command -v wine >/dev/null || skip "wine missing"
  ON_WINE=1
  STOP=INT
  export WINEDEBUG=-all
  SERVE=(timeout 60 wine "$BIN_DIR/lumetta-serve.exe")
fi
text() { tr -d '\r' < "$1"; }
# PHP under wine is the php-cgi.exe stand-in that scripts/wine-tests.sh puts
# on wine's search path; its workers are Windows processes, not children the
# host can list.
have_php() {
  if (( ON_WINE )); then
    [[ -x ${LUMETTA_PHP_STANDIN:-}/php-cgi.exe ]] || skip "no PHP interpreter for Windows on this machine"
  else
    command -v php-cgi >/dev/null || skip "php-cgi missing"
  fi
}
# host_php_children: the php-cgi processes the server started (Linux only).
host_php_children() { pgrep -P "$SERVE_PID" -d ' ' php-cgi || true; }
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

# serve_php_page NAME SOURCE [KEY=VALUE...]: a one-page PHP site served by
# lumetta-serve with the key's cookie in hand; URL is its bare address.
serve_php_page() {
  local name=$1 source=$2; shift 2
  have_php
  PORT=$(free_port)
  mkdir -p "$WORK/site"
  echo "$source" > "$WORK/site/$name"
  write_ini "$WORK/a.ini" "HOMEDIR=$WORK/site" "PORT=$PORT" "PHP=1" "$@"
  start_serve "$WORK/out" /INI "$WORK/a.ini"
  open_key
  URL="http://localhost:$PORT"
}

stop_serve() {  # signal
  kill -"$1" "$SERVE_PID"
  wait "$SERVE_PID"; local rc=$?
  [[ $rc == 0 ]] || fail "exit code $rc after SIG$1"
}

case $CASE in
demo)
  have_php
  PORT=$(free_port)
  # The demo's settings with this test's port; HOMEDIR stays relative to the
  # current directory, as run-demo.sh uses it.
  sed "s/^PORT=.*/PORT=$PORT/" "$SRC_DIR/examples/demo/Lumetta.ini" > "$WORK/demo.ini"
  cd "$SRC_DIR/examples/demo"
  start_serve "$WORK/out" /INI "$WORK/demo.ini"
  [[ $URL =~ ^http://localhost:$PORT/\?lumetta_key=[0-9a-f]{32}$ ]] || fail "start address $URL"
  open_key
  [[ $LOCATION == / ]] || fail "key address led to '$LOCATION'"
  URL="http://localhost:$PORT"
  # Without the key: the explaining page, for pages and the run wrapper alike.
  for path in / /form.php "/run.ebd?file=/bin/true"; do
    code=$(curl -sS -o "$WORK/denied" -w '%{http_code}' "$URL$path")
    [[ $code == 403 ]] || fail "$path without the key: $code"
  done
  grep -q "lumetta-serve printed" "$WORK/denied" || fail "403 page text"
  curl -fsS "${KEY[@]}" "$URL/" | grep -q "<h1>Lumetta demo</h1>" || fail "index page"
  ctype=$(curl -fsS "${KEY[@]}" -o /dev/null -w '%{content_type}' "$URL/style.css")
  [[ $ctype == text/css* ]] || fail "style sheet served as '$ctype'"
  ctype=$(curl -fsS "${KEY[@]}" -o /dev/null -w '%{content_type}' "$URL/img/banner.png")
  [[ $ctype == image/png* ]] || fail "image served as '$ctype'"
  curl -fsS "${KEY[@]}" "$URL/docs/" | grep -q "The docs folder" || fail "folder index page"
  curl -fsS "${KEY[@]}" -d "name=Ada+L" "$URL/form.php" | grep -q '<strong id="name">Ada L</strong>' \
    || fail "PHP form"
  # Uploads arrive byte-exact well past the server's default 4 KiB body limit.
  head -c 3000000 /dev/urandom > "$WORK/upload.bin"
  want=$(md5sum < "$WORK/upload.bin" | cut -d' ' -f1)
  page=$(curl -fsS "${KEY[@]}" -F "name=Up" -F "attachment=@$WORK/upload.bin" "$URL/form.php")
  grep -q "<span id=\"upload-size\">3000000</span>" <<< "$page" || fail "upload size"
  grep -q "$want" <<< "$page" || fail "upload content"
  curl -fsS "${KEY[@]}" "$URL/notes.php" | grep -q 'href="/run.ebd?file=[^"]*notes.txt' \
    || fail "run wrapper link"
  # PHP ran on the default two workers, and they end with the server (the
  # pool's own tests check that on Windows).
  if (( ON_WINE )); then
    stop_serve "$STOP"
  else
    workers=$(host_php_children)
    [[ $(wc -w <<< "$workers") == 2 ]] || fail "PHP workers: '$workers'"
    stop_serve TERM
    for p in $workers; do ! kill -0 "$p" 2>/dev/null || fail "php-cgi $p outlived the server"; done
  fi
  port_listening "$PORT" && fail "port still open after SIGTERM"
  ;;
port-search)
  PORT=$(free_port)
  mkdir -p "$WORK/site" && echo one > "$WORK/site/index.html"
  write_ini "$WORK/a.ini" "HOMEDIR=$WORK/site" "PORT=$PORT"
  # The first one without the key: a bare address that any client may use.
  start_serve "$WORK/out1" --no-access-key /INI "$WORK/a.ini"
  first=$SERVE_PID
  [[ $URL == "http://localhost:$PORT" ]] || fail "first server at $URL"
  [[ $(curl -fsS "$URL/") == one ]] || fail "keyless server refused a client"
  start_serve "$WORK/out2" /INI "$WORK/a.ini" /START docs/a.html
  [[ $URL =~ ^http://localhost:$((PORT + 1))/docs/a.html\?lumetta_key=[0-9a-f]{32}$ ]] \
    || fail "second server at $URL"
  open_key
  [[ $LOCATION == /docs/a.html ]] || fail "start page key led to '$LOCATION'"
  stop_serve INT
  SERVE_PID=$first
  stop_serve INT
  ;;
key-php)
  # The key's cookie never reaches PHP; foreign names and origins are refused
  # before PHP or the run wrapper is reached.
  serve_php_page cookies.php '<?php echo "[", $_SERVER["HTTP_COOKIE"] ?? "", "]";'
  seen=$(curl -fsS "${KEY[@]}" -b "app=1; theme=dark" "$URL/cookies.php")
  [[ $seen == "[app=1; theme=dark]" || $seen == "[theme=dark; app=1]" ]] || fail "PHP saw '$seen'"
  seen=$(curl -fsS "${KEY[@]}" "$URL/cookies.php")
  [[ $seen == "[]" ]] || fail "PHP saw '$seen' with only the key"
  # A bare status line: curl reports its code and no body.
  code=$(curl -sS -o /dev/null -w '%{http_code}' "${KEY[@]}" -H "Host: evil.example:$PORT" "$URL/cookies.php")
  [[ $code == 403 ]] || fail "foreign Host got '$code'"
  code=$(curl -sS -o /dev/null -w '%{http_code}' "${KEY[@]}" -H "Origin: http://localhost:1" \
    -d "a=1" "$URL/cookies.php")
  [[ $code == 403 ]] || fail "post from another port: $code"
  code=$(curl -sS -o /dev/null -w '%{http_code}' "${KEY[@]}" -e "http://evil.example/" \
    "$URL/run.ebd?file=/bin/sh&parameters=-c%20%22touch%20$WORK/pwned%22")
  [[ $code == 403 ]] || fail "run wrapper from a foreign page: $code"
  [[ -e $WORK/pwned ]] && fail "a foreign page started a program"
  stop_serve "$STOP"
  ;;
workers-off)
  # PHP_WORKERS=0: no interpreter waits between requests; each page still
  # runs, the query's look-alike options included.
  serve_php_page q.php '<?php echo "ran:", $_SERVER["QUERY_STRING"];' "PHP_WORKERS=0"
  for q in x=1 -s -n; do
    seen=$(curl -fsS "${KEY[@]}" "$URL/q.php?$q")
    [[ $seen == "ran:$q" ]] || fail "q.php?$q gave '$seen'"
  done
  (( ON_WINE )) || [[ -z $(host_php_children) ]] || fail "php-cgi left running with PHP_WORKERS=0"
  stop_serve "$STOP"
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
