#!/usr/bin/env bash
# What one small PHP page costs, counted rather than timed, so that the
# figures hold on a busy machine: the instructions lumetta-serve runs per
# request (callgrind, the server process alone) and the system calls per
# request of the server and of its php-cgi workers (strace -f -c). Requests
# are sent one after another, each on a connection of its own, after a
# warm-up; the counters cover only the measured ones.
#   bench/php_costs.sh [build directory] [requests]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
n=${2:-1000}
for tool in valgrind callgrind_control callgrind_annotate strace curl php-cgi; do
  command -v "$tool" >/dev/null || { echo "php_costs: $tool is missing (scripts/setup.sh bench)"; exit 1; }
done
serve=$build/shell/lumetta-serve
[[ -x $serve ]] || { echo "php_costs: build lumetta-serve into $build first"; exit 1; }
work=$(mktemp -d /tmp/lumetta-costs-XXXXXX)
pid=""
cleanup() {
  [[ -n $pid ]] && kill "$pid" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

mkdir -p "$work/www"
cp "$(dirname "$0")/small_page.php" "$work/www/page.php"

# start [WRAPPER...]: lumetta-serve with two workers, under the wrapper;
# sets pid, url and cookie.
start() {
  printf '[Lumetta]\nHOMEDIR=%s\nPORT=%s\nPHP=1\nPHP_WORKERS=2\n' "$work/www" $((23000 + RANDOM % 2000)) > "$work/s.ini"
  : > "$work/out"
  "$@" "$serve" /INI "$work/s.ini" > "$work/out" 2> "$work/err" & pid=$!
  for _ in $(seq 300); do grep -qs '^http://' "$work/out" && break; sleep 0.1; done
  url=$(head -1 "$work/out")
  [[ -n $url ]] || { echo "php_costs: the server did not start"; cat "$work/err"; exit 1; }
  local key
  key=$(curl -sS -D - -o /dev/null "$url" | tr -d '\r' | sed -n 's/^Set-Cookie: lumetta_key=\([0-9a-f]*\);.*/\1/Ip')
  cookie="lumetta_key=$key"
  url=$(sed -E 's#^(http://[^/]+).*#\1#' <<<"$url")
}
# requests COUNT: sequential page requests; fails unless each is the page.
requests() {
  for _ in $(seq "$1"); do
    curl -sS -b "$cookie" "$url/page.php" | grep -q '</ul>' || { echo "php_costs: a request failed"; exit 1; }
  done
}
stop() {
  kill "$pid"
  wait "$pid" 2>/dev/null || true
  pid=""
}

start valgrind --tool=callgrind --callgrind-out-file="$work/cg.out"
requests 100
callgrind_control -z "$pid" >/dev/null 2>&1
requests "$n"
callgrind_control -d "$pid" >/dev/null 2>&1
stop
# The dump after the zeroing holds the measured requests only.
ir=$(callgrind_annotate "$work/cg.out.1" 2>/dev/null | awk '/PROGRAM TOTALS/ {gsub(",", "", $1); print $1}')

start
requests 100
workers=()
for w in $(pgrep -P "$pid" php-cgi); do workers+=(-p "$w"); done
strace -f -c -o "$work/server.st" -p "$pid" 2>/dev/null & tracer1=$!
strace -f -c -o "$work/workers.st" "${workers[@]}" 2>/dev/null & tracer2=$!
sleep 1  # the tracers attach
requests "$n"
sleep 0.5
kill -INT "$tracer1" "$tracer2"
wait "$tracer1" "$tracer2" 2>/dev/null || true
stop
calls() { awk '$NF == "total" { print $4 }' "$1"; }

printf 'small PHP page, %s sequential requests, two workers\n' "$n"
awk -v ir="$ir" -v n="$n" -v s="$(calls "$work/server.st")" -v w="$(calls "$work/workers.st")" 'BEGIN {
  printf "instructions per request, lumetta-serve: %.0f\n", ir / n
  printf "system calls per request, lumetta-serve: %.1f\n", s / n
  printf "system calls per request, php-cgi workers: %.1f\n", w / n
}'
