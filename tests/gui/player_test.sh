#!/usr/bin/env bash
# The windowed player under a virtual X server:
#   player_test.sh BIN_DIR SRC_DIR CASE
# Without xvfb-run the case is skipped; inside it, the case runs under
# "player_test.sh ... CASE --inside".
BIN_DIR=$1 SRC_DIR=$2 CASE=$3
if [[ ${4:-} != --inside ]]; then
  command -v xvfb-run >/dev/null || { echo "SKIP: xvfb-run missing"; exit 77; }
  SCREEN=1280x1024x24
  [[ $CASE == off-screen ]] && SCREEN=1280x800x24  # a laptop's screen
  exec xvfb-run -a -s "-screen 0 $SCREEN -nolisten tcp" "$0" "$@" --inside
fi
source "$SRC_DIR/tests/gui/common.sh"
PLAYER="$BIN_DIR/lumetta"
export LUMETTA_DEBUG_WINDOW=1
for tool in xdotool import xprop; do
  command -v $tool >/dev/null || skip "$tool missing"
done

# start_player LOG ARGS...: starts the window and waits until it is laid out.
start_player() {
  local log=$1; shift
  # Emptied here, not only by the child's redirection: the wait below could
  # otherwise still read the previous run's line.
  : > "$log"
  "$PLAYER" "$@" > /dev/null 2> "$log" &
  PLAYER_PID=$!
  PIDS+=($PLAYER_PID)
  wait_for 30 grep -qs '^geometry:' "$log" || { cat "$log" >&2; fail "window not laid out"; }
}

geometry_field() {  # log field -> the word after it
  sed -n 's/^geometry: .*\b'"$2"' \([^ ]*\).*/\1/p' "$1" | head -1
}

# Colour of a screen pixel as rrggbb.
pixel() {
  import -window root -crop "1x1+$1+$2" -depth 8 txt:- | sed -n 's/.*#\([0-9A-Fa-f]\{6\}\).*/\1/p' \
    | tr 'A-F' 'a-f'
}

# wait_colour X Y RRGGBB: the page is drawn when the pixel takes its colour.
wait_colour() {
  local i
  for i in $(seq 1 100); do
    [[ $(pixel "$1" "$2") == "$3" ]] && return 0
    sleep 0.2
  done
  import -window root "$WORK/screen.png"
  cp "$WORK/screen.png" "/tmp/lumetta_${CASE}_fail.png" 2>/dev/null
  fail "pixel $1,$2 is $(pixel "$1" "$2"), not $3"
}

# Clicks the header bar's close button (the rightmost one).
click_close() {
  local wid X Y WIDTH HEIGHT SCREEN
  wid=$(xdotool search --pid "$PLAYER_PID" --onlyvisible | tail -1)
  eval "$(xdotool getwindowgeometry --shell "$wid")"
  xdotool mousemove $((X + WIDTH - 28)) $((Y + 26)) click 1
}

count_windows() { xwininfo -root -children | grep -c '"'; }

# right_click_opens_menu X Y: true when a right click there opens a popup.
right_click_opens_menu() {
  local before after
  before=$(count_windows)
  xdotool mousemove "$1" "$2" click 3
  sleep 1
  after=$(count_windows)
  xdotool key Escape
  sleep 0.3
  (( after > before ))
}


