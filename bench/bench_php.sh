#!/usr/bin/env bash
# Requests per second and latency for one small PHP page: our server with the
# CGI gateway, lighttpd with mod_cgi running the same php-cgi (one process
# per request, as ours), and PHP's built-in server (no process per request).
#   bench/bench_php.sh [build directory] [seconds] [connections]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
secs=${2:-10}
conns=${3:-4}
for tool in wrk php-cgi php lighttpd; do
  command -v "$tool" >/dev/null || { echo "bench_php: $tool is missing (scripts/setup.sh bench)"; exit 1; }
done
work=$(mktemp -d /tmp/lumetta-bench-XXXXXX)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# A bare server set up the way the player sets up its own.
serve=$build/bench/serve_php
if [[ ! -x $serve ]]; then
  [[ -f $build/liblumetta_core.a && -f $build/liblumetta_engines.a ]] || {
    echo "bench_php: build the project into $build first"; exit 1; }
  serve=$work/serve_php
  g++ -std=c++17 -O2 -Ilib -Iplatform -Iengines bench/serve_php.cpp \
    "$build/liblumetta_engines.a" "$build/liblumetta_core.a" -lpthread -ldl -o "$serve"
fi

mkdir -p "$work/www"
cat > "$work/www/page.php" <<'PHP'
<?php
$items = [];
for ($i = 0; $i < 20; $i++) $items[] = "<li>item $i</li>";
echo "<!doctype html><title>bench</title><ul>", implode('', $items), "</ul>\n";
PHP

port_ours=$((21000 + RANDOM % 2000))
port_light=$((port_ours + 1))
port_builtin=$((port_ours + 2))

"$serve" "$work/www" "$port_ours" & pids+=($!)

cat > "$work/lighttpd.conf" <<CONF
server.document-root = "$work/www"
server.bind = "127.0.0.1"
server.port = $port_light
server.modules = ("mod_cgi")
server.errorlog = "$work/lighttpd-error.log"
cgi.assign = (".php" => "$(command -v php-cgi)")
index-file.names = ("index.php")
CONF
lighttpd -D -f "$work/lighttpd.conf" & pids+=($!)

PHP_CLI_SERVER_WORKERS=1 php -S "127.0.0.1:$port_builtin" -t "$work/www" >/dev/null 2>&1 & pids+=($!)

for p in $port_ours $port_light $port_builtin; do
  for _ in $(seq 50); do curl -s -o /dev/null "http://127.0.0.1:$p/page.php" && break; sleep 0.1; done
  body=$(curl -s "http://127.0.0.1:$p/page.php")
  [[ $body == *"item 19"* ]] || { echo "bench_php: port $p does not serve the page: $body"; exit 1; }
done

# wrk's summary: requests/s, average and 99th-percentile latency in ms.
measure() {
  local out rps avg p99
  out=$(wrk -t2 -c"$conns" -d"${secs}s" --latency "http://127.0.0.1:$1/page.php")
  rps=$(awk '/^Requests\/sec/ {print $2}' <<<"$out")
  avg=$(awk '$1=="Latency" && NF>=4 {print $2; exit}' <<<"$out")
  p99=$(awk '$1=="99%" {print $2}' <<<"$out")
  echo "$rps $(to_ms "$avg") $(to_ms "$p99")"
}
to_ms() {
  awk -v v="$1" 'BEGIN { n = v + 0; if (v ~ /us$/) n /= 1000; else if (v ~ /ms$/) n += 0; else if (v ~ /s$/) n *= 1000; printf "%.2f", n }'
}

read -r rps_ours avg_ours p99_ours < <(measure "$port_ours")
read -r rps_light avg_light p99_light < <(measure "$port_light")
read -r rps_builtin avg_builtin p99_builtin < <(measure "$port_builtin")

printf '\nSmall PHP page, %s connections, %s s each (wrk)\n' "$conns" "$secs"
printf '%-28s %12s %12s %12s\n' "server" "req/s" "avg ms" "p99 ms"
printf '%-28s %12s %12s %12s\n' "Lumetta CGI gateway" "$rps_ours" "$avg_ours" "$p99_ours"
printf '%-28s %12s %12s %12s\n' "lighttpd mod_cgi + php-cgi" "$rps_light" "$avg_light" "$p99_light"
printf '%-28s %12s %12s %12s\n' "php -S (built-in)" "$rps_builtin" "$avg_builtin" "$p99_builtin"
awk -v a="$rps_ours" -v b="$rps_light" -v c="$rps_builtin" \
  'BEGIN { printf "\nratio req/s: Lumetta / lighttpd-cgi = %.2f, Lumetta / php -S = %.2f\n", a / b, a / c }'
