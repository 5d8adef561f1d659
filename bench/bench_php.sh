#!/usr/bin/env bash
# Requests per second and latency for one small PHP page, side by side:
# lumetta-serve with one php-cgi per request (PHP_WORKERS=0) and with two
# workers (PHP_WORKERS=2), lighttpd with mod_fastcgi and two children of the
# same php-cgi, and PHP's built-in server. Every server gets the same wrk
# command, one request per connection (ours closes after each reply anyway),
# and the access key's cookie. Several rounds; the best of each is kept,
# since the machine may be shared.
#   bench/bench_php.sh [build directory] [seconds] [connections] [rounds] [page]
# page: a PHP file to serve instead of the small page, with its folder as the
# document root (e.g. a DokuWiki page: see tests/gui/php_apps.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
secs=${2:-5}
conns=${3:-4}
rounds=${4:-3}
page_file=${5:-}
for tool in wrk php-cgi php lighttpd curl; do
  command -v "$tool" >/dev/null || { echo "bench_php: $tool is missing (scripts/setup.sh bench)"; exit 1; }
done
serve=$build/shell/lumetta-serve
[[ -x $serve ]] || { echo "bench_php: build lumetta-serve into $build first"; exit 1; }
work=$(mktemp -d /tmp/lumetta-bench-XXXXXX)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

if [[ -n $page_file ]]; then
  root=$(cd "$(dirname "$page_file")" && pwd)
  page=/$(basename "$page_file")
else
  root=$work/www
  page=/page.php
  mkdir -p "$root"
  cp "$(dirname "$0")/small_page.php" "$root/page.php"
fi

base=$((21000 + RANDOM % 2000))
port_w0=$base port_w2=$((base + 1)) port_light=$((base + 2)) port_builtin=$((base + 3))

# lumetta-serve NAME PORT WORKERS: started from a settings file of its own;
# its key address is opened once for the cookie.
declare -A cookie=([light]="lumetta_key=none" [builtin]="lumetta_key=none")
start_lumetta() {
  local name=$1 port=$2 workers=$3
  printf '[Lumetta]\nHOMEDIR=%s\nPORT=%s\nPHP=1\nPHP_WORKERS=%s\n' "$root" "$port" "$workers" > "$work/$name.ini"
  "$serve" /INI "$work/$name.ini" > "$work/$name.out" 2> "$work/$name.err" & pids+=($!)
  for _ in $(seq 100); do grep -qs '^http://' "$work/$name.out" && break; sleep 0.1; done
  local url key
  url=$(head -1 "$work/$name.out")
  key=$(curl -sS -D - -o /dev/null "$url" | tr -d '\r' | sed -n 's/^Set-Cookie: lumetta_key=\([0-9a-f]*\);.*/\1/Ip')
  [[ -n $key ]] || { echo "bench_php: no access key from $name ($url)"; cat "$work/$name.err"; exit 1; }
  cookie[$name]="lumetta_key=$key"
}
start_lumetta w0 "$port_w0" 0
start_lumetta w2 "$port_w2" 2

cat > "$work/lighttpd.conf" <<CONF
server.document-root = "$root"
server.bind = "127.0.0.1"
server.port = $port_light
server.modules = ("mod_fastcgi")
server.errorlog = "$work/lighttpd-error.log"
server.max-keep-alive-requests = 0
index-file.names = ("index.php")
fastcgi.server = (".php" => ((
  "socket" => "$work/php.sock",
  "bin-path" => "$(command -v php-cgi)",
  "max-procs" => 1,
  "bin-environment" => ("PHP_FCGI_CHILDREN" => "2", "PHP_FCGI_MAX_REQUESTS" => "10000")
)))
CONF
lighttpd -D -f "$work/lighttpd.conf" & pids+=($!)

PHP_CLI_SERVER_WORKERS=1 php -S "127.0.0.1:$port_builtin" -t "$root" >/dev/null 2>&1 & pids+=($!)

names=(w0 w2 light builtin)
declare -A port=([w0]=$port_w0 [w2]=$port_w2 [light]=$port_light [builtin]=$port_builtin)
declare -A label=([w0]="Lumetta, PHP_WORKERS=0" [w2]="Lumetta, PHP_WORKERS=2"
  [light]="lighttpd + FastCGI (2)" [builtin]="php -S (built-in)")
