// The reception under hostile bytes, fed straight in: a server's answer is loaded frame by frame
// (NetBufferLoad), decoded and printed as the session does after sending a query. Header-only,
// shared by the fuzz target, the replay test and the allocation-failure test. Input: byte 0 picks
// the output mode (low two bits), byte 1 seeds the fragmentation, the rest is the answer.
//
// A malformed message ends the client with an assertion, by design; here the assertion throws,
// the harness frees what the query held and the input is an expected end, not judged. Any other
// crash, sanitizer report or leak is a fault. The check: the answer loaded whole and in small
// pieces ends alike and prints the same bytes, and each row count the decoder returns is the one
// its message carries.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/support/fuzz_common.h"
#include "kernel/ltype.h"
#include "tools/standalone_client/client_globals.h"
#include "tools/standalone_client/printer.h"
#include "tools/standalone_client/reception.h"
#include "utils/kest_assert.h"
#include "utils/netbuffer.h"
#include "utils/netbuffer_socket.h"

namespace kest_fuzz {

// Data areas (width x vector size per column, all columns) an answer may ask for; past this the
// allocation alone would count as running out of memory under the fuzzer.
constexpr int64_t kAreaBudget = int64_t{8} << 20;
// Rows printed per input. A result of constant columns only, or of none, has no bytes behind its
// rows: a 12-byte message may ask for two billion, correct but too slow for a fuzzer.
constexpr int64_t kRowBudget = int64_t{1} << 14;
constexpr uint32_t kStatusError = 0xFFFFFFFFu;

// What a failed assertion throws while AssertionsThrow lives; the texts are static strings.
struct AssertionStop {
  const char* facility;
  const char* condition;
};

struct AssertionsThrow {
  AssertionsThrow() {
    kest_assert_set_handler([](const char* facility, const char* condition) {
      throw AssertionStop{facility, condition};
    });
  }
  ~AssertionsThrow() { kest_assert_set_handler(nullptr); }
  AssertionsThrow(const AssertionsThrow&) = delete;
  AssertionsThrow& operator=(const AssertionsThrow&) = delete;
};

// Hands the answer to the network buffer a frame at a time: whole, or in pieces of 1 to 16 bytes
// that arrive only when the bytes so far hold no whole frame, as a socket delivers them.
class Feed {
 public:
  Feed(std::string_view stream, bool fragmented, uint32_t seed)
      : stream_(stream), arrived_(fragmented ? 0 : stream.size()), seed_(seed) {}

  // 1 with the next frame held by `nb`; else what NetBufferLoad answers once all has arrived
  // (0: the answer ends inside a frame, -1: a refused length).
  int next(NetBuffer* nb) {
    for (;;) {
      int64_t consumed = 0;
      const int got =
          NetBufferLoad(nb, stream_.data() + at_, static_cast<int64_t>(arrived_ - at_), &consumed);
      at_ += static_cast<size_t>(consumed);
      if (got != 0 || arrived_ == stream_.size()) return got;
      seed_ = seed_ * 1103515245u + 12345u;
      arrived_ = std::min(stream_.size(), arrived_ + 1 + (seed_ >> 16) % 16);
    }
  }

