#!/usr/bin/env bash
# Peak resident memory of the client meeting large or wide answers from bench/hostile_peer.py on
# 127.0.0.1, one line per case: the case, the client's maximum resident set size in kB (from
# /usr/bin/time -v), its exit status and its last line of output.
#
#   bash bench/client-memory.sh [CLIENT] [CASE...]     # default build/release/kest_client, all
set -euo pipefail
cd "$(dirname "$0")/.."
client="${1:-build/release/kest_client}"
shift || true
cases=("$@")
[[ ${#cases[@]} -gt 0 ]] || cases=(big_frame partial_frame columns text_columns error_params)
work=$(mktemp -d)
peer=""
trap '[[ -n "$peer" ]] && kill "$peer" 2>/dev/null; rm -rf "$work"' EXIT

for c in "${cases[@]}"; do
  python3 bench/hostile_peer.py "$c" >"$work/peer.out" &
  peer=$!
  for _ in $(seq 100); do grep -q '^listening on ' "$work/peer.out" && break; sleep 0.1; done
  port=$(sed -n 's/^listening on .*:\([0-9]*\)$/\1/p' "$work/peer.out")
  status=0
  ZNLOG='default = error' /usr/bin/time -v "$client" -h 127.0.0.1 -P "$port" -r -e q \
    >"$work/out" 2>"$work/err" || status=$?
  wait "$peer" || true
  peer=""
  rss=$(sed -n 's/.*Maximum resident set size (kbytes): //p' "$work/err")
  last=$( (grep -v -e '^\s' -e '^Command' "$work/err" || true; tail -c 200 "$work/out") | tail -1 | cut -c1-80)
  printf '%-14s %8s kB  status %-3s %s\n' "$c" "$rss" "$status" "$last"
done
