#!/usr/bin/env bash
# Real PHP applications from Debian's packages, copied into an application
# folder as someone shipping them would, served by lumetta-serve and driven
# through a user's flow with curl and a cookie jar:
#   php_apps.sh BIN_DIR SRC_DIR CASE        CASE: dokuwiki | phpliteadmin
# Sourced with CASE "functions" it only defines make_dokuwiki and
# make_phpliteadmin (used to show the applications in the player).
BIN_DIR=$1 SRC_DIR=$2 CASE=$3

# make_dokuwiki DIR: the wiki, its settings and its data in one folder, with
# a user "tester" (password "secret123") in the admin group.
make_dokuwiki() {
  local app=$1 www=$1/www
  mkdir -p "$app"
  cp -rL /usr/share/dokuwiki "$www"
  cp -rL /etc/dokuwiki "$www/conf"
  cp -r /var/lib/dokuwiki/data "$www/data"
  # Debian's preload points at /etc and /var; the wiki's own defaults find
  # conf/ and data/ beside it.
  echo '<?php' > "$www/inc/preload.php"
  cat >> "$www/conf/local.php" <<'PHP'
$conf['savedir'] = './data';
$conf['title'] = 'Lumetta Wiki';
$conf['send404'] = 1;
$conf['userewrite'] = 2;
PHP
  printf 'tester:%s:Test User:tester@localhost:admin,user\n' \
    "$(printf secret123 | md5sum | cut -d' ' -f1)" > "$www/conf/users.auth.php"
  printf '[Lumetta]\nTITLE=Lumetta Wiki\nHOMEDIR=www\nPHP=1\nCLIENT_WIDTH=1000\nCLIENT_HEIGHT=700\n' \
    > "$app/Lumetta.ini"
}

# make_phpliteadmin DIR: the database tool as the start page, databases in
# www/db, password "lumetta-pass".
make_phpliteadmin() {
  local app=$1 www=$1/www
  mkdir -p "$www/db"
  cp -rL /usr/share/phpliteadmin/. "$www/"
  mv "$www/phpliteadmin.php" "$www/index.php"
  printf '<?php\n$password = "lumetta-pass";\n$directory = "./db";\n' > "$www/phpliteadmin.config.php"
  printf '[Lumetta]\nTITLE=Lumetta SQLite\nHOMEDIR=www\nPHP=1\nCLIENT_WIDTH=1000\nCLIENT_HEIGHT=700\n' \
    > "$app/Lumetta.ini"
}

[[ $CASE == functions ]] && return 0

source "$SRC_DIR/tests/gui/common.sh"
SERVE=("$BIN_DIR/lumetta-serve")
# The Windows build's PHP is the php-cgi.exe stand-in that
# scripts/wine-tests.sh puts on wine's search path.
if [[ -e $SERVE.exe ]]; then
  [[ -x ${LUMETTA_PHP_STANDIN:-}/php-cgi.exe ]] || skip "no PHP interpreter for Windows on this machine"
  export WINEDEBUG=-all
  SERVE=(timeout 120 wine "$SERVE.exe")
fi
command -v curl >/dev/null || skip "curl missing"
command -v php-cgi >/dev/null || skip "php-cgi missing"

# page URL [CURL ARGS...]: the body into $WORK/page, the status code into CODE.
page() {
  local url=$1; shift
  CODE=$(curl -sS -b "$JAR" -c "$JAR" -o "$WORK/page" -w '%{http_code}' "$@" "$URL$url") || fail "no reply for $url"
}
has() { grep -q -- "$1" "$WORK/page" || fail "$2 (status $CODE)"; }
# hidden NAME: the value of the first hidden field NAME of the last page.
hidden() {
  grep -o "name=[\"']$1[\"'] value=[\"'][^\"']*" "$WORK/page" | head -1 | sed "s/.*value=[\"']//"
}

