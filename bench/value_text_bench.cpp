// value_to_string per logical type, each beside snprintf of the same format over the same values.
#include <benchmark/benchmark.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "kernel/datetime_text.h"
#include "kernel/ltype.h"
#include "kernel/s128.h"

namespace {

constexpr size_t kValues = 4096;

template <typename T, typename Make>
std::vector<T> make_values(Make make) {
  std::mt19937_64 rng(12345);
  std::vector<T> v(kValues);
  for (auto& x : v) x = make(rng);
  return v;
}

template <typename T>
void run_value(benchmark::State& state, uint32_t type, const std::vector<T>& values) {
  types_init();
  const PhysicalType* physical = ltype_physical(type);
  char buffer[1024];
  size_t i = 0;
  for (auto _ : state) {
    int n = value_to_string(buffer, sizeof buffer, physical, type, &values[i]);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(buffer);
    i = (i + 1) % kValues;
  }
  state.SetItemsProcessed(state.iterations());
}

template <typename T, typename Print>
void run_printf(benchmark::State& state, const std::vector<T>& values, Print print) {
  char buffer[1024];
  size_t i = 0;
  for (auto _ : state) {
    int n = print(buffer, sizeof buffer, values[i]);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(buffer);
    i = (i + 1) % kValues;
  }
  state.SetItemsProcessed(state.iterations());
}

const auto kInt64 = make_values<int64_t>(
    [](auto& r) { return static_cast<int64_t>(r() >> (r() % 64)) * ((r() & 1) ? -1 : 1); });
const auto kInt32 =
    make_values<int32_t>([](auto& r) { return static_cast<int32_t>(r() >> (r() % 33)); });
const auto kDouble = make_values<double>([](auto& r) {
  return static_cast<double>(static_cast<int64_t>(r() % 2000000000) - 1000000000) / 997.0;
});
const auto kFloat = make_values<float>([](auto& r) {
  return static_cast<float>(static_cast<int64_t>(r() % 2000000) - 1000000) / 97.0f;
});
const auto kDays =
    make_values<int32_t>([](auto& r) { return static_cast<int32_t>(366 + r() % 3652059); });
const auto kTimes =
    make_values<int32_t>([](auto& r) { return static_cast<int32_t>(r() % 86400000); });
const auto kStamps = make_values<int64_t>([](auto& r) {
  return static_cast<int64_t>(366 + r() % 3652059) * 86400000000LL +
         static_cast<int64_t>(r() % 86400000000ULL);
});
const auto kIntervals = make_values<int64_t>(
    [](auto& r) { return static_cast<int64_t>(r() % 100000000000ULL) * ((r() & 1) ? -1 : 1); });

constexpr uint32_t kDecimal18_2 = LTYPE_DECIMAL | 18u << 8 | 2u << 16;
constexpr uint32_t kTime3 = LTYPE_TIME | 3u << 16;
constexpr uint32_t kTimestamp6 = LTYPE_TIMESTAMP | 6u << 16;
constexpr uint32_t kMoney = LTYPE_MONEY | 2u << 16;

void BM_slng_value(benchmark::State& s) { run_value(s, LTYPE_SLNG, kInt64); }
void BM_slng_printf(benchmark::State& s) {
  run_printf(s, kInt64,
             [](char* b, size_t n, int64_t v) { return std::snprintf(b, n, "%" PRId64, v); });
}
void BM_sint_value(benchmark::State& s) { run_value(s, LTYPE_SINT, kInt32); }
void BM_sint_printf(benchmark::State& s) {
  run_printf(s, kInt32, [](char* b, size_t n, int32_t v) {
    return std::snprintf(b, n, "%" PRId64, static_cast<int64_t>(v));
  });
}
void BM_decimal_value(benchmark::State& s) { run_value(s, kDecimal18_2, kInt64); }
void BM_decimal_printf(benchmark::State& s) {
  run_printf(s, kInt64, [](char* b, size_t n, int64_t v) {
    uint64_t a = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
    return std::snprintf(b, n, "%s%" PRIu64 ".%02" PRIu64, v < 0 ? "-" : "", a / 100, a % 100);
  });
}
void BM_dbl_value(benchmark::State& s) { run_value(s, LTYPE_FLT8, kDouble); }
void BM_dbl_printf(benchmark::State& s) {
  run_printf(s, kDouble,
             [](char* b, size_t n, double v) { return std::snprintf(b, n, "%.16g", v); });
}
void BM_flt_value(benchmark::State& s) { run_value(s, LTYPE_FLT4, kFloat); }
void BM_flt_printf(benchmark::State& s) {
  run_printf(s, kFloat, [](char* b, size_t n, float v) {
    return std::snprintf(b, n, "%.7g", static_cast<double>(v));
  });
}
void BM_money_value(benchmark::State& s) { run_value(s, kMoney, kDouble); }
void BM_money_printf(benchmark::State& s) {
  run_printf(s, kDouble,
             [](char* b, size_t n, double v) { return std::snprintf(b, n, "$ %.2lf", v * 0.01); });
}
void BM_date_value(benchmark::State& s) { run_value(s, LTYPE_DATE, kDays); }
void BM_date_printf(benchmark::State& s) {
  run_printf(s, kDays, [](char* b, size_t n, int32_t day) {
    int y, m, d;
    day_to_ymd(day, &y, &m, &d);
    return std::snprintf(b, n, "%04d-%02d-%02d", y, m, d);
  });
}
void BM_time_value(benchmark::State& s) { run_value(s, kTime3, kTimes); }
void BM_time_printf(benchmark::State& s) {
  run_printf(s, kTimes, [](char* b, size_t n, int32_t v) {
    long long u = 1000, m = (v / 60) / u, r = v % (60 * u), h = m / 60;
    return std::snprintf(b, n, "%02lld:%02lld:%02lld.%0*lld", h, m - 60 * h, r / u, 3, r % u);
  });
}
void BM_timestamp_value(benchmark::State& s) { run_value(s, kTimestamp6, kStamps); }
void BM_timestamp_printf(benchmark::State& s) {
  run_printf(s, kStamps, [](char* b, size_t n, int64_t v) {
    long long u = 1000000, m = (v / 60) / u, r = v % (60 * u), h = m / 60, days = h / 24;
    int y, mo, d;
    day_to_ymd(days, &y, &mo, &d);
    return std::snprintf(b, n, "%04d-%02d-%02d %02lld:%02lld:%02lld.%0*lld", y, mo, d,
                         h - 24 * days, m - 60 * h, r / u, 6, r % u);
  });
}
void BM_intervalds_value(benchmark::State& s) { run_value(s, LTYPE_INTERVALDS, kIntervals); }
void BM_intervalds_printf(benchmark::State& s) {
  run_printf(s, kIntervals, [](char* b, size_t n, int64_t v) {
    long long a = v < 0 ? -v : v, m = a / 60, h = m / 60, days = h / 24;
    return std::snprintf(b, n, "%s%lld %02lld:%02lld:%02lld", v < 0 ? "-" : "", days, h - 24 * days,
                         m - 60 * h, a % 60);
  });
}

}  // namespace

BENCHMARK(BM_slng_value);
BENCHMARK(BM_slng_printf);
BENCHMARK(BM_sint_value);
BENCHMARK(BM_sint_printf);
BENCHMARK(BM_decimal_value);
BENCHMARK(BM_decimal_printf);
BENCHMARK(BM_dbl_value);
BENCHMARK(BM_dbl_printf);
BENCHMARK(BM_flt_value);
BENCHMARK(BM_flt_printf);
BENCHMARK(BM_money_value);
BENCHMARK(BM_money_printf);
BENCHMARK(BM_date_value);
BENCHMARK(BM_date_printf);
BENCHMARK(BM_time_value);
BENCHMARK(BM_time_printf);
BENCHMARK(BM_timestamp_value);
BENCHMARK(BM_timestamp_printf);
BENCHMARK(BM_intervalds_value);
BENCHMARK(BM_intervalds_printf);
BENCHMARK_MAIN();
