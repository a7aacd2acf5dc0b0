// The reference server's data messages: the size put_data reports is the size of the message it
// builds, and a message that would outgrow its limit is reported, never written past it.
#include "tools/refserver/stream.h"

#include <gtest/gtest.h>

#include <string>

#include "kernel/ltype.h"
#include "utils/netbuffer.h"

namespace {

Vector texts(std::vector<std::string> values, bool nullable = false) {
  Vector v = make_vector(ColumnType{LTYPE_VCHAR, nullable, false}, values.size());
  v.rows = values.size();
  v.texts = std::move(values);
  if (nullable) v.nulls.assign(v.rows, 0);
  return v;
}

Vector ints(size_t rows) {
  Vector v = make_vector(ColumnType{LTYPE_SINT, false, false}, rows);
  for (size_t i = 0; i < rows; ++i) v.ints.push_back(static_cast<int>(i));
  v.rows = rows;
  return v;
}

struct Message {
  Schema schema;
  Batch batch;
  int64_t bytes;  // the whole frame: header, status, row count, fields
};

Message message(std::vector<Vector> columns, int64_t bytes) {
  Message m;
  m.batch.rows = columns.empty() ? 0 : columns[0].rows;
  for (Vector& v : columns) {
    m.schema.names.push_back("c" + std::to_string(m.schema.names.size()));
    m.schema.types.push_back(v.type);
    m.schema.constants.push_back(nullptr);
    m.batch.columns.push_back(std::move(v));
  }
  m.bytes = bytes;
  return m;
}

// A var's prefix takes floor(L / 255) + 1 bytes: a 600-byte text costs 603.
TEST(RefserverStream, DataMessageSizeIsWhatIsBuilt) {
  types_init();
  const Message cases[] = {
      message({ints(3)}, 12 + 3 * 4),
      message({texts({"", "ab", std::string(600, 'x')})}, 12 + 1 + 3 + 603),
      message({texts({"a", "b"}, true), ints(2)}, 12 + 2 + 2 * 2 + 2 * 4),
  };
  for (const Message& m : cases) {
    NetBuffer nb{};  // no socket: only built, never sent
    nb.socket = -1;
    NetBufferClear(&nb);
    EXPECT_EQ(put_data(&nb, m.schema, m.batch), m.bytes);
    EXPECT_EQ(nb.pos, m.bytes);  // built whole
    // With a limit one byte short the size is still told, and nothing was written past it.
    EXPECT_EQ(put_data(&nb, m.schema, m.batch, {}, m.bytes - 1), m.bytes);
    EXPECT_LT(nb.pos, m.bytes);
    NetBufferClose(&nb);
  }
}

}  // namespace
