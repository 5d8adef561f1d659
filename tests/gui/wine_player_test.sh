#!/usr/bin/env bash
# The Windows player (lumetta.exe) under wine and a virtual X server:
#   wine_player_test.sh BIN_DIR SRC_DIR CASE
# Wine has no HTML engine here, so pages are not drawn: the cases check the
# window, its fading, the message box and that the browser control was made
# and sent to the start address. Skipped without wine or xvfb-run.
BIN_DIR=$1 SRC_DIR=$2 CASE=$3
if [[ ${4:-} != --inside ]]; then
  command -v xvfb-run >/dev/null || { echo "SKIP: xvfb-run missing"; exit 77; }
  command -v wine >/dev/null || { echo "SKIP: wine missing"; exit 77; }
  exec xvfb-run -a -s "-screen 0 1024x768x24 -nolisten tcp" "$0" "$@" --inside
fi
source "$SRC_DIR/tests/gui/common.sh"
for tool in xdotool xwininfo; do
  command -v $tool >/dev/null || skip "$tool missing"
done
export LUMETTA_DEBUG_WINDOW=1 WINEDEBUG=-all
# A prefix of its own unless the caller shares one (CI makes one per run).
if [[ -z ${WINEPREFIX:-} ]]; then
  export WINEPREFIX=$WORK/prefix
  timeout 120 wine wineboot -i >/dev/null 2>&1
fi
# Wine's desktop process belongs to the display of the session that started
# it: wait until an earlier session (other tests, another virtual display)
# has ended, so this one starts on ours, and end ours with the test.
timeout 30 wineserver -w
trap 'cleanup; timeout 30 wineserver -w' EXIT
# Wine's browser asks to download an HTML engine when it has none: say no
# before it asks.
export WINEDLLOVERRIDES="mscoree=;mshtml=b"

# start_player LOG ARGS...: starts the window and waits until it is shown.
start_player() {
  local log=$1; shift
  timeout 60 wine "$BIN_DIR/lumetta.exe" "$@" > /dev/null 2> >(sed -u 's/\r$//' > "$log") &
  PLAYER_PID=$!
  PIDS+=($PLAYER_PID)
  wait_for 30 grep -qs '^geometry:' "$log" || { cat "$log" >&2; fail "window not shown"; }
}

# The X window wine made for a caption (wine draws its own frame: no window
# manager moves it).
window_of() { xdotool search --name "^$1\$" | head -1; }
has_window() { [[ -n $(window_of "$1") ]]; }

close_window() {  # title
  local wid
  wid=$(window_of "$1")
  [[ -n $wid ]] || fail "no window '$1' to close"
  xdotool windowactivate --sync "$wid" 2>/dev/null
  xdotool key --window "$wid" alt+F4
}

