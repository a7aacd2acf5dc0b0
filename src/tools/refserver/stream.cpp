#include "tools/refserver/stream.h"

#include <string>

#include "kernel/ltype.h"
#include "tools/refserver/cast.h"
#include "utils/kest_error.h"
#include "utils/netbuffer.h"

namespace {

constexpr uint32_t kStatusOk = 0;
constexpr uint32_t kStatusError = 0xFFFFFFFFu;

void put_type(NetBuffer* buf, bool is_const, uint32_t ltype, const char* physical) {
  char text[64];
  ltype_to_string(text, ltype);
  NetBufferPutInt(buf, is_const ? 1 : 0);
  NetBufferPutStr(buf, text);
  NetBufferPutStr(buf, physical);
}

// Appends the fields of a data message while it stays within the frame limit; past it, only
// counts them, so that one routine both builds the message and tells how large it would be.
class DataWriter {
 public:
  DataWriter(NetBuffer* buf, int64_t limit) : buf_(buf), limit_(limit), size_(buf->pos) {}
  int64_t size() const { return size_; }

  void put(const void* bytes, int32_t len) {
    if (fits(len)) NetBufferPut(buf_, bytes, len);
    size_ += len;
  }
  void put_var(const std::string& s) {
    const int64_t len = static_cast<int64_t>(s.size());
    const int64_t field = len / 255 + 1 + len;  // the length prefix and the bytes
    if (fits(field)) NetBufferPutVar(buf_, s.data(), static_cast<int32_t>(len));
    size_ += field;
  }

 private:
  bool fits(int64_t len) const { return size_ + len <= limit_; }

  NetBuffer* buf_;
  int64_t limit_;
  int64_t size_;  // of the message as it would be, header included
};

void put_values(DataWriter& out, const Vector& v, size_t count) {
  if (value_form(v.type.ltype) == ValueForm::text) {
    for (size_t i = 0; i < count; ++i) out.put_var(v.texts[v.at(i)]);
    return;
  }
  alignas(16) unsigned char bytes[16];
  for (size_t i = 0; i < count; ++i) {
    const int width = store_physical(v, i, bytes);
    out.put(bytes, width);
  }
}

void put_indicator(DataWriter& out, const Vector& v, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    const unsigned char flag = v.is_null(i) ? 1 : 0;
    out.put(&flag, 1);
  }
}

}  // namespace

int32_t wire_column_count(const Schema& schema) {
  int32_t n = 0;
  for (const ColumnType& t : schema.types) n += t.nullable ? 2 : 1;
  return n;
}

void put_ack(NetBuffer* buf, const Schema& schema, int32_t vector_size,
             const StreamDistortion& distortion) {
  NetBufferClear(buf);
  NetBufferPutInt(buf, kStatusOk);
  NetBufferPutInt(buf, static_cast<uint32_t>(wire_column_count(schema)));
  NetBufferPutInt(buf, static_cast<uint32_t>(vector_size));
  for (size_t c = 0; c < schema.names.size(); ++c) {
    if (schema.types[c].nullable) NetBufferPutStr(buf, "");
    NetBufferPutStr(buf, schema.names[c].c_str());
  }
  for (size_t c = 0; c < schema.names.size(); ++c) {
    const bool is_const = schema.constants[c] != nullptr;
    if (schema.types[c].nullable) put_type(buf, is_const, LTYPE_BOOL, "uchr");
    const char* physical = physical_of(schema.types[c])->name;
    if (c == 0 && distortion.physical_name) physical = distortion.physical_name;
    put_type(buf, is_const, schema.types[c].ltype, physical);
  }
}

int64_t put_data(NetBuffer* buf, const Schema& schema, const Batch& batch,
                 const StreamDistortion& distortion, int64_t limit) {
  NetBufferClear(buf);
  NetBufferPutInt(buf, kStatusOk);
  NetBufferPutInt(buf,
                  static_cast<uint32_t>(batch.rows + static_cast<size_t>(distortion.extra_rows)));
  DataWriter out(buf, limit);
  for (size_t c = 0; c < schema.names.size(); ++c) {
    const Vector& v = batch.columns[c];
    const size_t count = v.is_const ? 1 : batch.rows;
    if (schema.types[c].nullable) put_indicator(out, v, count);
    put_values(out, v, count);
  }
  return out.size();
}

void put_end(NetBuffer* buf) {
  NetBufferClear(buf);
  NetBufferPutInt(buf, kStatusOk);
  NetBufferPutInt(buf, 0);
}

void put_error(NetBuffer* buf, const KestError* error) {
  NetBufferClear(buf);
  NetBufferPutInt(buf, kStatusError);
  NetBufferPutInt(buf, static_cast<uint32_t>(error->code));
  NetBufferPutInt(buf, static_cast<uint32_t>(error->num_err_params));
  for (int32_t i = 0; i < error->num_err_params; ++i) {
    NetBufferPutStr(buf, error->params[i] ? error->params[i] : "");
  }
}
