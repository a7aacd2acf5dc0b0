#!/usr/bin/env bash
# Builds the programs, starts the reference server on a free loopback port and runs a sample
# script through the client: a table of several types in ascii, the same in unicode, one result
# as html and one server error. Stops the server at the end, also when something fails.
set -euo pipefail
cd "$(dirname "$0")/.."
# Its own preset: the demo needs no test framework, only a compiler and CMake.
cmake --preset demo >/dev/null
cmake --build --preset demo -j2 --target kest_client kest_refserver >/dev/null
bin=build/demo

out=$(mktemp)
server=""
trap '[ -z "$server" ] || { kill "$server" 2>/dev/null; wait "$server" 2>/dev/null; }; rm -f "$out"' EXIT
. scripts/refserver-lib.sh
start_refserver "$bin/kest_refserver" "$out"
echo "reference server listening on 127.0.0.1:$port"

client() { "$bin/kest_client" -h 127.0.0.1 -P "$port" "$@" 2>/dev/null; }
table="$(sed -n '/^Project(Array(\[i=4\])/,/^\]);/p' scripts/demo.kest)"

echo; echo "== ascii"
client -n -e "$table"
echo; echo "== unicode"
client -u -e "$table"
echo; echo "== html"
client -o html -e "Select(Array([x=3, y=3]), <(x, y))"
echo; echo "== the whole script, errors ignored (the last query divides by zero)"
client -n -i -f scripts/demo.kest || echo "(the client reports the failed query with a non-zero status)"
