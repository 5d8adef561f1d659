#!/usr/bin/env bash
# Static-file throughput of our server against nginx and lighttpd on the
# loopback: a 1 KiB and a 1 MiB file, one request per connection. Ours is
# lumetta-serve started on a settings file, as a user runs it: the GET
# dispatch with the access key and Host checks on (wrk sends the key's
# cookie to every server alike). An extra row, "ours-engine", serves each
# file through a registered engine instead. Then the system calls per
# request of lumetta-serve on the 1 KiB file (strace -f -c over 200).
#   bench/bench_static.sh [BUILD_DIR]   (default: build)
# BENCH_DURATION (wrk -d, default 5s) and BENCH_ROUNDS (default 3) tune it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
serve=$build/shell/lumetta-serve
engine=$build/bench/serve_file
for bin in "$serve" "$engine"; do
  [[ -x $bin ]] || { echo "bench: $bin missing; build the project first" >&2; exit 1; }
done
for tool in wrk nginx lighttpd; do
  command -v "$tool" >/dev/null || { echo "bench: $tool missing (scripts/setup.sh bench)" >&2; exit 1; }
done

duration=${BENCH_DURATION:-5s}
rounds=${BENCH_ROUNDS:-3}
work=$(mktemp -d /tmp/lumetta-bench.XXXXXX)
chmod 755 "$work"  # the peers may drop to an unprivileged user
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

mkdir -p "$work/www" "$work/nginx" "$work/lighttpd"
chmod 755 "$work/www"
head -c 1024 /dev/urandom >"$work/www/1k.bin"
head -c $((1024 * 1024)) /dev/urandom >"$work/www/1m.bin"

free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'
}
port_ours=$(free_port); port_engine=$(free_port); port_nginx=$(free_port); port_lighttpd=$(free_port)

# Ours as a user runs it; it prints the address that hands out the key.
printf '[Lumetta]\nHOMEDIR=%s\nPORT=%s\nPHP=0\n' "$work/www" "$port_ours" >"$work/Lumetta.ini"
"$serve" /INI "$work/Lumetta.ini" >"$work/ours.log" 2>&1 &
pids+=($!)
pid_ours=$!
# The same server code with one engine per file (SendHeader + SendFile).
"$engine" "$port_engine" "$work/www" 1k.bin 1m.bin >"$work/engine.log" 2>&1 &
pids+=($!)

cat >"$work/nginx/nginx.conf" <<CONF
worker_processes auto;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log;
daemon off;
events { worker_connections 1024; }
http {
  access_log off;
  sendfile on;
  keepalive_timeout 0;
  client_body_temp_path $work/nginx/body;
  proxy_temp_path $work/nginx/proxy;
  fastcgi_temp_path $work/nginx/fastcgi;
  uwsgi_temp_path $work/nginx/uwsgi;
  scgi_temp_path $work/nginx/scgi;
  types { application/octet-stream bin; }
  server {
    listen 127.0.0.1:$port_nginx;
    root $work/www;
  }
}
CONF
nginx -c "$work/nginx/nginx.conf" -p "$work/nginx" >/dev/null 2>&1 &
pids+=($!)

cat >"$work/lighttpd/lighttpd.conf" <<CONF
server.document-root = "$work/www"
server.bind = "127.0.0.1"
server.port = $port_lighttpd
server.errorlog = "$work/lighttpd/error.log"
server.max-keep-alive-requests = 0
server.network-backend = "sendfile"
mimetype.assign = (".bin" => "application/octet-stream")
CONF
lighttpd -D -f "$work/lighttpd/lighttpd.conf" >/dev/null 2>&1 &
pids+=($!)

# The key's cookie, from the address lumetta-serve printed.
for _ in $(seq 100); do grep -q '^http' "$work/ours.log" 2>/dev/null && break; sleep 0.1; done
key_url=$(grep -m1 '^http' "$work/ours.log" || true)
[[ -n $key_url ]] || { echo "bench: lumetta-serve printed no address" >&2; cat "$work/ours.log" >&2; exit 1; }
cookie=$(curl -s -o /dev/null -D - "$key_url" | awk -F'[:;] *' 'tolower($1)=="set-cookie" {print $2; exit}')
[[ -n $cookie ]] || { echo "bench: no key cookie from $key_url" >&2; exit 1; }

