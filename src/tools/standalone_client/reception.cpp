#include "tools/standalone_client/reception.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "kernel/ltype.h"
#include "tools/standalone_client/client_globals.h"
#include "tools/standalone_client/connection.h"
#include "tools/standalone_client/printer.h"
#include "tools/standalone_client/terminal_text.h"
#include "utils/kest_assert.h"
#include "utils/netbuffer.h"
#include "utils/znlog.h"

namespace {

constexpr const char* kFacility = "KESTCLIENT";
constexpr uint32_t kStatusError = 0xFFFFFFFFu;

template <typename T>
T* alloc_array(int64_t count) {
  return count < 0 ? nullptr : static_cast<T*>(calloc(static_cast<size_t>(count) + 1, sizeof(T)));
}

// The reference is named as the result has always been named, so that the assertion texts
// below read as they always have.
void allocate_columns(QueryResult& queryres, int32_t n) {
  queryres.name = alloc_array<char*>(n);
  queryres.type = alloc_array<const PhysicalType*>(n);
  queryres.ltype = alloc_array<uint32_t>(n);
  queryres.isconst = alloc_array<int32_t>(n);
  queryres.width = alloc_array<int32_t>(n);
  queryres.data = alloc_array<void*>(n);
  KEST_ASSERT(kFacility, queryres.name && queryres.type && queryres.ltype && queryres.isconst &&
                             queryres.width && queryres.data);
}

void read_names(QueryResult& queryres, NetBuffer* netbuf, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    const int64_t len = NetBufferGetLen(netbuf);
    queryres.name[i] = static_cast<char*>(malloc(static_cast<size_t>(len) + 1));
    KEST_ASSERT(kFacility, queryres.name[i]);
    NetBufferGetStr(netbuf, queryres.name[i]);
  }
}

void read_column_type(QueryResult& queryres, NetBuffer* netbuf, int32_t i, int64_t vector_size) {
  queryres.isconst[i] = static_cast<int32_t>(NetBufferGetInt(netbuf));
  KEST_ASSERT(kFacility, NetBufferGetLen(netbuf) < MAX_TYPE_NAME);
  char text[MAX_TYPE_NAME];
  NetBufferGetStr(netbuf, text);
  queryres.ltype[i] = ltype_parse(text);

  std::string physical(static_cast<size_t>(NetBufferGetLen(netbuf)), '\0');
  NetBufferGetStr(netbuf, physical.data());
  const PhysicalType* type = ptype_lookup(physical.c_str());
  if (type == nullptr) {
    ZN_LOG(kFacility, ZN_ERROR, "Unknown type: %s\n", physical.c_str());
    abort();
  }
  queryres.type[i] = type;
  queryres.width[i] = ptype_width(type);
  // A money value is always read as an 8-byte double, whatever column carries it: a narrower
  // column would be read past its values. Malformed, like a field running past its frame.
  KEST_ASSERT(kFacility, ltype_id(queryres.ltype[i]) != LTYPE_MONEY || queryres.width[i] >= 8);
  const int64_t values = queryres.isconst[i] ? 1 : vector_size;
  // Every message writes the values it carries before the printer reads them: no zero fill.
  if (values >= 0 && queryres.width[i] > 0)
    queryres.data[i] =
        malloc(static_cast<size_t>(values ? values : 1) * static_cast<size_t>(queryres.width[i]));
  KEST_ASSERT(kFacility, queryres.data[i]);
}

void read_column(QueryResult& result, NetBuffer* netbuf, int32_t column, int64_t rows) {
  const int64_t k = result.isconst[column] ? 1 : rows;
  if (result.type[column]->fixed_size != 0) {
    NetBufferGet(netbuf, result.data[column], k * result.width[column]);
    return;
  }
  // The printer reads each value as a terminated string: terminated where it lies in the
  // message, so a message of texts is held once; the rows are printed before the next receive.
  NetBufferGetStrsInPlace(netbuf, k, static_cast<char**>(result.data[column]));
}