 private:
  std::string_view stream_;
  size_t at_ = 0;       // where the next frame begins
  size_t arrived_ = 0;  // how much of the stream the buffer may see
  uint32_t seed_;
};

// The guards read a held message ahead of the client with the client's own reads, so a message
// that fails the client's assertions fails them here first, before the client has allocated
// for a count that no bytes back (each name or parameter takes one byte at least). They rule out
// what the assertion handler cannot turn into an expected end: an unknown physical type (the
// client aborts without an assertion), data areas past the fuzzer's memory limit, and rows with
// no bytes behind them. They allocate nothing.

inline void skip_var(NetBuffer* nb) {
  const int64_t len = NetBufferGetLen(nb);
  nb->pos += static_cast<int32_t>(len / 255 + 1 + len);  // the length prefix, then the bytes
}

inline bool skip_error_record(NetBuffer* nb) {
  NetBufferGetInt(nb);  // the code
  const auto count = static_cast<int32_t>(NetBufferGetInt(nb));
  for (int32_t i = 0; i < count; ++i) skip_var(nb);
  return true;
}

// The client looks a physical type up by its text up to the first zero byte; no registered name
// is 64 bytes long, so the first 64 bytes decide.
inline const PhysicalType* lookup_physical(NetBuffer* nb) {
  const int64_t len = NetBufferGetLen(nb);
  char name[65] = {};
  std::memcpy(name, nb->data + nb->pos + len / 255 + 1,
              static_cast<size_t>(std::min<int64_t>(len, 64)));
  skip_var(nb);
  return ptype_lookup(name);
}

inline bool ack_is_decodable(NetBuffer* nb) {
  if (NetBufferGetInt(nb) == kStatusError) return skip_error_record(nb);
  const auto n = static_cast<int32_t>(NetBufferGetInt(nb));
  const int64_t vector_size = static_cast<int32_t>(NetBufferGetInt(nb));
  for (int32_t i = 0; i < n; ++i) skip_var(nb);  // the names
  int64_t areas = 0;
  for (int32_t i = 0; i < n; ++i) {
    const bool isconst = NetBufferGetInt(nb) != 0;
    skip_var(nb);  // the logical type
    const PhysicalType* type = lookup_physical(nb);
    if (type == nullptr) return false;
    areas += (isconst ? 1 : std::max<int64_t>(vector_size, 1)) * std::max(ptype_width(type), 1);
    if (areas > kAreaBudget) return false;
  }
  return true;
}

inline bool data_is_decodable(NetBuffer* nb, int64_t printed, int64_t* carried) {
  if (NetBufferGetInt(nb) == kStatusError) return skip_error_record(nb);
  *carried = static_cast<int32_t>(NetBufferGetInt(nb));
  return printed + *carried <= kRowBudget;
}

// Runs a guard and puts the read position back.
template <class Guard>
bool peek(NetBuffer* nb, Guard guard) {
  const int32_t pos = nb->pos;
  const bool ok = guard(nb);
  nb->pos = pos;
  return ok;
}

enum class RunEnd {
  kResults,     // the data messages ran to an end the session reports (rows 0 or -1)
  kNoAck,       // no whole acknowledgement
  kAckError,    // the acknowledgement carried an error record
  kAsserted,    // the client asserted: an expected end, not judged
  kSetAside,    // a guard ruled the answer out
  kMiscounted,  // decode_data returned another row count than its message carries: a fault
};

// The acknowledgement, then data messages until one ends the results; each decode_data result
// is appended to `rows` when given.
inline RunEnd decode_answer(NetBuffer* nb, Feed* feed, QueryResult* result,
                            std::vector<int64_t>* rows) {
  if (feed->next(nb) != 1) return RunEnd::kNoAck;
  if (!peek(nb, ack_is_decodable)) return RunEnd::kSetAside;
  QueryAck ack;
  receive_ack(result, nb, &ack);
  if (ack.is_error) {
    free_error(ack.error);
    return RunEnd::kAckError;
  }
  for (int64_t printed = 0;;) {
    int64_t got = -1;  // a closed connection or a refused length, as receive_data reports them
    if (feed->next(nb) == 1) {
      int64_t carried = 0;
      if (!peek(nb, [&](NetBuffer* b) { return data_is_decodable(b, printed, &carried); }))
        return RunEnd::kSetAside;
      got = decode_data(result, nb, ack.vector_size);
      if (got > 0 && got != carried) return RunEnd::kMiscounted;
      printed += std::max<int64_t>(got, 0);
    }
    if (rows) rows->push_back(got);
    if (got <= 0) return RunEnd::kResults;
  }
}

// One query's answer from `feed`, printed to `out` in `mode`. The query's memory is freed on
// every path, also when an assertion unwinds the decoder (then `asserted` names it, when given).
inline RunEnd receive_answer(NetBuffer* nb, Feed* feed, std::FILE* out, OutputMode mode,
                             std::vector<int64_t>* rows, AssertionStop* asserted = nullptr) {
  QueryResult result{};
  result.out = out;
  print_results = 1;
  output_mode_code = mode;
  RunEnd end = RunEnd::kAsserted;
  try {
    end = decode_answer(nb, feed, &result, rows);
  } catch (const AssertionStop& stop) {
    if (asserted) *asserted = stop;
  }
  query_finish(&result);
  print_results = 0;
  return end;
}

struct ReceiveRun {
  RunEnd end = RunEnd::kSetAside;
  AssertionStop asserted{"", ""};
  std::vector<int64_t> rows;
  std::string printed;
};

// The reception of `stream` with assertions that throw, printed to a temporary file (none to be
// had: set aside).
inline ReceiveRun run_reception(std::string_view stream, OutputMode mode, bool fragmented,
                                uint32_t seed) {
  static NetBuffer nb = [] {
    NetBuffer b{};
    NetBufferInit(&b, kNetNoSocket);
    return b;
  }();
  ReceiveRun run;
  std::FILE* out = std::tmpfile();
  if (out == nullptr) return run;
  Feed feed(stream, fragmented, seed);
  {
    AssertionsThrow handler;
    run.end = receive_answer(&nb, &feed, out, mode, &run.rows, &run.asserted);
  }
  std::rewind(out);
  char block[4096];
  for (size_t n; (n = std::fread(block, 1, sizeof block, out)) > 0;) run.printed.append(block, n);
  std::fclose(out);
  return run;
}

// The whole check for one fuzz input: empty when it holds, else what went wrong. `skipped` tells
// the caller the input was not judged (the client asserts on it, or a guard ruled it out).
inline std::string check_receive(const uint8_t* data, size_t size, bool* skipped = nullptr) {
  fuzz_init();
  if (skipped) *skipped = true;
  if (size < 2) return {};
  // Every output mode, the data formats (4 to 8) included; the seeds use 0 to 3.
  const auto mode = static_cast<OutputMode>(data[0] % 9);
  const std::string_view stream(reinterpret_cast<const char*>(data) + 2, size - 2);
  const ReceiveRun whole = run_reception(stream, mode, false, 0);
  const ReceiveRun split = run_reception(stream, mode, true, data[1]);
  if (whole.end == RunEnd::kMiscounted || split.end == RunEnd::kMiscounted)
    return "decode_data returned another row count than its message carries";
  if (whole.end != split.end || whole.rows != split.rows)
    return "whole and fragmented delivery ended differently";
  if (whole.printed != split.printed)
    return "whole and fragmented delivery printed different text:\n[" + whole.printed + "]\n[" +
           split.printed + "]";
  if (skipped) *skipped = whole.end == RunEnd::kAsserted || whole.end == RunEnd::kSetAside;
  return {};
}

}  // namespace kest_fuzz
