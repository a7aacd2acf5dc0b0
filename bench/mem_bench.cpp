// Memory contexts against the plain heap for the pattern of their heavy users (the splitter and
// the configuration store): many small blocks, freed all at once by destroying the context.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "utils/mem.h"

namespace {

constexpr int kBlocks = 4096;

size_t size_of(int i) { return 8 + (i * 37) % 120; }

void BM_ContextSmallBlocks(benchmark::State& state) {
  for (auto _ : state) {
    MemContext* ctx = mem_context_create(nullptr, "bench");
    for (int i = 0; i < kBlocks; ++i) benchmark::DoNotOptimize(mem_malloc(ctx, size_of(i), 0));
    mem_context_destroy(ctx);
  }
  state.SetItemsProcessed(state.iterations() * kBlocks);
}
BENCHMARK(BM_ContextSmallBlocks);

// Allocation alone in a long-lived context (areas come and go outside the timed part).
void BM_ContextSmallBlocksNoDestroy(benchmark::State& state) {
  MemContext* ctx = mem_context_create(nullptr, "bench");
  for (auto _ : state) {
    for (int i = 0; i < kBlocks; ++i) benchmark::DoNotOptimize(mem_malloc(ctx, size_of(i), 0));
    state.PauseTiming();
    mem_context_destroy(ctx);
    ctx = mem_context_create(nullptr, "bench");
    state.ResumeTiming();
  }
  mem_context_destroy(ctx);
  state.SetItemsProcessed(state.iterations() * kBlocks);
}
BENCHMARK(BM_ContextSmallBlocksNoDestroy);

void BM_HeapSmallBlocks(benchmark::State& state) {
  std::vector<void*> blocks(kBlocks);
  for (auto _ : state) {
    for (int i = 0; i < kBlocks; ++i) {
      blocks[i] = std::malloc(size_of(i));
      benchmark::DoNotOptimize(blocks[i]);
    }
    for (void* p : blocks) std::free(p);
  }
  state.SetItemsProcessed(state.iterations() * kBlocks);
}
BENCHMARK(BM_HeapSmallBlocks);

// A text doubling its room, as growing buffers do.
void BM_ContextGrowingText(benchmark::State& state) {
  for (auto _ : state) {
    MemContext* ctx = mem_context_create(nullptr, "bench");
    void* p = nullptr;
    for (size_t n = 16; n <= (size_t{1} << 20); n *= 2) p = mem_realloc(ctx, p, n);
    benchmark::DoNotOptimize(p);
    mem_context_destroy(ctx);
  }
}
BENCHMARK(BM_ContextGrowingText);

void BM_HeapGrowingText(benchmark::State& state) {
  for (auto _ : state) {
    void* p = nullptr;
    for (size_t n = 16; n <= (size_t{1} << 20); n *= 2) p = std::realloc(p, n);
    benchmark::DoNotOptimize(p);
    std::free(p);
  }
}
BENCHMARK(BM_HeapGrowingText);

}  // namespace

BENCHMARK_MAIN();
