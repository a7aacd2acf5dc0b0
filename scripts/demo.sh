#!/usr/bin/env bash
# Starts the reference server on a free loopback port and runs a sample script through the
# client: a table of several types in ascii, the same in unicode, one result as html and one
# server error. Stops the server at the end, also when something fails.
#
#   bash scripts/demo.sh            # builds the two programs (build/demo) and runs those
#   bash scripts/demo.sh DIR        # runs DIR/kest_client and DIR/kest_refserver (e.g. /usr/bin)
#   bash scripts/demo.sh --path     # runs the kest_client and kest_refserver found on PATH
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
case "${1:-}" in
  "")
    cd "$root"
    # Its own preset: the demo needs no test framework, only a compiler and CMake.
    cmake --preset demo >/dev/null
    cmake --build --preset demo -j2 --target kest_client kest_refserver >/dev/null
    client_bin=build/demo/kest_client server_bin=build/demo/kest_refserver
    ;;
  --path)
    client_bin=$(command -v kest_client) || { echo "no kest_client on PATH" >&2; exit 2; }
    server_bin=$(command -v kest_refserver) || { echo "no kest_refserver on PATH" >&2; exit 2; }
    ;;
  -*)
    echo "usage: $0 [DIR | --path]" >&2
    exit 2
    ;;
  *)
    dir=$(cd "$1" && pwd) || exit 2
    client_bin=$dir/kest_client server_bin=$dir/kest_refserver
    ;;
esac
cd "$root"
for p in "$client_bin" "$server_bin"; do
  [ -x "$p" ] || { echo "missing program $p" >&2; exit 2; }
done
[ -z "${1:-}" ] || echo "programs: $client_bin, $server_bin"

out=$(mktemp)
server=""
trap '[ -z "$server" ] || { kill "$server" 2>/dev/null; wait "$server" 2>/dev/null; }; rm -f "$out"' EXIT
. scripts/refserver-lib.sh
start_refserver "$server_bin" "$out"
echo "reference server listening on 127.0.0.1:$port"

client() { "$client_bin" -h 127.0.0.1 -P "$port" "$@" 2>/dev/null; }
table="$(sed -n '/^Project(Array(\[i=4\])/,/^\]);/p' scripts/demo.kest)"

echo; echo "== ascii"
client -n -e "$table"
echo; echo "== unicode"
client -u -e "$table"
echo; echo "== html"
client -o html -e "Select(Array([x=3, y=3]), <(x, y))"
echo; echo "== the whole script, errors ignored (the last query divides by zero)"
client -n -i -f scripts/demo.kest || echo "(the client reports the failed query with a non-zero status)"
