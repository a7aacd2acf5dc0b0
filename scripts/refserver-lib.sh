# Sourced by the scripts that run the client against the reference server.
#
#   start_refserver BIN OUTFILE
#
# starts BIN (kest_refserver) on a free port of 127.0.0.1, its standard output in OUTFILE, waits
# at most ten seconds for its "listening on" line, and sets `server` (the process id, set before
# the wait so that the caller's exit trap can stop it) and `port`. Returns 1 when no port shows.
start_refserver() {
  "$1" -P 0 -h 127.0.0.1 >"$2" 2>/dev/null &
  server=$!
  for _ in $(seq 100); do grep -q '^listening on ' "$2" && break; sleep 0.1; done
  port=$(sed -n 's/^listening on .*:\([0-9]*\)$/\1/p' "$2")
  [ -n "$port" ] || { echo "the reference server did not start" >&2; return 1; }
}
