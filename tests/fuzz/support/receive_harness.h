// The receive path under hostile bytes: a peer's stream goes through a loopback socket into
// NetBufferRecv, the acknowledgement, the data messages and the printer. Header-only, shared by
// the fuzz target and the replay test. Input: byte 0 picks the output mode (low two bits), byte 1
// seeds the fragmentation, the rest is what the peer sends.
//
// A malformed message (a field past its frame, a type text of 64 bytes or more, an unknown
// physical type, a column count no allocation can serve) aborts by design, which would end an
// in-process fuzzer. A model of the frame layout walks the stream first and the harness skips
// what it says must abort; any other abort is a real fault. Checks: the stream delivered whole
// and in fragments prints the same bytes, and the row counts are those the model read.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "fuzz/support/fuzz_common.h"
#include "kernel/ltype.h"
#include "tools/standalone_client/client_globals.h"
#include "tools/standalone_client/connection.h"
#include "tools/standalone_client/printer.h"
#include "tools/standalone_client/reception.h"
#include "tools/standalone_client/session.h"
#include "utils/netbuffer.h"
#include "utils/netbuffer_socket.h"

namespace kest_fuzz {

// Data areas (width x vector size per column, all columns) the model lets through: past this the
// outcome depends on the machine (or the "queryres.data[i]" assertion), so the input is skipped.
constexpr int64_t kAreaBudget = int64_t{8} << 20;

// Rows printed per input. A result of constant columns only, or of none, has no bytes behind its
// rows: a 12-byte message may ask for two billion, correct but too slow for a fuzzer.
constexpr int64_t kRowBudget = int64_t{1} << 18;

enum class StreamVerdict { kRuns, kMustAbort, kOverBudget, kMismatchedTypes };

// A "str", "dbl" or "flt" column of another meaning trips the value printer's assertion if one of
// its values is printed: such inputs are set aside (reproducers in tests/fuzz/findings/receive/).
inline bool printer_cannot_read(uint32_t ltype, const PhysicalType* physical) {
  const uint32_t id = ltype_id(ltype);
  const std::string_view name = physical->name;
  if (name == "dbl") return id != LTYPE_FLT8 && id != LTYPE_DECIMAL && id != LTYPE_MONEY;
  if (name == "flt") return id != LTYPE_FLT4 && id != LTYPE_FLT8 && id != LTYPE_MONEY;
  if (name == "str") return id != LTYPE_CHAR && id != LTYPE_VCHAR && id != LTYPE_MONEY;
  return false;
}

struct StreamModel {
  StreamVerdict verdict = StreamVerdict::kRuns;
  std::vector<int64_t> rows;  // what each receive_data returns, in order
  bool ack_error = false;     // the acknowledgement carried an error record
  int64_t printed = 0;        // rows printed, all data messages together
};

// Reads the fields of one frame body as the network buffer does; false for a read past the frame.
struct FieldReader {
  std::string_view body;
  size_t pos = 0;

