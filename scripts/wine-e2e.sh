#!/usr/bin/env bash
# The Windows client, under wine, against the Linux reference server: every case runs through
# both clients, and the Windows output (text-mode line ends folded back to "\n") must equal the
# Linux output byte for byte, with a failing exit status on exactly the same cases. The data
# formats write the same bytes on both, carriage returns included: their cases are compared as
# they are (check_exact).
# Usage: scripts/wine-e2e.sh [LINUX_BUILD_DIR] [WINDOWS_BUILD_DIR]
set -uo pipefail
cd "$(dirname "$0")/.."
linux=${1:-build/release}
windows=${2:-build/windows}
for f in "$linux/kest_refserver" "$linux/kest_client" "$windows/kest_client.exe"; do
  [ -x "$f" ] || [ -f "$f" ] || { echo "missing $f: build the release and windows presets first" >&2; exit 2; }
done

work=$(mktemp -d)
server=""
trap '[ -z "$server" ] || { kill "$server" 2>/dev/null; wait "$server" 2>/dev/null; }; rm -rf "$work"' EXIT
. scripts/refserver-lib.sh
start_refserver "$linux/kest_refserver" "$work/server.out" || exit 2

table="$(sed -n '/^Project(Array(\[i=4\])/,/^\]);/p' scripts/demo.kest)"
types="Project(Array([i=3]), [b = bool(i), c = schr(-(i, 1)), u = uchr(i), s = ssht(i), us = usht(i),
  l = slng(i), ul = ulng(i), x = s128(i), ix = uidx(i), f = flt(/(dbl(i), 4)), d = decimal('-1.05'),
  m = money('3.10'), ch = char('é'), t = time('12:34:56'), ts = timestamp('2024-02-29 23:59:59'),
  ds = intervalds('-1 01:01:01'), ym = intervalym('2-03'), dt = date('2024-02-29')]);"

pass=0; fail=0
exact=""
fold_line_ends() { if [ -n "$exact" ]; then cat; else tr -d '\r'; fi; }
check_exact() { exact=1; check "$@"; exact=""; }
check() {  # check NAME STDIN ARGS...
  local name=$1 input=$2; shift 2
  local lin_status win_status
  printf '%s' "$input" | timeout 60 "$linux/kest_client" -h 127.0.0.1 -P "$port" "$@" \
    >"$work/lin" 2>/dev/null
  lin_status=$?
  printf '%s' "$input" | timeout 120 scripts/wine-run "$windows/kest_client.exe" \
    -h 127.0.0.1 -P "$port" "$@" 2>/dev/null | fold_line_ends >"$work/win"
  win_status=${PIPESTATUS[1]}
  # The usage text names the program as it was started, which differs by platform.
  sed -i 's/^Usage: .* \[OPTIONS\]$/Usage: PROGRAM [OPTIONS]/' "$work/lin" "$work/win"
  if cmp -s "$work/lin" "$work/win" && [ $((lin_status == 0)) -eq $((win_status == 0)) ]; then
    pass=$((pass + 1)); echo "ok   $name"
  else
    fail=$((fail + 1)); echo "FAIL $name (linux status $lin_status, windows status $win_status)"
    diff "$work/lin" "$work/win" | head -20
  fi
}

check "ascii table"        "" -n -e "$table"
check "unicode table"      "" -u -e "$table"
check "raw values"         "" -r -e "$table"
check "html table"         "" -o html -e "Select(Array([x=3, y=3]), <(x, y))"
# Through standard input: a Windows program's command line arrives in the ANSI code page, so
# text beyond ASCII ('é') is only byte-identical when it does not pass through argv.
check "every type"         "$types" -n
check "script from file"   "" -n -i -f scripts/demo.kest
check "script from stdin"  "Array([i=2]); Array([j=1]);" -n
check "server error"       "" -n -e "Project(Array([i=1]), [z = /(1, -(i, i))])"
check "parse error"        "" -n -e "Project(Array([i=1]),"
check "ping"               "" -p
check "unknown option"     "" -x
texts="Project(Array([i=16]), [i, s = substr(concat(str(i), 'a,b\"c\\n\\r\\t|\\\\ x'), 1, %(i, 13)),
  n = nullif(%(i, 3), 0), g = /(dbl(i), 7), m = money(i)]);"
check_exact "csv"          "$texts" --format csv --null NULL
check_exact "tsv"          "$texts" --format tsv
check_exact "json"         "$texts" --format json
check_exact "markdown"     "$types" --format markdown
check_exact "vertical"     "$texts" --format vertical
check_exact "bad format"   "" --format bogus
check "timing and quiet"   "" --timing --quiet --format csv -e "Array([i=2])"

echo "$pass passed, $fail failed"
[ "$fail" -eq 0 ]