case $CASE in
window)
  PORT=$(free_port)
  mkdir -p "$WORK/site/docs" && echo "<p>a</p>" > "$WORK/site/docs/a.html"
  write_ini "$WORK/a.ini" "TITLE=Wine Window" CENTER=0 TOP=40 LEFT=60 CLIENT_WIDTH=500 \
    CLIENT_HEIGHT=300 "HOMEDIR=$WORK/site" "PORT=$PORT"
  start_player "$WORK/log" /INI "$WORK/a.ini" /START docs/a.html
  grep -q '^geometry: client 500x319 .* status 19 caption 1 sizeable 1 .* title Wine Window$' \
    "$WORK/log" || fail "geometry: $(cat "$WORK/log")"
  # The top-level X window wine made for it, as the X server places it.
  geom=$(xwininfo -root -children | sed -n 's/.*"Wine Window": .*  \([0-9]*x[0-9]*+[-0-9]*+[-0-9]*\)  .*/\1/p' | head -1)
  [[ -n $geom ]] || fail "no X window with the caption"
  IFS='x+' read -r WIDTH HEIGHT X Y <<< "$geom"
  # Without a window manager wine either draws the frame into the X window
  # (then it sits at LEFT,TOP) or gives X the client area alone (then it sits
  # where the player says its client is, inside a frame at LEFT,TOP).
  client_at=$(sed -n 's/^geometry: client [0-9x]* at \([-0-9]*,[-0-9]*\) .*/\1/p' "$WORK/log")
  if [[ ${WIDTH}x$HEIGHT == 500x319 ]]; then
    [[ $X,$Y == "$client_at" ]] || fail "client area at $X,$Y, the player says $client_at"
    (( X > 60 && Y > 40 )) || fail "client at $X,$Y is not inside a frame at 60,40"
  else
    [[ $X,$Y == 60,40 ]] || fail "window at $X,$Y, not 60,40"
    (( WIDTH > 500 && HEIGHT > 319 )) || fail "window ${WIDTH}x$HEIGHT smaller than its client"
  fi
  grep -q '^browser create: 0x00000000$' "$WORK/log" || fail "browser control not created"
  # The control is sent to the start page with the access key, which the
  # server trades for its cookie.
  URL=$(sed -n 's/^navigate: //p' "$WORK/log" | head -1)
  [[ $URL =~ ^http://localhost:$PORT/docs/a\.html\?lumetta_key=[0-9a-f]{32}$ ]] || fail "start address $URL"
  grep -q '^browser navigate: 0x00000000$' "$WORK/log" || fail "navigation refused"
  wait_for 10 port_listening "$PORT" || fail "server not listening"
  open_key
  [[ $LOCATION == /docs/a.html ]] || fail "key address led to '$LOCATION'"
  [[ $(curl -fsS "${KEY[@]}" "http://localhost:$PORT/docs/a.html") == "<p>a</p>" ]] || fail "page not served"
  if [[ -n ${LUMETTA_WINE_SHOT:-} ]]; then import -window root "$LUMETTA_WINE_SHOT"; fi
  close_window "Wine Window"
  expect_exit_0
  port_listening "$PORT" && fail "port still open after the window closed"
  ;;
fading)
  PORT=$(free_port)
  write_ini "$WORK/a.ini" "TITLE=Fading" GLASSWIN=1 "HOMEDIR=$WORK" "PORT=$PORT"
  start_player "$WORK/log" /INI "$WORK/a.ini"
  # Shown at the opening opacity, then four steps of 50 ms up to full on
  # activation; each value as the window system reads it back.
  wait_for 10 grep -q '^opacity: 255 ' "$WORK/log" || fail "no fade up: $(grep opacity "$WORK/log")"
  up=$(grep '^opacity:' "$WORK/log" | tr '\n' ' ')
  want="opacity: 100 read 100 opacity: 138 read 138 opacity: 176 read 176 opacity: 214 read 214 "
  want+="opacity: 252 read 252 opacity: 255 read 255 "
  [[ $up == "$want" ]] || fail "fade up: $up"
  close_window "Fading"
  expect_exit_0
  # The close waits for the fade down to the opening opacity (what the
  # destruction does to the window afterwards does not count).
  down=$(grep '^opacity:' "$WORK/log" | sed -n 7,11p | tr '\n' ' ')
  want="opacity: 217 read 217 opacity: 179 read 179 opacity: 141 read 141 opacity: 103 read 103 "
  want+="opacity: 100 read 100 "
  [[ $down == "$want" ]] || fail "fade down: $down"
  ;;
missing-ini)
  # The message box stands alone (no main window yet); the test answers it.
  timeout 60 wine "$BIN_DIR/lumetta.exe" /INI "$WORK/missing.ini" > /dev/null 2> >(sed -u 's/\r$//' > "$WORK/log") &
  PLAYER_PID=$!
  PIDS+=($PLAYER_PID)
  wait_for 30 has_window Lumetta || fail "no message box"
  grep -q '^Initialization file not found$' "$WORK/log" || fail "message text: $(cat "$WORK/log")"
  xdotool windowactivate --sync "$(window_of Lumetta)" 2>/dev/null
  xdotool key --window "$(window_of Lumetta)" Return
  expect_exit_0
  ;;
*) fail "unknown case $CASE" ;;
esac
echo "PASS: $CASE"