void free_columns(QueryResult& result) {
  for (int32_t i = 0; result.name && result.name[i]; ++i) {
    free(result.name[i]);
    free(result.data[i]);
  }
  free(result.name);
  free(result.type);
  free(result.ltype);
  free(result.isconst);
  free(result.width);
  free(result.data);
}

void append_unknown_code_text(std::string& out, const ErrorRecord* record) {
  out = "Unknown error code ";
  out += std::to_string(record->code);
  if (record->num_err_params <= 0 || record->params == nullptr) {
    out += " (no parameters)";
    return;
  }
  out += " (parameters: ";
  for (int32_t i = 0; i < record->num_err_params; ++i) {
    if (i > 0) out += ", ";
    const char* p = record->params[i];
    if (p == nullptr) {
      out += "null";
      continue;
    }
    out += '\'';
    out += p;
    out += '\'';
  }
  out += ")";
}

}  // namespace

void receive_ack(QueryResult* result, NetBuffer* netbuf, QueryAck* ack) {
  KEST_ASSERT(kFacility, netbuf);
  KEST_ASSERT(kFacility, ack);
  *ack = QueryAck{};
  if (NetBufferGetInt(netbuf) == kStatusError) {
    ack->is_error = true;
    ack->error = receive_error(netbuf);
    return;
  }
  QueryResult& queryres = *result;
  const auto n = static_cast<int32_t>(NetBufferGetInt(netbuf));
  const int64_t vector_size = static_cast<int32_t>(NetBufferGetInt(netbuf));
  allocate_columns(queryres, n);
  read_names(queryres, netbuf, n);
  for (int32_t i = 0; i < n; ++i) read_column_type(queryres, netbuf, i, vector_size);
  ack->column_count = n;
  ack->vector_size = vector_size;
  if (print_results)
    queryres.printer =
        printer_open(queryres.out ? queryres.out : stdout, n, queryres.name, queryres.type,
                     queryres.ltype, queryres.isconst, output_mode_code, print_options);
}

int64_t decode_data(QueryResult* result, NetBuffer* netbuf, int64_t vector_size) {
  if (NetBufferGetInt(netbuf) == kStatusError) {
    printer_flush(result->printer);  // the rows before the error line
    report_server_error(receive_error(netbuf));
    result->failure = DataFailure::kServerError;
    return -1;
  }
  const int64_t rows = static_cast<int32_t>(NetBufferGetInt(netbuf));
  if (rows == 0) {
    ZN_LOG(kFacility, ZN_DEBUG, "no more data");
    return 0;
  }
  if (rows < 0) {
    ZN_LOG(kFacility, ZN_DEBUG, "Invalid number of tuples");
    result->failure = DataFailure::kRowCount;
    return -1;
  }
  if (rows > vector_size) {
    ZN_LOG(kFacility, ZN_ERROR, "Received more tuples than vectorsize. Aborting.");
    result->failure = DataFailure::kRowCount;
    return -1;
  }
  for (int32_t i = 0; result->name && result->name[i]; ++i) read_column(*result, netbuf, i, rows);
  if (print_results && result->printer) printer_rows(result->printer, result->data, nullptr, rows);
  return rows;
}

int64_t receive_data(ClientConnection* connection) {
  NetBuffer* netbuf = &connection->netbuf;
  // What was printed must be on the screen before the client waits for the server; when the
  // next message is already here, the output of both goes out together.
  if (!NetBufferFrameReady(netbuf)) printer_flush(connection->result.printer);
  const int got = NetBufferRecv(netbuf);
  if (got == -2) {  // only with a receive time-out, which the session reports
    connection->result.failure = DataFailure::kTimedOut;
    return -1;
  }
  if (got <= 0) {
    ZN_LOG(kFacility, ZN_ERROR, got == 0 ? "connection closed by server" : "network error");
    connection->result.failure = DataFailure::kConnection;
    return -1;
  }
  return decode_data(&connection->result, netbuf, connection->vector_size);
}