  size_t remaining() const { return body.size() - pos; }
  bool int32(uint32_t* value) {
    if (remaining() < 4) return false;
    *value = 0;
    for (int i = 0; i < 4; ++i) *value = (*value << 8) | static_cast<unsigned char>(body[pos++]);
    return true;
  }
  bool var(std::string_view* bytes) {
    size_t p = pos, len = 0;
    for (; p < body.size() && static_cast<unsigned char>(body[p]) == 255; ++p) len += 255;
    if (p >= body.size()) return false;
    len += static_cast<unsigned char>(body[p++]);
    if (len > body.size() - p) return false;
    *bytes = body.substr(p, len);
    pos = p + len;
    return true;
  }
  bool raw(int64_t len) {
    if (len < 0 || static_cast<uint64_t>(len) > remaining()) return false;
    pos += static_cast<size_t>(len);
    return true;
  }
};

// Takes the next frame off `stream`; false where NetBufferRecv delivers none (an end, a bad
// length).
inline bool next_frame(std::string_view* stream, std::string_view* body) {
  FieldReader header{*stream};
  uint32_t total = 0;
  if (!header.int32(&total) || total < 4 || total > uint32_t{NETBUF_MAX_FRAME} ||
      total > stream->size())
    return false;
  *body = stream->substr(4, total - 4);
  stream->remove_prefix(total);
  return true;
}

// An error record: code, count, count strs. False when it runs past the frame.
inline bool model_error_record(FieldReader* r) {
  uint32_t code = 0, count = 0;
  if (!r->int32(&code) || !r->int32(&count)) return false;
  const auto n = static_cast<int32_t>(count);
  // Each parameter takes at least one byte; a larger count must run past the frame.
  if (n > 0 && static_cast<size_t>(n) > r->remaining()) return false;
  std::string_view param;
  for (int32_t i = 0; i < n; ++i)
    if (!r->var(&param)) return false;
  return true;
}

struct ModelColumn {
  bool isconst;
  bool fixed;
  int32_t width;
};

inline StreamVerdict model_ack(FieldReader* r, StreamModel* m, std::vector<ModelColumn>* cols,
                               int64_t* vector_size) {
  uint32_t status = 0, count = 0, vsize = 0;
  if (!r->int32(&status)) return StreamVerdict::kMustAbort;
  if (status == 0xFFFFFFFFu) {
    m->ack_error = true;
    return model_error_record(r) ? StreamVerdict::kRuns : StreamVerdict::kMustAbort;
  }
  if (!r->int32(&count) || !r->int32(&vsize)) return StreamVerdict::kMustAbort;
  const auto n = static_cast<int32_t>(count);
  *vector_size = static_cast<int32_t>(vsize);
  // A negative count fails the allocation assertion; more columns than bytes left must run
  // past the frame (each name takes one byte at least).
  if (n < 0 || static_cast<size_t>(n) > r->remaining()) return StreamVerdict::kMustAbort;
  std::string_view field;
  for (int32_t i = 0; i < n; ++i)
    if (!r->var(&field)) return StreamVerdict::kMustAbort;
  int64_t areas = 0;
  bool mismatched = false;
  for (int32_t i = 0; i < n; ++i) {
    uint32_t isconst = 0;
    if (!r->int32(&isconst) || !r->var(&field) || field.size() >= MAX_TYPE_NAME)
      return StreamVerdict::kMustAbort;
    const std::string logical(field);
    if (!r->var(&field)) return StreamVerdict::kMustAbort;
    const std::string physical(field);  // the client looks the name up up to its first NUL
    const PhysicalType* type = ptype_lookup(physical.c_str());
    if (type == nullptr) return StreamVerdict::kMustAbort;
    const int32_t width = ptype_width(type);
    const int64_t values = isconst ? 1 : *vector_size;
    if (values < 0 || width <= 0) return StreamVerdict::kMustAbort;
    const uint32_t ltype = ltype_parse(logical.c_str());
    // "money" is read as an 8-byte double whatever the column: a narrower one is refused.
    if (ltype_id(ltype) == LTYPE_MONEY && width < 8) return StreamVerdict::kMustAbort;
    if (printer_cannot_read(ltype, type)) mismatched = true;
    areas += std::max<int64_t>(values, 1) * width;
    if (areas > kAreaBudget) return StreamVerdict::kOverBudget;
    cols->push_back({isconst != 0, type->fixed_size != 0, width});
  }
  return mismatched ? StreamVerdict::kMismatchedTypes : StreamVerdict::kRuns;
}

// One data message; appends what receive_data returns. False when the results end there.
inline bool model_data(std::string_view body, const std::vector<ModelColumn>& cols,
                       int64_t vector_size, StreamModel* m) {
  const auto end = [m](StreamVerdict verdict) {
    m->verdict = verdict;
    return false;
  };
  FieldReader r{body};
  uint32_t status = 0, count = 0;
  if (!r.int32(&status)) return end(StreamVerdict::kMustAbort);
  if (status == 0xFFFFFFFFu) {
    m->rows.push_back(-1);
    return end(model_error_record(&r) ? StreamVerdict::kRuns : StreamVerdict::kMustAbort);
  }
  if (!r.int32(&count)) return end(StreamVerdict::kMustAbort);
  const int64_t rows = static_cast<int32_t>(count);
  if (rows <= 0 || rows > vector_size) {
    m->rows.push_back(rows == 0 ? 0 : -1);
    return false;
  }
  std::string_view value;
  for (const ModelColumn& c : cols) {
    const int64_t k = c.isconst ? 1 : rows;
    bool fits = !c.fixed || r.raw(k * c.width);
    for (int64_t j = 0; !c.fixed && j < k && fits; ++j) fits = r.var(&value);
    if (!fits) return end(StreamVerdict::kMustAbort);
  }
  m->rows.push_back(rows);
  m->printed += rows;
  return m->printed <= kRowBudget || end(StreamVerdict::kOverBudget);
}

inline StreamModel model_stream(std::string_view stream) {
  StreamModel m;
  std::string_view body;
  if (!next_frame(&stream, &body)) return m;
  FieldReader ack{body};
  std::vector<ModelColumn> cols;
  int64_t vector_size = 0;
  m.verdict = model_ack(&ack, &m, &cols, &vector_size);
  if (m.verdict != StreamVerdict::kRuns || m.ack_error) return m;
  for (;;) {
    if (!next_frame(&stream, &body)) {
      m.rows.push_back(-1);  // closed, or a frame the network buffer refuses
      return m;
    }
    if (!model_data(body, cols, vector_size, &m)) return m;
  }
}

// How the peer hands over the stream.
struct Delivery {
  bool fragmented = false;
  uint32_t seed = 0;  // picks the cut points
};

// Cut points for a fragmented delivery: at most 8 pieces (each costs thread switches), biased
// towards small first pieces so that frame headers and length prefixes arrive split.
inline std::vector<size_t> cut_points(size_t size, uint32_t seed) {
  std::vector<size_t> cuts;
  uint32_t x = seed * 2654435761u + 1;
  size_t at = 0;
  for (int i = 0; i < 7 && at < size; ++i) {
    x = x * 1103515245u + 12345u;
    const size_t span = i < 4 ? 7 : std::max<size_t>(size / 4, 1);
    at += 1 + (x >> 8) % span;
    if (at < size) cuts.push_back(at);
  }
  return cuts;
}

// The peer's side: writes the stream (whole or piece by piece), then closes orderly. Stops early
// when the client has gone.
inline void play_peer(int32_t s, std::string_view stream, Delivery d) {
  auto send_all = [s](std::string_view bytes) {
    while (!bytes.empty()) {
      const int64_t n = net_send(s, bytes.data(), bytes.size());
      if (n <= 0) return false;
      bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
  };
  std::vector<size_t> cuts =
      d.fragmented ? cut_points(stream.size(), d.seed) : std::vector<size_t>{};
  cuts.push_back(stream.size());
  size_t from = 0;
  for (size_t to : cuts) {
    if (!send_all(stream.substr(from, to - from))) break;
    from = to;
    std::this_thread::yield();  // a chance for the client to take this piece before the next
  }
  net_close(s);
}

// A connected loopback pair: the client's socket and the peer's. False when sockets fail.
inline bool loopback_pair(int32_t* client, int32_t* peer) {
  static const int32_t listener = net_bind(net_loopback_address(), 0, true);
  if (listener < 0) return false;
  *client = net_tcp_socket();
  if (*client < 0) return false;
  if (net_connect(*client, net_loopback_address(), net_local_port(listener)) != 0 ||
      (*peer = net_accept(listener)) < 0) {
    net_close(*client);
    return false;
  }
  // Each piece of a fragmented delivery leaves at once rather than waiting for an acknowledgement.
  net_set_nodelay(*peer);
  return true;
}

// What the client made of a stream: the printed table and the reception's outcomes.
struct ReceiveRun {
  bool ok = false;  // sockets and the output file were available
  std::string printed;
  std::vector<int64_t> rows;  // what each receive_data returned
  std::string events;         // a missing acknowledgement, or the text of an error in it
};

// The client's side of one query after sending it, as run_query does: the acknowledgement, then
// data messages printed to `out` in `mode` until one ends the results. The outcomes go to `run`
// when given (the allocation-failure test gives none, so that only client code allocates).
inline void receive_query(ClientConnection* conn, std::FILE* out, OutputMode mode,
                          ReceiveRun* run) {
  print_results = 0;
  const int got = NetBufferRecv(&conn->netbuf);
  QueryAck ack;
  if (got > 0) receive_ack(&conn->result, &conn->netbuf, &ack);
  if (got <= 0) {
    if (run) run->events = "no ack " + std::to_string(got);
  } else if (ack.is_error) {
    if (run) run->events = ack.error ? "ack error: " + server_error_text(ack.error) : "no memory";
    free_error(ack.error);
  } else {
    conn->vector_size = ack.vector_size;
    conn->column_count = ack.column_count;
    QueryResult& r = conn->result;
    r.printer = printer_open(out, ack.column_count, r.name, r.type, r.ltype, r.isconst, mode);
    print_results = 1;
    for (int64_t rows = 1; rows > 0;) {
      rows = receive_data(conn);
      if (run) run->rows.push_back(rows);
    }
    print_results = 0;
  }
  query_finish(&conn->result);
}

// The client's reception of `stream` delivered as `d` says, printed to a temporary file.
inline ReceiveRun run_reception(std::string_view stream, OutputMode mode, Delivery d) {
  ReceiveRun run;
  int32_t client = -1, peer = -1;
  std::FILE* out = std::tmpfile();
  if (out == nullptr || !loopback_pair(&client, &peer)) {
    if (out) std::fclose(out);
    return run;
  }
  // A small stream fits in the socket buffers: the peer can write it all before the client
  // reads, with no second thread. Pieces need a peer that runs alongside the client.
  std::thread writer;
  if (!d.fragmented && stream.size() <= 32 * 1024)
    play_peer(peer, stream, d);
  else
    writer = std::thread(play_peer, peer, stream, d);
  ClientConnection conn{};
  conn.socket = client;
  NetBufferInit(&conn.netbuf, client);
  receive_query(&conn, out, mode, &run);
  NetBufferClose(&conn.netbuf);
  if (writer.joinable()) writer.join();
  std::rewind(out);
  char block[4096];
  for (size_t n; (n = std::fread(block, 1, sizeof block, out)) > 0;) run.printed.append(block, n);
  std::fclose(out);
  run.ok = true;
  return run;
}

inline std::string join_rows(const std::vector<int64_t>& rows) {
  std::string s;
  for (int64_t r : rows) s += std::to_string(r) + " ";
  return s;
}

// The whole check for one fuzz input: empty when it holds, else what went wrong. `skipped` tells
// the caller the model ruled the input out (it must abort, or is over a budget).
inline std::string check_receive(const uint8_t* data, size_t size, bool* skipped = nullptr) {
  fuzz_init();
  if (skipped) *skipped = true;
  if (size < 2) return {};
  // Every output mode, the data formats (4 to 8) included; the seeds use 0 to 3.
  const auto mode = static_cast<OutputMode>(data[0] % 9);
  const uint32_t seed = data[1];
  const std::string_view stream(reinterpret_cast<const char*>(data) + 2, size - 2);
  const StreamModel model = model_stream(stream);
  if (model.verdict != StreamVerdict::kRuns) return {};
  if (skipped) *skipped = false;
  const ReceiveRun whole = run_reception(stream, mode, {false, seed});
  const ReceiveRun split = run_reception(stream, mode, {true, seed});
  if (!whole.ok || !split.ok) return {};  // no sockets here: nothing to judge
  if (whole.printed != split.printed)
    return "whole and fragmented delivery printed different text:\n[" + whole.printed + "]\n[" +
           split.printed + "]";
  const std::string outcome = whole.events + join_rows(whole.rows);
  if (outcome != split.events + join_rows(split.rows))
    return "different outcomes: " + outcome + "/ " + split.events + join_rows(split.rows);
  if (whole.rows != model.rows)
    return "row counts " + join_rows(whole.rows) + "differ from the stream's " +
           join_rows(model.rows);
  return {};
}

}  // namespace kest_fuzz
