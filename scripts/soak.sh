#!/usr/bin/env bash
# One client session of many small queries against the reference server on 127.0.0.1, with the
# resident memory and open descriptors of the client (and of the server) sampled from /proc while
# it runs. Fails when the client fails, or when either count grows past its bound after the
# session has warmed up: a long script must run in flat memory and leak no descriptor.
#
#   bash scripts/soak.sh [QUERIES] [BUILD_DIR]     # default 1000000 and build/release
#
# Environment: SOAK_RSS_BOUND_KB (default 256) and SOAK_FD_BOUND (default 0), the growth
# allowed between the first sample after warm-up and the largest one after it; SOAK_WARMUP
# (default 0.5 seconds) and SOAK_INTERVAL (default 0.1 seconds) between samples. Linux only.
set -euo pipefail
cd "$(dirname "$0")/.."
queries="${1:-1000000}"
build="${2:-build/release}"
rss_bound="${SOAK_RSS_BOUND_KB:-256}"
fd_bound="${SOAK_FD_BOUND:-0}"
warmup="${SOAK_WARMUP:-0.5}"
interval="${SOAK_INTERVAL:-0.1}"

source scripts/refserver-lib.sh
work=$(mktemp -d)
server=""
client=""
cleanup() {
  [[ -n "$client" ]] && kill "$client" 2>/dev/null
  [[ -n "$server" ]] && kill "$server" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
start_refserver "$build/kest_refserver" "$work/server.out"

# The script is produced while it is read, so the soak itself holds nothing of it.
ZNLOG='default = warn' "$build/kest_client" -h 127.0.0.1 -P "$port" -r \
  < <(yes 'Array([i=0]);' | head -n "$queries") >/dev/null 2>"$work/client.err" &
client=$!

rss() { sed -n 's/^VmRSS:[[:space:]]*\([0-9]*\) kB/\1/p' "/proc/$1/status" 2>/dev/null; }
fds() { ls "/proc/$1/fd" 2>/dev/null | wc -l; }

start=$(date +%s.%N)
samples=0
base_rss="" base_fds="" max_rss=0 max_fds=0 srv_base="" srv_max=0
while kill -0 "$client" 2>/dev/null; do
  r=$(rss "$client") f=$(fds "$client") s=$(rss "$server")
  [[ -n "$r" && -n "$s" ]] || break
  if [[ -z "$base_rss" ]]; then
    if awk -v t="$(date +%s.%N)" -v s="$start" -v w="$warmup" 'BEGIN { exit !(t - s >= w) }'; then
      base_rss=$r base_fds=$f srv_base=$s
    fi
  else
    ((r > max_rss)) && max_rss=$r
    ((f > max_fds)) && max_fds=$f
    ((s > srv_max)) && srv_max=$s
    samples=$((samples + 1))
  fi
  sleep "$interval"
done
status=0
wait "$client" || status=$?
client=""
elapsed=$(awk -v t="$(date +%s.%N)" -v s="$start" 'BEGIN { printf "%.1f", t - s }')

echo "soak: $queries queries in ${elapsed}s, client status $status, $samples samples after warm-up"
echo "  client RSS ${base_rss:-?} kB after warm-up, at most $max_rss kB later (bound +$rss_bound)"
echo "  client descriptors ${base_fds:-?} after warm-up, at most $max_fds later (bound +$fd_bound)"
echo "  server RSS ${srv_base:-?} kB after warm-up, at most $srv_max kB later"
failed=0
if [[ $status -ne 0 ]]; then
  echo "soak: the client failed:" >&2
  tail -5 "$work/client.err" >&2
  failed=1
fi
if [[ -z "$base_rss" || $samples -lt 3 ]]; then
  echo "soak: too short to judge (use more queries)" >&2
  failed=1
elif ((max_rss > base_rss + rss_bound)); then
  echo "soak: the client's memory grew by $((max_rss - base_rss)) kB" >&2
  failed=1
elif ((max_fds > base_fds + fd_bound)); then
  echo "soak: the client's descriptors grew by $((max_fds - base_fds))" >&2
  failed=1
fi
exit "$failed"
