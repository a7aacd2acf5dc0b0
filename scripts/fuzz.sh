#!/usr/bin/env bash
# Runs every libFuzzer target (or the ones named) for SECONDS each, one process at a time.
#
#   bash scripts/fuzz.sh                 # 45 s per target (the CI budget)
#   bash scripts/fuzz.sh 3600            # an hour per target, on demand
#   bash scripts/fuzz.sh 60 receive split
#
# Each target reads its seeds and regression inputs from tests/fuzz/corpus/TARGET and keeps what
# it learns in $KEST_FUZZ_WORK/TARGET/corpus (default build/fuzz-work), so long runs resume where
# the last one stopped. A crash, sanitizer report, leak, time-out or memory above the cap leaves
# its input in $KEST_FUZZ_WORK/TARGET/ and makes the script exit non-zero after the other
# targets have run. Seconds fuzzed per target are added up in $KEST_FUZZ_WORK/TARGET/seconds.
# KEST_FUZZ_BUILD=0 skips the build.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-45}"
shift || true
targets=("$@")
[[ ${#targets[@]} -gt 0 ]] || targets=(receive split settings logconfig types options query)
work="${KEST_FUZZ_WORK:-build/fuzz-work}"

if [[ "${KEST_FUZZ_BUILD:-1}" != 0 ]]; then
  cmake --preset fuzz >/dev/null
  cmake --build --preset fuzz -j2 >/dev/null
fi

# Inputs larger than this teach little and slow every run.
max_len() {
  case "$1" in
    settings | query) echo 8192 ;;
    *) echo 4096 ;;
  esac
}

failed=()
for t in "${targets[@]}"; do
  bin="build/fuzz/fuzz_$t"
  [[ -x "$bin" ]] || { echo "no fuzz program $bin" >&2; failed+=("$t"); continue; }
  mkdir -p "$work/$t/corpus"
  echo "== fuzz_$t for ${seconds}s"
  start=$(date +%s)
  # stdout is closed (-close_fd_mask=1): the client prints its "Error:" lines there.
  if ! "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -malloc_limit_mb=2048 \
      -max_len="$(max_len "$t")" -close_fd_mask=1 -print_final_stats=1 \
      -artifact_prefix="$work/$t/" "$work/$t/corpus" "tests/fuzz/corpus/$t" \
      >"$work/$t/last.log" 2>&1; then
    failed+=("$t")
    grep -E 'ERROR|fuzz check failed|assertion|artifact' "$work/$t/last.log" | head -20 >&2 || true
  fi
  ran=$(($(date +%s) - start))
  total=$(( $(cat "$work/$t/seconds" 2>/dev/null || echo 0) + ran ))
  echo "$total" >"$work/$t/seconds"
  grep -E '^stat::number_of_executed_units|^Done' "$work/$t/last.log" | tail -2 || true
  echo "   ${ran}s this run, ${total}s in total"
done

if [[ ${#failed[@]} -gt 0 ]]; then
  echo "fuzzing found failures in: ${failed[*]} (inputs under $work/<target>/)" >&2
  exit 1
fi
echo "fuzzing: no failures"