void query_cancel(QueryResult* result) {
  const bool printing = result->printer != nullptr;
  FILE* const out = result->out ? result->out : stdout;
  query_finish(result);
  if (printing) {
    std::fputs("Cancelled: the rest of the result was not shown.\n", out);
    std::fflush(out);
  }
}

void query_finish(QueryResult* result) {
  if (result->printer) printer_close(result->printer);
  FILE* const out = result->out;
  free_columns(*result);
  *result = QueryResult{};
  result->out = out;  // where results go is the session's choice, not the query's
}

ErrorRecord* receive_error(NetBuffer* netbuf) {
  auto* record = static_cast<ErrorRecord*>(calloc(1, sizeof(ErrorRecord)));
  if (record == nullptr) {
    ZN_LOG(kFacility, ZN_ERROR, "buf2KestError: error allocating memory");
    return nullptr;
  }
  record->code = static_cast<int32_t>(NetBufferGetInt(netbuf));
  const auto count = static_cast<int32_t>(NetBufferGetInt(netbuf));
  ZN_LOG(kFacility, ZN_DEBUG, "received error %d with %d parameters", record->code, count);
  if (count <= 0) return record;
  record->params = static_cast<char**>(calloc(static_cast<size_t>(count), sizeof(char*)));
  if (record->params == nullptr) {
    ZN_LOG(kFacility, ZN_ERROR, "buf2KestError: error allocating memory");
    free(record);
    return nullptr;
  }
  for (int32_t i = 0; i < count; ++i) {
    const int64_t len = NetBufferGetLen(netbuf);
    char* param = static_cast<char*>(malloc(static_cast<size_t>(len) + 1));
    if (param == nullptr) {
      ZN_LOG(kFacility, ZN_ERROR, "buf2KestError: error allocating memory");
      free_error(record);
      return nullptr;
    }
    NetBufferGetStr(netbuf, param);
    record->params[i] = param;
    record->num_err_params = i + 1;
    ZN_LOG(kFacility, ZN_DEBUG, "parameter %d = %s", i, param);
  }
  return record;
}

void free_error(ErrorRecord* record) {
  if (record == nullptr) return;
  for (int32_t i = 0; record->params && i < record->num_err_params; ++i) free(record->params[i]);
  free(record->params);
  free(record);
}

std::string server_error_text(const ErrorRecord* record) {
  std::string text;
  // Codes come from the server: one outside the table must never index it.
  if (record->code < 0 || record->code >= KEST_ERROR_COUNT ||
      kest_error_template(record->code) == nullptr) {
    append_unknown_code_text(text, record);
    return text;
  }
  text.assign(kest_error_msg_len(record), '\0');
  kest_error_format(record, text.data());
  text.resize(std::strlen(text.c_str()));
  return text;
}

namespace {

// The pieces of an error message on their way to standard output, gathered so that a message
// of usual size leaves in one write however many pieces it has; a long one goes out in blocks
// and is never built whole. At the shell's terminal its control characters are escaped.
class ErrorLine {
 public:
  static void sink(void* arg, const char* bytes, size_t len) {
    static_cast<ErrorLine*>(arg)->add(std::string_view(bytes, len));
  }
  void add(std::string_view piece) {
    if (escape_control_chars)
      escaper_.feed(piece, &block_);
    else
      block_ += piece;
    if (block_.size() >= kBlock) flush();
  }
  void finish() {
    if (escape_control_chars) escaper_.finish(&block_);
    block_ += '\n';
    flush();
    std::fflush(stdout);
  }

 private:
  static constexpr size_t kBlock = 64 << 10;
  void flush() {
    std::fwrite(block_.data(), 1, block_.size(), stdout);
    block_.clear();
  }
  std::string block_ = "Error: ";
  ControlEscaper escaper_;
};

}  // namespace

void report_server_error(ErrorRecord* record) {
  if (record == nullptr) return;
  ErrorLine line;
  kest_error_emit(record, ErrorLine::sink, &line);
  line.finish();
  if (zn_log_enabled(kFacility, ZN_DEBUG))
    ZN_LOG(kFacility, ZN_DEBUG, "%s", server_error_text(record).c_str());
  free_error(record);
}