# Wait until all four answer.
for port in "$port_ours" "$port_engine" "$port_nginx" "$port_lighttpd"; do
  for _ in $(seq 100); do
    curl -sf -o /dev/null -H "Cookie: $cookie" "http://127.0.0.1:$port/1k.bin" && break
    sleep 0.1
  done
  curl -sf -o /dev/null -H "Cookie: $cookie" "http://127.0.0.1:$port/1k.bin" || { echo "bench: server on $port not answering" >&2; cat "$work"/*.log "$work"/*/error.log >&2 2>/dev/null; exit 1; }
done

# Requests per second and bytes per second (wrk's human units converted).
measure() {  # measure PORT PATH -> "rps bytes_per_sec"
  local out
  out=$(wrk -t2 -c32 -d"$duration" -H 'Connection: close' -H "Cookie: $cookie" "http://127.0.0.1:$1$2" 2>&1)
  local rps tr
  rps=$(awk '/^Requests\/sec:/ {print $2}' <<<"$out")
  tr=$(awk '/^Transfer\/sec:/ {print $2}' <<<"$out")
  python3 - "$rps" "$tr" <<'PY'
import re, sys
rps, tr = sys.argv[1], sys.argv[2]
m = re.match(r"([\d.]+)([KMG]?)B", tr or "0B")
mult = {"": 1, "K": 1024, "M": 1024**2, "G": 1024**3}[m.group(2)] if m else 0
print(float(rps or 0), float(m.group(1)) * mult if m else 0.0)
PY
}

# The machine may be shared: run the servers in turn, several rounds, and
# keep each one's best round so that a busy moment does not decide.
declare -A rps bps
for round in $(seq "$rounds"); do
  for file in 1k.bin 1m.bin; do
    for name in ours engine nginx lighttpd; do
      port_var=port_$name
      read -r r b < <(measure "${!port_var}" "/$file")
      key=$file.$name
      if [[ -z ${rps[$key]:-} ]] || python3 -c "import sys; sys.exit(0 if $r > ${rps[$key]} else 1)"; then
        rps[$key]=$r
        bps[$key]=$b
      fi
    done
  done
done

printf '%-10s %-12s %12s %14s\n' file server req/s MiB/s
for file in 1k.bin 1m.bin; do
  for name in ours engine nginx lighttpd; do
    label=$name
    [[ $name == engine ]] && label=ours-engine
    printf '%-10s %-12s %12.0f %14.1f\n' "$file" "$label" "${rps[$file.$name]}" \
      "$(python3 -c "print(${bps[$file.$name]}/1048576)")"
  done
done

echo
for file in 1k.bin 1m.bin; do
  for peer in nginx lighttpd; do
    python3 -c "
o_r, p_r = ${rps[$file.ours]}, ${rps[$file.$peer]}
o_b, p_b = ${bps[$file.ours]}, ${bps[$file.$peer]}
print('%-8s ours/%-9s req/s %.2f  transfer %.2f' % ('$file', '$peer', o_r / p_r if p_r else 0, o_b / p_b if p_b else 0))"
  done
done
for file in 1k.bin 1m.bin; do
  python3 -c "
best_r = max(${rps[$file.nginx]}, ${rps[$file.lighttpd]})
best_b = max(${bps[$file.nginx]}, ${bps[$file.lighttpd]})
print('%-8s ours/best      req/s %.2f  transfer %.2f' % ('$file', ${rps[$file.ours]} / best_r if best_r else 0, ${bps[$file.ours]} / best_b if best_b else 0))"
done

# System calls of lumetta-serve per 1 KiB request over fresh connections.
if command -v strace >/dev/null; then
  n=200
  strace -f -c -o "$work/strace.txt" $(ls /proc/"$pid_ours"/task | sed 's/^/-p /') 2>/dev/null &
  spid=$!
  sleep 1
  for _ in $(seq "$n"); do
    curl -s -o /dev/null -H 'Connection: close' -H "Cookie: $cookie" "http://127.0.0.1:$port_ours/1k.bin"
  done
  sleep 0.5
  kill -INT "$spid" 2>/dev/null || true
  wait "$spid" 2>/dev/null || true
  total=$(awk '$NF=="total" {print $4}' "$work/strace.txt" 2>/dev/null)
  echo
  if [[ -n $total ]]; then
    echo "lumetta-serve: $(python3 -c "print(round($total/$n, 1))") system calls per 1 KiB request"
  else
    echo "lumetta-serve: system calls not counted (strace could not attach)"
  fi
fi
