// The logger's costs: a filtered message (one rule lookup, nothing formatted or allocated), the
// enabled check, and a full line written to a file stream; plus the registry's hash table.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "utils/hash_table.h"
#include "utils/znlog.h"

namespace {

// Forty rules ahead of the default, so the lookup walks a realistic table.
std::string many_rules() {
  std::string text = "stdout = timestamp:showlevel:pid:fileline\n";
  for (int i = 0; i < 40; ++i) text += "FACILITY" + std::to_string(i) + " = info:stdout\n";
  return text + "HOT = info:stdout\n";
}

// One message of facility HOT at the level given: ZN_TRACE is filtered out by the rules (one rule
// lookup, nothing formatted), ZN_INFO is formatted and written as a full line.
void BM_Message(benchmark::State& state) {
  std::FILE* sink = std::tmpfile();
  if (!sink) {
    state.SkipWithError("no temporary file");
    return;
  }
  zn_log_reset_for_tests(many_rules().c_str(), sink, sink);
  const auto level = static_cast<int>(state.range(0));
  int64_t n = 0;
  for (auto _ : state) {
    __zn_log("bench.cpp", 1, "HOT", level, "value %lld and %s", static_cast<long long>(++n),
             "text");
  }
  zn_log_reset_for_tests("", nullptr, nullptr);
  std::fclose(sink);
}
BENCHMARK(BM_Message)->Arg(ZN_TRACE)->Arg(ZN_INFO);

void BM_EnabledCheck(benchmark::State& state) {
  zn_log_reset_for_tests(many_rules().c_str(), nullptr, nullptr);
  for (auto _ : state) benchmark::DoNotOptimize(zn_log_enabled("HOT", ZN_DEBUG));
  zn_log_reset_for_tests("", nullptr, nullptr);
}
BENCHMARK(BM_EnabledCheck);

void BM_HashTableInsertFindDelete(benchmark::State& state) {
  const int64_t keys = state.range(0);
  for (auto _ : state) {
    HashTable* t = hash_table_create_with_slng_keys(sizeof(int64_t));
    for (int64_t k = 0; k < keys; ++k) hash_table_insert(t, &k, &k);
    for (int64_t k = 0; k < keys; ++k) benchmark::DoNotOptimize(hash_table_find(t, &k));
    for (int64_t k = 0; k < keys; ++k) hash_table_delete(t, &k);
    hash_table_destroy(t);
  }
  state.SetItemsProcessed(state.iterations() * keys);
}
BENCHMARK(BM_HashTableInsertFindDelete)->Arg(16)->Arg(4096);

}  // namespace

BENCHMARK_MAIN();