# serve_app DIR: starts lumetta-serve in the application folder.
serve_app() {
  local port
  port=$(free_port)
  sed -i "s/^PORT=.*//" "$1/Lumetta.ini" && echo "PORT=$port" >> "$1/Lumetta.ini"
  (cd "$1" && exec "${SERVE[@]}" /INI Lumetta.ini > "$WORK/out" 2> "$WORK/err") &
  PIDS+=($!)
  wait_for 20 grep -qs '^http://' "$WORK/out" || { cat "$WORK/err" >&2; fail "no start address"; }
  URL=$(head -1 "$WORK/out" | tr -d '\r')
  open_key
  URL=${URL%%/\?*}
}

case $CASE in
dokuwiki)
  [[ -d /usr/share/dokuwiki && -d /etc/dokuwiki ]] || skip "package dokuwiki not installed"
  make_dokuwiki "$WORK/wiki"
  serve_app "$WORK/wiki"
  # A page that does not exist: the wiki says so with a 404, after its
  # other headers.
  page "/doku.php/no_such_page"
  [[ $CODE == 404 ]] || fail "missing page gave $CODE"
  # Log in (the form's target, the session cookie, the redirect).
  page "/doku.php/start?do=login"
  has 'id="dw__login"' "login form"
  page "/doku.php/start" --data-urlencode u=tester --data-urlencode p=secret123 \
    -d "sectok=$(hidden sectok)&id=start&do=login"
  [[ $CODE == 302 ]] || fail "login gave $CODE"
  # Create a page through the editor and read it back.
  page "/doku.php/playground:lumetta?do=edit"
  has 'id="dw__editform"' "editor (not logged in?)"
  page "/doku.php/playground:lumetta?do=edit" \
    -d "sectok=$(hidden sectok)&id=playground:lumetta&rev=0&date=&prefix=.&suffix=&target=section" \
    -d "changecheck=$(hidden changecheck)" --data-urlencode "summary=created by the test" \
    --data-urlencode $'wikitext======= Made by Lumetta ======\nHello from the **integration test**.' \
    --data-urlencode "do[save]=Save"
  [[ $CODE == 302 ]] || fail "save gave $CODE"
  page "/doku.php/playground:lumetta"
  [[ $CODE == 200 ]] || fail "saved page gave $CODE"
  has '>Made by Lumetta</h1>' "heading of the saved page"
  has '<strong>integration test</strong>' "text of the saved page"
  [[ -f $WORK/wiki/www/data/pages/playground/lumetta.txt ]] || fail "page file not written"
  page "/doku.php/playground:lumetta?do=revisions"
  has 'created by the test' "revision summary"
  ;;
phpliteadmin)
  [[ -f /usr/share/phpliteadmin/phpliteadmin.php ]] || skip "package phpliteadmin not installed"
  php-cgi -m | grep -qx pdo_sqlite || skip "php-sqlite3 not installed"
  make_phpliteadmin "$WORK/lite"
  serve_app "$WORK/lite"
  page "/"
  has "name='password'" "login form"
  # The login form posts to "?", the application's folder itself.
  page "/?" -d "token=$(hidden token)&password=lumetta-pass&remember=yes&login=true"
  [[ $CODE == 302 ]] || fail "login gave $CODE"
  page "/"
  has "name='new_dbname'" "start page after login"
  page "/?fulltexts=0&numRows=30" -d "token=$(hidden token)&new_dbname=notes"
  [[ -f $WORK/lite/www/db/notes ]] || fail "database not created"
  db='database=.%2Fdb%2Fnotes'
  page "/?$db&view=sql"
  page "/?$db&fulltexts=0&numRows=30&view=sql" -d "token=$(hidden token)&delimiter=%3B&query=Go" \
    --data-urlencode "queryval=CREATE TABLE note (id INTEGER PRIMARY KEY, body TEXT); INSERT INTO note (body) VALUES ('written through Lumetta');"
  [[ $CODE == 200 ]] || fail "SQL page gave $CODE"
  page "/?$db&table=note&action=row_view"
  has 'written through Lumetta' "row read back"
  page "/no-such-page.php"
  [[ $CODE == 404 ]] || fail "missing page gave $CODE"
  ;;
*) fail "unknown case $CASE" ;;
esac
echo "ok: $CASE"
