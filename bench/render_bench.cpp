// Rendering speed of the result printer: 10 million rows of six columns (sint, slng, dbl,
// decimal(12,2) stored as slng, date, varchar of 5 to 20 characters) cycled from one in-memory
// vector of 1,024 rows, in every output mode, to the null device. Beside each mode runs a plain
// printf-per-cell loop over the same rows with the same layout, as the yardstick, and first the
// value conversions alone, the floor under every mode.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kernel/ltype.h"
#include "tools/standalone_client/printer.h"

namespace {

constexpr int64_t kRows = 10'000'000;
constexpr int64_t kVector = 1024;

struct Columns {
  std::vector<std::string> names = {"id", "amount", "ratio", "price", "day", "label"};
  std::vector<uint32_t> ltypes = {LTYPE_SINT, LTYPE_SLNG,
                                  LTYPE_FLT8, LTYPE_DECIMAL | 12u << 8 | 2u << 16,
                                  LTYPE_DATE, LTYPE_VCHAR | 20u << 8};
  std::vector<int32_t> sints, dates;
  std::vector<int64_t> slngs, decimals;
  std::vector<double> dbls;
  std::vector<std::string> texts;
  std::vector<const char*> text_ptrs;
  std::vector<char*> name_ptrs;
  std::vector<const PhysicalType*> types;
  std::vector<int32_t> isconst = std::vector<int32_t>(6, 0);
  std::vector<void*> data;