case $CASE in
window)
  # Default shape: status strip under a browser area of the asked size, the
  # page drawn, and closing the window stops the server.
  PORT=$(free_port)
  make_colour_site "$WORK/site" "#00c060"
  write_ini "$WORK/a.ini" "HOMEDIR=$WORK/site" "PORT=$PORT" "CLIENT_WIDTH=500" \
    "CLIENT_HEIGHT=300" "TITLE=Colour Test" "CENTER=0" "LEFT=40" "TOP=30"
  start_player "$WORK/log" /INI "$WORK/a.ini"
  # The first load carries the run's access key; the server leads on to the
  # bare start address, which is what the window ends up showing.
  grep -qE "^navigate: http://localhost:$PORT/\?lumetta_key=[0-9a-f]{32}$" "$WORK/log" || fail "start address"
  wait_for 30 grep -qx "loaded: http://localhost:$PORT/" "$WORK/log" || fail "start address not loaded"
  grep -q "^loaded:.*lumetta_key" "$WORK/log" && fail "key left in the address"
  [[ $(geometry_field "$WORK/log" browser) == 500x300 ]] || fail "browser area"
  [[ $(geometry_field "$WORK/log" client) == 500x319 ]] || fail "client area with status bar"
  [[ $(geometry_field "$WORK/log" buttons) == icon:minimize,maximize,close ]] || fail "buttons"
  at=$(geometry_field "$WORK/log" at)
  cx=${at%,*} cy=${at#*,}
  (( cx == 40 )) || fail "left edge of the client area at $cx"
  xdotool search --name "^Colour Test$" >/dev/null || fail "caption"
  wait_colour $((cx + 250)) $((cy + 150)) 00c060
  port_listening "$PORT" || fail "server not listening"
  right_click_opens_menu $((cx + 250)) $((cy + 150)) || fail "no context menu by default"
  grep -q '^opacity:' "$WORK/log" && fail "faded without GLASSWIN"
  click_close
  expect_exit_0
  port_listening "$PORT" && fail "port still open after the window closed"
  ;;
no-statusbar)
  PORT=$(free_port)
  make_colour_site "$WORK/site" "#2040ff"
  write_ini "$WORK/a.ini" "HOMEDIR=$WORK/site" "PORT=$PORT" "CLIENT_WIDTH=400" \
    "CLIENT_HEIGHT=260" "STATUSBAR=0" "SIZEABLE=0" "ICON_MAXIMIZE=0" "POPUPMENU=0" \
    "GLASSWIN=1" "TITLE=File Title"
  start_player "$WORK/log" /INI "$WORK/a.ini" /TITLE "Command Title"
  wait_for 30 grep -q '^loaded:' "$WORK/log" || fail "page not loaded"
  [[ $(geometry_field "$WORK/log" client) == 400x260 ]] || fail "client area without status bar"
  [[ $(geometry_field "$WORK/log" resizable) == 0 ]] || fail "SIZEABLE=0"
  [[ $(geometry_field "$WORK/log" buttons) == icon:minimize,close ]] || fail "buttons"
  [[ $(geometry_field "$WORK/log" title) == Command ]] || fail "/TITLE caption"
  xdotool search --name "^Command Title$" >/dev/null || fail "caption from /TITLE"
  at=$(geometry_field "$WORK/log" at)
  right_click_opens_menu $((${at%,*} + 100)) $((${at#*,} + 100)) && fail "POPUPMENU=0 shows a menu"
  # Translucent window: shown at the opening opacity, and the close waits for
  # a fade back down to it.
  [[ $(grep -m1 '^opacity:' "$WORK/log") == "opacity: 100" ]] || fail "not shown translucent"
  wait_for 10 grep -q '^opacity: 255' "$WORK/log" || fail "no fade up on activation"
  click_close
  expect_exit_0
  [[ $(grep '^opacity:' "$WORK/log" | tail -1) == "opacity: 100" ]] || fail "no fade before close"
  ;;
borderless)
  PORT=$(free_port)
  make_colour_site "$WORK/site" "#ffd000"
  write_ini "$WORK/a.ini" "HOMEDIR=$WORK/site" "PORT=$PORT" "CLIENT_WIDTH=300" \
    "CLIENT_HEIGHT=200" "BORDER=0" "STATUSBAR=1" "STAYONTOP=1" "ICON_SYSMENU=0" \
    "CENTER=0" "TOP=100" "LEFT=100"
  start_player "$WORK/log" /INI "$WORK/a.ini" /START docs/a.html
  grep -qE "^navigate: http://localhost:$PORT/docs/a.html\?lumetta_key=[0-9a-f]{32}$" "$WORK/log" || fail "start page"
  [[ $(geometry_field "$WORK/log" client) == 300x200 ]] || fail "BORDER=0 keeps a status bar"
  [[ $(geometry_field "$WORK/log" titlebar) == 0 ]] || fail "BORDER=0 keeps a title bar"
  [[ $(geometry_field "$WORK/log" at) == 100,100 ]] || fail "position"
  wid=$(xdotool search --pid "$PLAYER_PID" --onlyvisible | tail -1)
  xprop -id "$wid" _NET_WM_STATE | grep -q _NET_WM_STATE_ABOVE || fail "STAYONTOP"
  wait_colour 250 250 ff00ff
  # No close button here: a stop request closes the window cleanly.
  kill -TERM "$PLAYER_PID"
  expect_exit_0
  port_listening "$PORT" && fail "port still open after SIGTERM"
  ;;
port-taken)
  PORT=$(free_port)
  make_colour_site "$WORK/site" "#00c060"
  write_ini "$WORK/a.ini" "HOMEDIR=$WORK/site" "PORT=$PORT"
  # Another server holds the port first.
  "$BIN_DIR/lumetta-serve" --no-access-key /INI "$WORK/a.ini" > "$WORK/blocker" &
  PIDS+=($!)
  wait_for 10 port_listening "$PORT" || fail "blocker not listening"
  start_player "$WORK/log" /INI "$WORK/a.ini"
  grep -qE "^navigate: http://localhost:$((PORT + 1))/\?lumetta_key=[0-9a-f]{32}$" "$WORK/log" || { cat "$WORK/log" >&2; fail "next port not taken (blocked $PORT)"; }
  curl -fsS "http://127.0.0.1:$PORT/" | grep -q "colour page" || fail "keyless blocker not serving"
  # The player's own server answers other clients only with its refusal.
  code=$(curl -sS -o /dev/null -w '%{http_code}' "http://localhost:$((PORT + 1))/")
  [[ $code == 403 ]] || fail "player served a client without the key ($code)"
  ;;
off-screen)
  # Settings made for a larger screen: the window is moved, and if need be
  # made smaller, until it lies inside the 1280x800 screen, status strip too.
  make_colour_site "$WORK/site" "#00c060"
  for shape in "900 620 600 300 900x639" "900 1000 100 100 900x"; do
    read -r w h left top client <<< "$shape"
    PORT=$(free_port)
    write_ini "$WORK/a.ini" "HOMEDIR=$WORK/site" "PORT=$PORT" "CLIENT_WIDTH=$w" \
      "CLIENT_HEIGHT=$h" "CENTER=0" "LEFT=$left" "TOP=$top"
    start_player "$WORK/log" /INI "$WORK/a.ini"
    got=$(geometry_field "$WORK/log" client)
    at=$(geometry_field "$WORK/log" at)
    cx=${at%,*} cy=${at#*,} gw=${got%x*} gh=${got#*x}
    [[ $got == "$client"* ]] || fail "client area $got for $shape"
    (( cx >= 0 && cy >= 0 && cx + gw <= 1280 && cy + gh <= 800 )) ||
      fail "client area $got at $at leaves the screen for $shape"
    kill -TERM "$PLAYER_PID"
    expect_exit_0
  done
  ;;
bad-options)
  # Without a display: stderr only, no hang, exit 0.
  env -u DISPLAY "$PLAYER" /INI "$WORK/missing.ini" 2> "$WORK/e"; rc=$?
  [[ $rc == 0 ]] || fail "exit code $rc"
  grep -qx "Initialization file not found" "$WORK/e" || fail "message without display"
  # With a display: a message box captioned Lumetta, and no window after it.
  "$PLAYER" /INI 2> "$WORK/e" &
  PLAYER_PID=$!
  PIDS+=($PLAYER_PID)
  wait_for 20 xdotool search --pid "$PLAYER_PID" --onlyvisible --name "^Lumetta$" \
    >/dev/null || fail "no message box"
  grep -qx "Missing argument" "$WORK/e" || fail "message on stderr"
  # Without a window manager the keyboard follows the pointer: point at the
  # box and press Return until it is gone (the first press may come early).
  for i in $(seq 1 20); do
    wid=$(xdotool search --pid "$PLAYER_PID" --onlyvisible --name "^Lumetta$" | tail -1)
    [[ -n $wid ]] || break
    eval "$(xdotool getwindowgeometry --shell "$wid")"
    xdotool mousemove $((X + WIDTH / 2)) $((Y + HEIGHT / 2)) key Return
    sleep 0.5
    kill -0 "$PLAYER_PID" 2>/dev/null || break
  done
  expect_exit_0
  grep -q '^geometry:' "$WORK/e" && fail "a window was shown"
  ;;
