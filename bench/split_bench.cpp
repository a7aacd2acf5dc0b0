// Split throughput over a generated script, in string mode and in file mode, at two sizes: the
// cost per byte must stay flat as the input grows.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "kernel/ltype.h"
#include "tools/standalone_client/split_query.h"

namespace {

// A script of typical queries: nested calls, quoted strings with escapes, numbers, comments and
// a here-document now and then.
std::string make_script(size_t bytes) {
  std::string script;
  for (int i = 0; script.size() < bytes; ++i) {
    const std::string n = std::to_string(i);
    script += "# query " + n + "\n";
    script += "project(select(array([i=0:" + n + "], [j=1.5]), i > " + n +
              " && j != 'a;b\\n\\x41'), [k = i * 2 + j], [name = 'caf\\u00e9 " + n + "']);\n";
    if (i % 16 == 0) script += "print(<<<EOT\nline one; " + n + "\nline two\nEOT\n);\n";
  }
  return script;
}

size_t drain(QuerySplitter* qs) {
  size_t queries = 0;
  while (const char* q = query_splitter_next(qs)) {
    benchmark::DoNotOptimize(q);
    ++queries;
  }
  query_splitter_free(qs);
  return queries;
}

void BM_SplitString(benchmark::State& state) {
  types_init();  // words are checked against the registered type names, as in the client
  const std::string script = make_script(static_cast<size_t>(state.range(0)));
  size_t queries = 0;
  for (auto _ : state) queries = drain(query_splitter_create_string(script.c_str()));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * script.size()));
  state.counters["queries"] = static_cast<double>(queries);
}

void BM_SplitFile(benchmark::State& state) {
  types_init();
  const std::string script = make_script(static_cast<size_t>(state.range(0)));
  FILE* file = std::tmpfile();
  if (!file) {
    state.SkipWithError("no temporary file");
    return;
  }
  std::fwrite(script.data(), 1, script.size(), file);
  size_t queries = 0;
  for (auto _ : state) {
    std::rewind(file);
    queries = drain(query_splitter_create_file(file));
  }
  std::fclose(file);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * script.size()));
  state.counters["queries"] = static_cast<double>(queries);
}

BENCHMARK(BM_SplitString)->Arg(1 << 20)->Arg(16 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SplitFile)->Arg(1 << 20)->Arg(16 << 20)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
