#!/usr/bin/env bash
# kest_client beside psql, in one run: client CPU per million rows and peak memory for a wide
# result in raw, aligned and csv output, the same at 1 and 100 million rows, whole-process
# latency of one trivial query, and many small queries in one session.
#
#   bench/compare.sh [--quick]
#
# kest_client reads from kest_refserver, psql from a private PostgreSQL 15 cluster that this
# script creates in a temporary directory (listening on 127.0.0.1 and a socket directory inside
# the temporary directory, on a free port) and removes at the end, also on failure or interrupt.
# Needs: postgresql-15, postgresql-client-15, hyperfine, a C++ compiler, cmake and ninja. Installs
# nothing. --quick divides every count by 100 to try the script out; its figures are not a
# comparison.
set -euo pipefail
cd "$(dirname "$0")/.."

PG_BIN=${PG_BIN:-/usr/lib/postgresql/15/bin}
ROWS_SMALL=1000000 ROWS_MAIN=10000000 ROWS_BIG=100000000
PINGS=300 SMALL_QUERIES=100000
if [ "${1:-}" = "--quick" ]; then
  ROWS_SMALL=10000 ROWS_MAIN=100000 ROWS_BIG=1000000 PINGS=30 SMALL_QUERIES=1000
elif [ $# -gt 0 ]; then
  sed -n '2,/^set -e/p' "$0" | sed '$d; s/^# \{0,1\}//' >&2
  exit 2
fi

# ---------------------------------------------------------------------------- what is needed
missing=()
for tool in initdb pg_ctl postgres psql; do
  [ -x "$PG_BIN/$tool" ] || missing+=("$PG_BIN/$tool")
done
for tool in hyperfine cmake ninja "${CXX:-c++}" awk; do
  command -v "$tool" >/dev/null || missing+=("$tool")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "missing: ${missing[*]}" >&2
  echo "on Debian: apt-get install postgresql-15 postgresql-client-15 hyperfine" >&2
  exit 1
fi

started=$(date +%s)
echo "building kest_client and kest_refserver (release preset)" >&2
cmake --preset release >/dev/null
cmake --build --preset release -j2 --target kest_client kest_refserver >/dev/null
BIN=build/release

# ---------------------------------------------------------------------------- private area
tmp=$(mktemp -d /tmp/kest-compare.XXXXXX)
chmod 755 "$tmp"
server_pid=""
pg_started=""
as_pg() { if [ "$(id -u)" -eq 0 ]; then runuser -u nobody -- "$@"; else "$@"; fi; }
cleanup() {
  set +e
  [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null && wait "$server_pid" 2>/dev/null
  [ -n "$pg_started" ] && as_pg "$PG_BIN/pg_ctl" -D "$tmp/pg" -m immediate -w stop >/dev/null 2>&1
  rm -rf "$tmp"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

"${CXX:-c++}" -O2 -std=c++20 -o "$tmp/rusage" bench/compare/rusage.cpp

# The reference server picks its own free port and says which.
. scripts/refserver-lib.sh
start_refserver "$BIN/kest_refserver" "$tmp/refserver.out" || { server_pid=$server; exit 1; }
server_pid=$server kest_port=$port

# PostgreSQL: initdb refuses root, so the cluster belongs to "nobody" when run as root.
mkdir -p "$tmp/pg" "$tmp/sock"
[ "$(id -u)" -eq 0 ] && chown nobody "$tmp/pg" "$tmp/sock"
as_pg "$PG_BIN/initdb" -D "$tmp/pg" -U bench -A trust -E UTF8 --locale=C --no-sync \
  >"$tmp/initdb.log" 2>&1 || { cat "$tmp/initdb.log" >&2; exit 1; }
pg_port=""
for _ in 1 2 3 4 5; do  # a random port nobody listens on; another one if the start fails
  port=$((20000 + RANDOM % 40000))
  (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && continue
  if as_pg "$PG_BIN/pg_ctl" -D "$tmp/pg" -l "$tmp/pg/server.log" -w -t 60 \
      -o "-c listen_addresses=127.0.0.1 -p $port -c unix_socket_directories=$tmp/sock" \
      start >/dev/null 2>&1; then
    pg_port=$port pg_started=1
    break
  fi
done
[ -n "$pg_port" ] || { echo "PostgreSQL did not start" >&2; cat "$tmp/pg/server.log" >&2; exit 1; }

kest() { "$BIN/kest_client" -h 127.0.0.1 -P "$kest_port" "$@"; }
psql_() { "$PG_BIN/psql" -X -q -h 127.0.0.1 -p "$pg_port" -U bench -d postgres "$@"; }

# ---------------------------------------------------------------------------- the same values
# i from 0: integer i, bigint 3i, double i/7, numeric(12,2) 1.25i, a date cycling over 100
# years from 2023-03-01 (day number 738945), and a text of 5 to 20 characters: the digits of i
# followed by letters, cut to 5 + i % 16.
kest_rows() {
  echo "Project(Array([i=$1]), [a = i, b = *(slng(i), 3), c = /(dbl(i), 7)," \
    "d = decimal(*(decimal('1.25'), i), 12, 2), e = date(+(%(i, 36500), 738945))," \
    "f = substr(concat(str(i), 'abcdefghijklmnopqrst'), 1, +(5, %(i, 16)))])"
}
sql_rows() {
  echo "select i as a, i::bigint * 3 as b, i::float8 / 7 as c, (1.25 * i)::numeric(12,2) as d," \
    "date '2023-03-01' + i % 36500 as e," \
    "left(i::text || 'abcdefghijklmnopqrst', 5 + i % 16) as f" \
    "from generate_series(0, $(($1 - 1))) as s(i)"
}

# Both sides' raw rows for the first 2000 values must agree: exactly, except the double, which
# each side prints to its own number of digits.
kest -r -e "$(kest_rows 2000)" >"$tmp/kest.txt" 2>/dev/null
psql_ -A -t -c "$(sql_rows 2000)" >"$tmp/psql.txt"
awk -F'|' 'NR == FNR { line[FNR] = $0; n = FNR; next }
  { split(line[FNR], k, "|")
    d = k[3] - $3; if (d < 0) d = -d
    if (NF != 6 || k[1] != $1 || k[2] != $2 || k[4] != $4 || k[5] != $5 || k[6] != $6 ||
        d > 1e-14 * ($3 < 1 ? 1 : $3)) { print "row " FNR ": " line[FNR] " vs " $0; bad = 1; exit }
    m = FNR }
  END { if (!bad && m != n) { print "row counts " n " vs " m; bad = 1 }; exit bad }' \
  "$tmp/kest.txt" "$tmp/psql.txt" >&2 || { echo "the two sides produce different values" >&2; exit 1; }
echo "same values on both sides (2000 rows checked)" >&2
# csv: the header and the rows of both sides, none of which needs quotes in this workload, are
# the raw rows with "," for "|" (kest_client's csv is checked against its raw rows, which were
# checked against psql's above).
kest --format csv -e "$(kest_rows 2000)" >"$tmp/kest.csv" 2>/dev/null
psql_ --csv -c "$(sql_rows 2000)" >"$tmp/psql.csv"
{ echo "a,b,c,d,e,f"; tr '|' ',' <"$tmp/kest.txt"; } | cmp -s - "$tmp/kest.csv" &&
  [ "$(head -1 "$tmp/psql.csv")" = "a,b,c,d,e,f" ] && [ "$(wc -l <"$tmp/psql.csv")" -eq 2001 ] ||
  { echo "the csv of the two sides does not hold the raw rows" >&2; exit 1; }

# ---------------------------------------------------------------------------- measurements
# measure NAME COMMAND...: "user sys maxrss_kib wall" of the command alone, stdout to /dev/null.
# best_of_two NAME COMMAND...: the same, run twice, keeping the run with less CPU time; both
# sides get it, so that a burst of other work on the shared machine spoils neither figure.
declare -A R
measure() {
  local name=$1; shift
  R[$name]=$("$tmp/rusage" -e "$tmp/$name.err" -- "$@") || {
    echo "$name failed:" >&2; tail -5 "$tmp/$name.err" >&2; exit 1; }
  echo "  $name: ${R[$name]}" >&2
}
best_of_two() {
  local name=$1; shift
  measure "$name" "$@"
  local first=${R[$name]}
  measure "$name" "$@"
  if awk -v a="$first" -v b="${R[$name]}" \
      'BEGIN { split(a, x, " "); split(b, y, " "); exit !(x[1] + x[2] < y[1] + y[2]) }'; then
    R[$name]=$first
  fi
}
cpu() { awk -v r="${R[$1]}" 'BEGIN { split(r, f, " "); print f[1] + f[2] }'; }
rss_mib() { awk -v r="${R[$1]}" 'BEGIN { split(r, f, " "); printf "%.1f", f[3] / 1024 }'; }
wall() { awk -v r="${R[$1]}" 'BEGIN { split(r, f, " "); print f[4] }'; }
per_mrow() { awk -v c="$(cpu "$1")" -v n="$2" 'BEGIN { printf "%.3f", c / (n / 1e6) }'; }

echo "throughput and memory (client CPU and peak RSS)" >&2
for rows in $ROWS_SMALL $ROWS_MAIN; do
  best_of_two "kest_raw_$rows" "$BIN/kest_client" -h 127.0.0.1 -P "$kest_port" -r -e "$(kest_rows "$rows")"
  best_of_two "psql_raw_$rows" "$PG_BIN/psql" -X -q -h 127.0.0.1 -p "$pg_port" -U bench -d postgres \
    -A -t -c "$(sql_rows "$rows")"
  best_of_two "kest_ascii_$rows" "$BIN/kest_client" -h 127.0.0.1 -P "$kest_port" -o ascii \
    -e "$(kest_rows "$rows")"
  best_of_two "psql_aligned_$rows" "$PG_BIN/psql" -X -q -h 127.0.0.1 -p "$pg_port" -U bench \
    -d postgres -c "$(sql_rows "$rows")"
  best_of_two "kest_csv_$rows" "$BIN/kest_client" -h 127.0.0.1 -P "$kest_port" --format csv \
    -e "$(kest_rows "$rows")"
  best_of_two "psql_csv_$rows" "$PG_BIN/psql" -X -q -h 127.0.0.1 -p "$pg_port" -U bench \
    -d postgres --csv -c "$(sql_rows "$rows")"
done
measure "kest_raw_$ROWS_BIG" "$BIN/kest_client" -h 127.0.0.1 -P "$kest_port" -r \
  -e "$(kest_rows "$ROWS_BIG")"
measure "kest_ascii_$ROWS_BIG" "$BIN/kest_client" -h 127.0.0.1 -P "$kest_port" -o ascii \
  -e "$(kest_rows "$ROWS_BIG")"
measure "kest_csv_$ROWS_BIG" "$BIN/kest_client" -h 127.0.0.1 -P "$kest_port" --format csv \
  -e "$(kest_rows "$ROWS_BIG")"

echo "latency (hyperfine, $PINGS runs each)" >&2
hyperfine -N --warmup 10 --runs "$PINGS" --style none --export-csv "$tmp/latency.csv" \
  "$BIN/kest_client -h 127.0.0.1 -P $kest_port -p" \
  "$PG_BIN/psql -X -q -h 127.0.0.1 -p $pg_port -U bench -d postgres -c 'select 1'" \
  "/bin/true" \
  >"$tmp/hyperfine.log" 2>&1 || { cat "$tmp/hyperfine.log" >&2; exit 1; }
median_ms() { awk -F, -v row="$1" 'NR == row + 1 { printf "%.2f", $4 * 1000 }' "$tmp/latency.csv"; }
kest_ping=$(median_ms 1) psql_ping=$(median_ms 2) true_start=$(median_ms 3)
echo "  kest_client -p: $kest_ping ms, psql -c 'select 1': $psql_ping ms," \
  "/bin/true: $true_start ms (medians)" >&2

echo "many small queries ($SMALL_QUERIES in one session)" >&2
for _ in $(seq "$SMALL_QUERIES"); do echo "Array([i=1]);"; done >"$tmp/small.kest"
for _ in $(seq "$SMALL_QUERIES"); do echo "select 1;"; done >"$tmp/small.sql"
server_ticks() { awk '{ print $14 + $15 }' "/proc/$server_pid/stat"; }
ticks_before=$(server_ticks)
best_of_two kest_small "$BIN/kest_client" -h 127.0.0.1 -P "$kest_port" --quiet -f "$tmp/small.kest"
server_us=$(awk -v t="$(( $(server_ticks) - ticks_before ))" -v hz="$(getconf CLK_TCK)" \
  -v n="$SMALL_QUERIES" 'BEGIN { printf "%.1f", t / hz / (2 * n) * 1e6 }')
best_of_two psql_small "$PG_BIN/psql" -X -q -h 127.0.0.1 -p "$pg_port" -U bench -d postgres \
  -f "$tmp/small.sql"

# ---------------------------------------------------------------------------- the table
row() { printf '%-42s %12s %12s %9s  %-26s %s\n' "$@"; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.1fx", a / b; else print "-" }'; }
verdict() { if awk "BEGIN { exit !($1) }"; then echo met; else echo "NOT met"; fi; }
mrows() { awk -v n="$1" 'BEGIN { printf "%gM", n / 1e6 }'; }

M=$ROWS_MAIN S=$ROWS_SMALL B=$ROWS_BIG
echo
echo "kest_client vs psql 15 — $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores," \
  "$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)," \
  "load average at the end $(cut -d' ' -f1-3 /proc/loadavg)"
row "workload" "kest_client" "psql" "ratio" "target" "result"
for mode in raw aligned csv; do
  k=kest_raw p=psql_raw need=4
  [ $mode = aligned ] && k=kest_ascii p=psql_aligned need=20
  [ $mode = csv ] && k=kest_csv p=psql_csv need=8
  kc=$(per_mrow "${k}_$M" "$M") pc=$(per_mrow "${p}_$M" "$M")
  row "$mode $(mrows "$M") rows: CPU s / M rows" "$kc" "$pc" "$(ratio "$pc" "$kc")" \
    "psql/kest >= ${need}x" "$(verdict "$pc >= $need * $kc")"
  km=$(rss_mib "${k}_$M") pm=$(rss_mib "${p}_$M")
  row "$mode $(mrows "$M") rows: peak RSS MiB" "$km" "$pm" "$(ratio "$pm" "$km")" \
    "kest < 16 MiB" "$(verdict "$km < 16")"
  for n in "$S" "$B"; do
    kn=$(rss_mib "${k}_$n")
    pn="-"; [ "$n" = "$S" ] && pn=$(rss_mib "${p}_$n")
    row "$mode $(mrows "$n") rows: peak RSS MiB" "$kn" "$pn" "" \
      "kest = $(mrows "$M") figure ±1" "$(verdict "$kn - $km <= 1 && $km - $kn <= 1")"
    pc_n="-"; [ "$n" = "$S" ] && pc_n=$(per_mrow "${p}_$n" "$n")
    row "$mode $(mrows "$n") rows: CPU s / M rows" "$(per_mrow "${k}_$n" "$n")" "$pc_n" "" "" ""
  done
done
kc=$(per_mrow "kest_csv_$M" "$M") kr=$(per_mrow "kest_raw_$M" "$M")
row "csv $(mrows "$M") rows: CPU of kest csv / raw" "$(ratio "$kc" "$kr")" "" "" \
  "kest csv/raw <= 1.5x" "$(verdict "$kc <= 1.5 * $kr")"
row "latency: median wall ms" "$kest_ping" "$psql_ping" "$(ratio "$psql_ping" "$kest_ping")" \
  "kest < 5 ms, >= 5x" "$(verdict "$kest_ping < 5 && $psql_ping >= 5 * $kest_ping")"
row "start-up: -p median wall / /bin/true's" "$(ratio "$kest_ping" "$true_start")" "" "" \
  "kest <= 1.5x /bin/true" "$(verdict "$kest_ping <= 1.5 * $true_start")"
kq=$(awk -v w="$(wall kest_small)" -v n="$SMALL_QUERIES" 'BEGIN { printf "%.0f", n / w }')
pq=$(awk -v w="$(wall psql_small)" -v n="$SMALL_QUERIES" 'BEGIN { printf "%.0f", n / w }')
row "small queries: queries / s" "$kq" "$pq" "$(ratio "$kq" "$pq")" "kest/psql >= 2x" \
  "$(verdict "$kq >= 2 * $pq")"
kcq=$(awk -v c="$(cpu kest_small)" -v n="$SMALL_QUERIES" 'BEGIN { printf "%.1f", c / n * 1e6 }')
pcq=$(awk -v c="$(cpu psql_small)" -v n="$SMALL_QUERIES" 'BEGIN { printf "%.1f", c / n * 1e6 }')
row "small queries: client CPU us / query" "$kcq" "$pcq" "$(ratio "$pcq" "$kcq")" "" ""
row "small queries: kest_refserver CPU us / query" "$server_us" "" "" "" ""
echo "(run took $(( $(date +%s) - started )) s)"