demo)
  # The demo application as run-demo.sh starts it: styled page drawn (the
  # header's blue, not a blank view), PHP form reachable.
  command -v php-cgi >/dev/null || skip "php-cgi missing"
  PORT=$(free_port)
  sed "s/^PORT=.*/PORT=$PORT/" "$SRC_DIR/examples/demo/Lumetta.ini" > "$WORK/demo.ini"
  cd "$SRC_DIR/examples/demo"
  start_player "$WORK/log" /INI "$WORK/demo.ini"
  wait_for 30 grep -q "^loaded: http://localhost:$PORT/" "$WORK/log" || fail "demo not loaded"
  at=$(geometry_field "$WORK/log" at)
  cx=${at%,*} cy=${at#*,}
  for i in $(seq 1 50); do
    rgb=$(pixel $((cx + 10)) $((cy + 10)))
    (( 16#${rgb:4:2} > 16#${rgb:0:2} + 60 )) && break
    sleep 0.2
  done
  (( 16#${rgb:4:2} > 16#${rgb:0:2} + 60 )) || fail "header not drawn (pixel $rgb)"
  # Other clients meet the key; the window's own PHP page loads through it.
  code=$(curl -sS -o /dev/null -w '%{http_code}' "http://localhost:$PORT/form.php")
  [[ $code == 403 ]] || fail "PHP page served without the key ($code)"
  click_close
  expect_exit_0
  start_player "$WORK/log2" /INI "$WORK/demo.ini" /START form.php
  wait_for 30 grep -q "^loaded: http://localhost:$PORT/form.php" "$WORK/log2" || fail "PHP form not loaded"
  click_close
  expect_exit_0
  ;;
*) fail "unknown case $CASE" ;;
esac
echo "ok: $CASE"