first=""
for n in "${names[@]}"; do
  p=${port[$n]}
  for _ in $(seq 50); do curl -s -o /dev/null -b "${cookie[$n]}" "http://127.0.0.1:$p$page" && break; sleep 0.1; done
  body=$(curl -s -b "${cookie[$n]}" "http://127.0.0.1:$p$page")
  [[ ${#body} -gt 100 ]] || { echo "bench_php: $n does not serve $page: $body"; exit 1; }
  # The same page everywhere (a wiki's page may differ in tokens; the size tells enough).
  [[ -z $first || ${#body} -gt $(( ${#first} / 2 )) ]] || { echo "bench_php: $n serves another page"; exit 1; }
  first=${first:-$body}
done

to_ms() {
  awk -v v="$1" 'BEGIN { n = v + 0; if (v ~ /us$/) n /= 1000; else if (v ~ /ms$/) n += 0; else if (v ~ /s$/) n *= 1000; printf "%.3f", n }'
}
# wrk's summary: requests/s, average and 99th-percentile latency in ms.
# measure PORT COOKIE. A reply that ends with the connection (ours, php -S)
# is counted and also shows as a read error in wrk's summary: not reported.
measure() {
  local out rps avg p99
  out=$(wrk -t2 -c"$conns" -d"${secs}s" --latency -H "Connection: close" -H "Cookie: $2" \
    "http://127.0.0.1:$1$page")
  # Errors are fast: a server that refuses must not look quick.
  if grep -qE "Non-2xx|connect [1-9]|timeout [1-9]" <<<"$out"; then
    echo "bench_php: port $1: $(grep -E "Non-2xx|Socket errors" <<<"$out" | tr -s ' ')" >&2
  fi
  rps=$(awk '/^Requests\/sec/ {print $2}' <<<"$out")
  avg=$(awk '$1=="Latency" && NF>=4 {print $2; exit}' <<<"$out")
  p99=$(awk '$1=="99%" {print $2}' <<<"$out")
  echo "$rps $(to_ms "$avg") $(to_ms "$p99")"
}

declare -A rps avg p99
for n in "${names[@]}"; do rps[$n]=0 avg[$n]=0 p99[$n]=0; done
for r in $(seq "$rounds"); do
  for n in "${names[@]}"; do
    read -r x a q < <(measure "${port[$n]}" "${cookie[$n]}")
    # Best round by req/s, its latencies with it.
    if awk -v x="$x" -v b="${rps[$n]}" 'BEGIN { exit !(x > b) }'; then rps[$n]=$x avg[$n]=$a p99[$n]=$q; fi
  done
  echo "round $r of $rounds done (load: $(cut -d' ' -f1-3 /proc/loadavg))" >&2
done

printf '\nPHP page %s, %s connections, one request per connection, best of %s rounds of %s s (wrk)\n' \
  "$page" "$conns" "$rounds" "$secs"
printf '%-26s %10s %9s %9s %14s %14s\n' "server" "req/s" "avg ms" "p99 ms" "req/s vs -S" "p99 vs -S"
for n in "${names[@]}"; do
  awk -v l="${label[$n]}" -v x="${rps[$n]}" -v a="${avg[$n]}" -v q="${p99[$n]}" \
    -v bx="${rps[builtin]}" -v bq="${p99[builtin]}" \
    'BEGIN { printf "%-26s %10.0f %9.3f %9.3f %13.2fx %13.2fx\n", l, x, a, q, x / bx, q / bq }'
done
awk -v w="${rps[w2]}" -v z="${rps[w0]}" -v l="${rps[light]}" -v b="${rps[builtin]}" -v wq="${p99[w2]}" -v bq="${p99[builtin]}" \
  'BEGIN {
     printf "\nworkers: %.2fx php -S req/s (target >= 1.0), p99 %.2fx php -S (target <= 1.5), %.2fx lighttpd+FastCGI req/s (target >= 0.9), %.1fx PHP_WORKERS=0\n",
       w / b, wq / bq, w / l, w / z
   }'
