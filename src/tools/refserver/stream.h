// The messages of a result, built into a NetBuffer: the acknowledgement, data messages and the
// error record, in the layout the client reads.
//
// Column layout on the wire: every schema column is sent as itself, except that a nullable
// column is preceded by its null indicator: a column with an empty name, logical type "bool"
// (physical "uchr"), one byte per value, non-zero for null, constant when the column is.
#pragma once

#include <cstdint>

#include "tools/refserver/expr.h"
#include "utils/netbuffer.h"

struct KestError;

// Test-only distortions of the acknowledgement and data messages (the fault modes).
struct StreamDistortion {
  const char* physical_name = nullptr;  // sent instead of the first column's physical type
  int32_t extra_rows = 0;               // added to the row count a data message announces
};

// Each put starts a new message (NetBufferClear) and leaves it built, ready to send; a data
// message only when it fits in a frame.
void put_ack(NetBuffer* buf, const Schema& schema, int32_t vector_size,
             const StreamDistortion& distortion = {});
// Returns the size of the data message in bytes; above `limit` the message was not built whole
// and must not be sent (a vector of long texts can outgrow any frame).
int64_t put_data(NetBuffer* buf, const Schema& schema, const Batch& batch,
                 const StreamDistortion& distortion = {}, int64_t limit = NETBUF_MAX_FRAME);
// The data message with zero rows that ends a result.
void put_end(NetBuffer* buf);
// A status of -1 followed by the error record (code, parameter count, parameters).
void put_error(NetBuffer* buf, const KestError* error);

// The number of columns a schema has on the wire (indicators included).
int32_t wire_column_count(const Schema& schema);