  Columns() {
    types_init();
    uint64_t seed = 0x9E3779B97F4A7C15ull;
    auto next = [&seed] {
      seed ^= seed << 13;
      seed ^= seed >> 7;
      seed ^= seed << 17;
      return seed;
    };
    for (int64_t i = 0; i < kVector; ++i) {
      sints.push_back(static_cast<int32_t>(next() % 2000000) - 1000000);
      slngs.push_back(static_cast<int64_t>(next() >> 20) - (int64_t{1} << 43));
      dbls.push_back(static_cast<double>(static_cast<int64_t>(next() % 2000000) - 1000000) / 7.0);
      decimals.push_back(static_cast<int64_t>(next() % 100000000000) - 50000000000);
      dates.push_back(700000 + static_cast<int32_t>(next() % 40000));
      std::string t(5 + next() % 16, ' ');
      for (char& c : t) c = static_cast<char>('a' + next() % 26);
      texts.push_back(std::move(t));
    }
    for (const std::string& t : texts) text_ptrs.push_back(t.c_str());
    for (std::string& n : names) name_ptrs.push_back(n.data());
    for (uint32_t lt : ltypes) types.push_back(ltype_physical(lt));
    data = {sints.data(),    slngs.data(), dbls.data(),
            decimals.data(), dates.data(), text_ptrs.data()};
  }
};

const Columns& columns() {
  static const Columns c;
  return c;
}

void render_with_printer(FILE* out, int mode, int64_t rows) {
  const Columns& c = columns();
  ResultPrinter* p = printer_open(out, 6, c.name_ptrs.data(), c.types.data(), c.ltypes.data(),
                                  c.isconst.data(), mode);
  for (int64_t done = 0; done < rows; done += kVector) {
    printer_rows(p, c.data.data(), nullptr, std::min(kVector, rows - done));
  }
  printer_close(p);
}

// The yardstick: each cell converted by value_to_string and written with its own fprintf.
// The data is ASCII, so padding by bytes gives the printer's bytes.
void render_with_printf(FILE* out, int mode, int64_t rows) {
  const Columns& c = columns();
  const bool table = mode == OUTPUT_ASCII || mode == OUTPUT_UNICODE;
  const char* bar = mode == OUTPUT_UNICODE ? "\xE2\x94\x82" : "|";
  int widths[6];
  for (int i = 0; i < 6; ++i) {
    char type_text[64];
    ltype_to_string(type_text, c.ltypes[i]);
    const int w = ltype_display_width(c.ltypes[i]);
    widths[i] = std::min(128, std::max({w == 0 ? 24 : w, static_cast<int>(std::strlen(type_text)),
                                        static_cast<int>(c.names[i].size())}));
  }
  const int sizes[6] = {4, 8, 8, 8, 4, 8};
  char text[1024];
  for (int64_t done = 0; done < rows; done += kVector) {
    const int64_t n = std::min(kVector, rows - done);
    for (int64_t r = 0; r < n; ++r) {
      if (table) std::fprintf(out, "%s", bar);
      if (mode == OUTPUT_HTML) std::fprintf(out, "<tr>");
      for (int i = 0; i < 6; ++i) {
        const char* value = static_cast<const char*>(c.data[i]) + r * sizes[i];
        value_to_string(text, sizeof text, c.types[i], c.ltypes[i], value);
        const bool left = i == 5;
        if (table) {
          std::fprintf(out, left ? "%-*s%s" : "%*s%s", widths[i], text, bar);
        } else if (mode == OUTPUT_RAW) {
          std::fprintf(out, "%s%s", text, i < 5 ? "|" : "");
        } else {
          std::fprintf(out, left ? "<td>%s</td>" : "<td align=\"right\">%s</td>", text);
        }
      }
      std::fprintf(out, mode == OUTPUT_HTML ? "</tr>" : "\n");
    }
  }
}

std::string rows_of(void (*render)(FILE*, int, int64_t), int mode, int64_t rows) {
  FILE* f = std::tmpfile();
  if (f == nullptr) return {};
  render(f, mode, rows);
  std::fflush(f);
  std::string all(static_cast<size_t>(std::ftell(f)), '\0');
  std::rewind(f);
  all.resize(std::fread(all.data(), 1, all.size(), f));
  std::fclose(f);
  return all;
}

// The yardstick must write the very rows the printer writes, or the comparison means nothing.
bool same_rows(int mode) {
  const std::string printer = rows_of(render_with_printer, mode, 3000);
  const std::string plain = rows_of(render_with_printf, mode, 3000);
  return !plain.empty() && printer.find(plain) != std::string::npos;
}

void run(benchmark::State& state, void (*render)(FILE*, int, int64_t)) {
  const int mode = static_cast<int>(state.range(0));
  if (!same_rows(mode)) {
    state.SkipWithError("the printf loop and the printer disagree");
    return;
  }
  FILE* out = std::fopen("/dev/null", "wb");
  if (out == nullptr) {
    state.SkipWithError("cannot open /dev/null");
    return;
  }
  for (auto _ : state) render(out, mode, kRows);
  std::fclose(out);
  state.counters["rows/s"] =
      benchmark::Counter(static_cast<double>(kRows) * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate);
  const char* names[] = {"ascii", "unicode", "raw", "html"};
  state.SetLabel(names[mode]);
}

// The floor under every mode: the six value conversions of each row and nothing else.
void BM_ConvertOnly(benchmark::State& state) {
  const Columns& c = columns();
  const int sizes[6] = {4, 8, 8, 8, 4, 8};
  char text[1024];
  for (auto _ : state) {
    for (int64_t done = 0; done < kRows; done += kVector) {
      const int64_t n = std::min(kVector, kRows - done);
      for (int64_t r = 0; r < n; ++r) {
        for (int i = 0; i < 6; ++i) {
          const char* value = static_cast<const char*>(c.data[i]) + r * sizes[i];
          benchmark::DoNotOptimize(
              value_to_string(text, sizeof text, c.types[i], c.ltypes[i], value));
        }
        benchmark::ClobberMemory();
      }
    }
  }
  state.counters["rows/s"] =
      benchmark::Counter(static_cast<double>(kRows) * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate);
}

void BM_Printer(benchmark::State& state) { run(state, render_with_printer); }
void BM_PrintfPerCell(benchmark::State& state) { run(state, render_with_printf); }

void modes(benchmark::internal::Benchmark* b) {
  for (int mode = 0; mode < 4; ++mode) b->Arg(mode);
  b->Iterations(1)->Unit(benchmark::kMillisecond);
}

}  // namespace

BENCHMARK(BM_ConvertOnly)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Printer)->Apply(modes);
BENCHMARK(BM_PrintfPerCell)->Apply(modes);

BENCHMARK_MAIN();
