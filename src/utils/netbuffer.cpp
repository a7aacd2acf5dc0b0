#include "utils/netbuffer.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "utils/kest_assert.h"
#include "utils/netbuffer_socket.h"
#include "utils/znlog.h"

namespace {

constexpr const char* kFacility = "NETBUFFER";
constexpr unsigned char kVarStep = 255;
// A data area up to this size is kept whatever the next frame needs.
constexpr int32_t kKeepAreaUpTo = 16 << 20;

void assert_building(const NetBuffer* buf) {
  KEST_ASSERT(kFacility, buf && buf->state == NETBUF_BUILDING);
}

void assert_parsing(const NetBuffer* buf) {
  KEST_ASSERT(kFacility, buf && buf->state == NETBUF_PARSING);
}

// Grows the data area by doubling until it holds `required` bytes. A message beyond the frame
// cap can never be sent or received, so it counts as an allocation that fails.
void make_room(NetBuffer* buf, int64_t required) {
  if (required <= buf->size) return;
  if (required > NETBUF_MAX_FRAME) {
    ZN_LOG(kFacility, ZN_ERROR, "message of %" PRId64 " bytes exceeds the frame limit of %d bytes",
           required, NETBUF_MAX_FRAME);
    free(buf->data);
    buf->data = nullptr;
  } else {
    int32_t size = buf->size > 0 ? buf->size : NETBUF_INITIAL_SIZE;
    while (size < required) size *= 2;
    char* grown = static_cast<char*>(realloc(buf->data, static_cast<size_t>(size)));
    if (grown == nullptr) free(buf->data);
    buf->data = grown;
    buf->size = size;
  }
  KEST_ASSERT(kFacility, buf->data);
}

void put_bytes(NetBuffer* buf, const void* bytes, int64_t len) {
  if (len > 0) std::memcpy(buf->data + buf->pos, bytes, static_cast<size_t>(len));
  buf->pos += static_cast<int32_t>(len);
}

void store_be32(char* at, uint32_t value) {
  for (int i = 3; i >= 0; --i, value >>= 8) at[i] = static_cast<char>(value & 0xFF);
}

uint32_t load_be32(const char* at) {
  uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value = (value << 8) | static_cast<unsigned char>(at[i]);
  return value;
}

// The var prefix at `at`: the length, and in `*prefix` the number of prefix bytes. Asserts that
// the prefix and the bytes it announces both end inside the message.
int64_t decode_var_length(const NetBuffer* buf, int64_t* prefix) {
  int64_t pos = buf->pos;
  int64_t len = 0;
  const auto* bytes = reinterpret_cast<const unsigned char*>(buf->data);
  while (pos < buf->used && bytes[pos] == kVarStep) {
    len += kVarStep;
    ++pos;
  }
  KEST_ASSERT_TEXT(kFacility, pos < buf->used, "pos + len <= buf->used");
  len += bytes[pos++];
  KEST_ASSERT(kFacility, pos + len <= buf->used);
  *prefix = pos - buf->pos;
  return len;
}

// The length of the str field at pos, and in `*prefix` the bytes of its length prefix; the field
// must end inside the message.
int64_t next_str_length(const NetBuffer* buf, int64_t* prefix) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(buf->data);
  if (buf->pos < buf->used && bytes[buf->pos] != kVarStep) {
    const int64_t len = bytes[buf->pos];  // the usual short text: a one-byte prefix
    KEST_ASSERT_TEXT(kFacility, buf->pos + 1 + len <= buf->used, "pos + len <= buf->used");
    *prefix = 1;
    return len;
  }
  return decode_var_length(buf, prefix);
}

// Moves up to `len` bytes that were read ahead to `dest`; returns how many.
int32_t take_ahead(NetBuffer* buf, char* dest, int32_t len) {
  const int32_t n = std::min(len, buf->ahead_end - buf->ahead_pos);
  std::memcpy(dest, buf->ahead + buf->ahead_pos, static_cast<size_t>(n));
  buf->ahead_pos += n;
  return n;
}

// Brings data[pos, used) one step closer to complete: from the bytes read ahead when there are
// any, else with one recv. A rest of a whole chunk or more goes straight into the data area; a
// shorter rest is read as a whole chunk into the read-ahead area, which brings in whatever of
// the next frames has arrived with it. Returns recv's result, or 1 when no recv was needed.
int64_t fill(NetBuffer* buf) {
  const int32_t want = buf->used - buf->pos;
  if (buf->ahead_pos < buf->ahead_end) {
    buf->pos += take_ahead(buf, buf->data + buf->pos, want);
    return 1;
  }
  if (want >= NETBUF_CHUNK) {
    const int64_t n = net_recv(buf->socket, buf->data + buf->pos, NETBUF_CHUNK);
    if (n > 0) buf->pos += static_cast<int32_t>(n);
    return n;
  }
  KEST_ASSERT(kFacility, buf->ahead);
  const int64_t n = net_recv(buf->socket, buf->ahead, NETBUF_CHUNK);
  if (n > 0) {
    buf->ahead_pos = 0;
    buf->ahead_end = static_cast<int32_t>(n);
    buf->pos += take_ahead(buf, buf->data + buf->pos, want);
  }
  return n;
}

// A received frame replaces whatever the area held, so the area is sized for it afresh: a larger
// one is allocated anew rather than grown (nothing stale is copied, and the old area is gone
// before the new one is touched), and one far larger than the frame is given back, so that a
// single huge answer does not stay resident for the rest of the connection. The header already
// received is kept.
void size_for_frame(NetBuffer* buf, int32_t total) {
  const bool grow = total > buf->size;
  const bool shrink = buf->size > kKeepAreaUpTo && total <= buf->size / 4;
  if (!grow && !shrink) return;
  int32_t size = NETBUF_INITIAL_SIZE;
  while (size < total) size *= 2;
  char header[4];
  std::memcpy(header, buf->data, sizeof header);
  free(buf->data);
  buf->data = static_cast<char*>(malloc(static_cast<size_t>(size)));
  KEST_ASSERT(kFacility, buf->data);
  std::memcpy(buf->data, header, sizeof header);
  buf->size = size;
}

// The steps of taking one frame in, shared by the socket (NetBufferRecv) and plain bytes
// (NetBufferLoad), so that both check a frame and hand it over alike.

// The 4-byte header is expected at data[0].
void begin_frame(NetBuffer* buf) {
  buf->state = NETBUF_RECEIVING;
  buf->used = 4;
  buf->pos = 0;
}

// The length the header in data[0, 4) announces, or -1 (logged) when it lies outside
// 4 .. NETBUF_MAX_FRAME.
int64_t announced_length(const NetBuffer* buf) {
  const uint32_t total = load_be32(buf->data);
  if (total < 4 || total > uint32_t{NETBUF_MAX_FRAME}) {
    ZN_LOG(kFacility, ZN_ERROR, "Invalid message length %" PRIu32 " (allowed 4 to %d)", total,
           NETBUF_MAX_FRAME);
    return -1;
  }
  return total;
}

// The rest of a frame of `total` checked bytes is expected; the data area holds all of it.
void expect_body(NetBuffer* buf, int64_t total) {
  buf->used = static_cast<int32_t>(total);
  size_for_frame(buf, buf->used);
}

// The whole frame is in: its fields may be read, from the first one on.
void end_frame(NetBuffer* buf) {
  buf->state = NETBUF_PARSING;
  buf->pos = 4;
}

// What a receive did while reading the frame header.
enum class HeaderResult { kComplete, kClosed, kError, kTimedOut };

// A receive whose time-out ran out: no byte came for as long as the socket allows.
bool timed_out(int64_t n) {
  if (n >= 0 || !net_error_is_timeout(net_last_error())) return false;
  ZN_LOG(kFacility, ZN_INFO, "No data within the receive time-out");
  return true;
}

HeaderResult receive_header(NetBuffer* buf) {
  while (buf->pos < buf->used) {
    const int64_t n = fill(buf);
    if (n > 0) continue;
    if (timed_out(n)) return HeaderResult::kTimedOut;
    const int error = n == 0 ? 0 : net_last_error();
    if (n == 0 || net_error_is_reset(error)) {
      if (n != 0) buf->state = NETBUF_RESET;
      ZN_LOG(kFacility, ZN_INFO, "Client closed connection");
      return HeaderResult::kClosed;
    }
    ZN_LOG(kFacility, ZN_ERROR, "Error while receiving length: %d", error);
    return HeaderResult::kError;
  }
  return HeaderResult::kComplete;
}

int receive_body(NetBuffer* buf) {
  while (buf->pos < buf->used) {
    const int64_t n = fill(buf);
    if (n > 0) continue;
    if (timed_out(n)) return -2;
    if (n == 0)
      ZN_LOG(kFacility, ZN_ERROR, "Remote socket closed while receiving");
    else
      ZN_LOG(kFacility, ZN_ERROR, "Error while receiving data: %d", net_last_error());
    return -1;
  }
  return 0;
}

}  // namespace

int network_init() { return net_startup(); }

void NetBufferInit(NetBuffer* buf, int32_t socket) {
  KEST_ASSERT(kFacility, buf);
  free(buf->data);
  buf->state = NETBUF_BUILDING;
  buf->socket = socket;
  buf->pos = 4;
  buf->used = 0;
  buf->size = NETBUF_INITIAL_SIZE;
  buf->data = static_cast<char*>(calloc(1, NETBUF_INITIAL_SIZE));
  KEST_ASSERT(kFacility, buf->data);
  free(buf->ahead);
  buf->ahead = static_cast<char*>(malloc(NETBUF_CHUNK));
  KEST_ASSERT(kFacility, buf->ahead);
  buf->ahead_pos = 0;
  buf->ahead_end = 0;
  if (socket != kNetNoSocket && net_set_nodelay(socket) != 0)
    ZN_LOG(kFacility, ZN_ERROR, "%s: %s", "setting TCP_NODELAY", net_error_text(net_last_error()));
}

void NetBufferClear(NetBuffer* buf) {
  KEST_ASSERT(kFacility, buf);
  buf->pos = 4;
  buf->used = 0;
  if (buf->state != NETBUF_RESET) buf->state = NETBUF_BUILDING;
}

void NetBufferPut(NetBuffer* buf, const void* bytes, int32_t len) {
  if (buf && buf->state == NETBUF_RESET) return;
  assert_building(buf);
  if (len <= 0) return;
  make_room(buf, int64_t{buf->pos} + len);
  put_bytes(buf, bytes, len);
}

void NetBufferPutInt(NetBuffer* buf, uint32_t value) {
  char bytes[4];
  store_be32(bytes, value);
  NetBufferPut(buf, bytes, 4);
}

void NetBufferPutSlng(NetBuffer* buf, int64_t value) {
  char bytes[8];
  uint64_t bits = static_cast<uint64_t>(value);
  for (int i = 7; i >= 0; --i, bits >>= 8) bytes[i] = static_cast<char>(bits & 0xFF);
  NetBufferPut(buf, bytes, 8);
}

void NetBufferPutVar(NetBuffer* buf, const void* bytes, int32_t len) {
  if (buf && buf->state == NETBUF_RESET) return;
  assert_building(buf);
  if (len < 0) len = 0;
  const int32_t steps = len / kVarStep;
  make_room(buf, int64_t{buf->pos} + steps + len + 1);
  std::memset(buf->data + buf->pos, kVarStep, static_cast<size_t>(steps));
  buf->pos += steps;
  buf->data[buf->pos++] = static_cast<char>(len % kVarStep);
  put_bytes(buf, bytes, len);
}

void NetBufferPutStr(NetBuffer* buf, const char* text) {
  const size_t len = text ? std::strlen(text) : 0;
  // Longer than any frame: make_room refuses it with its assertion.
  NetBufferPutVar(buf, text, len > size_t{NETBUF_MAX_FRAME} ? NETBUF_MAX_FRAME : int32_t(len));
}

int NetBufferSend(NetBuffer* buf) {
  KEST_ASSERT(kFacility, buf);
  if (buf->state == NETBUF_RESET) {
    ZN_LOG(kFacility, ZN_WARN, "Not sending data, connection was reset before.");
    return -1;
  }
  assert_building(buf);
  buf->state = NETBUF_SENDING;
  buf->used = buf->pos;
  store_be32(buf->data, static_cast<uint32_t>(buf->used));
  buf->pos = 0;
  while (buf->pos < buf->used) {
    const int32_t chunk = std::min(buf->used - buf->pos, NETBUF_CHUNK);
    const int64_t n = net_send(buf->socket, buf->data + buf->pos, static_cast<size_t>(chunk));
    if (n < 0) {
      const int error = net_last_error();
      const int saved_errno = errno;
      if (net_error_is_reset(error)) buf->state = NETBUF_RESET;
      ZN_LOG(kFacility, ZN_ERROR, "%s: %s", "Error while sending", std::strerror(saved_errno));
      return -1;
    }
    buf->pos += static_cast<int32_t>(n);
  }
  return 0;
}

int NetBufferRecv(NetBuffer* buf) {
  KEST_ASSERT(kFacility, buf);
  // A reset connection stays reset: nothing more can arrive on it.
  if (buf->state == NETBUF_RESET) {
    ZN_LOG(kFacility, ZN_INFO, "Client closed connection");
    return 0;
  }
  begin_frame(buf);
  switch (receive_header(buf)) {
    case HeaderResult::kClosed:
      return 0;
    case HeaderResult::kError:
      return -1;
    case HeaderResult::kTimedOut:
      return -2;
    case HeaderResult::kComplete:
      break;
  }
  const int64_t total = announced_length(buf);
  if (total < 0) return -1;
  expect_body(buf, total);
  if (const int body = receive_body(buf); body != 0) return body;
  end_frame(buf);
  return 1;
}

int NetBufferLoad(NetBuffer* buf, const void* bytes, int64_t len, int64_t* consumed) {
  KEST_ASSERT(kFacility, buf && consumed);
  *consumed = 0;
  if (buf->state == NETBUF_RESET) return 0;
  begin_frame(buf);
  if (len < 4) return 0;
  const char* in = static_cast<const char*>(bytes);
  std::memcpy(buf->data, in, 4);
  buf->pos = 4;
  const int64_t total = announced_length(buf);
  if (total < 0) return -1;
  if (len < total) return 0;  // checked before expect_body: a partial frame allocates nothing
  expect_body(buf, total);
  std::memcpy(buf->data + 4, in + 4, static_cast<size_t>(total - 4));
  buf->pos = buf->used;
  end_frame(buf);
  *consumed = total;
  return 1;
}

bool NetBufferFrameReady(const NetBuffer* buf) {
  const int32_t have = buf->ahead_end - buf->ahead_pos;
  if (have < 4) return false;
  // A length field out of range is ready too: NetBufferRecv refuses it without waiting.
  const uint32_t total = load_be32(buf->ahead + buf->ahead_pos);
  return total < 4 || total <= static_cast<uint32_t>(have);
}

int NetBufferTimedRecv(NetBuffer* buf, int64_t microseconds) {
  KEST_ASSERT(kFacility, buf);
  const bool pending = buf->ahead_pos < buf->ahead_end;
  const int ready = pending ? 1 : net_wait_readable(buf->socket, microseconds);
  if (ready == 0) return -2;
  if (ready < 0) {
    ZN_LOG(kFacility, ZN_ERROR, "Error while waiting for data: %d", net_last_error());
    return -1;
  }
  return NetBufferRecv(buf);
}

void NetBufferGet(NetBuffer* buf, void* dest, int64_t len) {
  assert_parsing(buf);
  KEST_ASSERT_TEXT(kFacility, len >= 0 && buf->pos + len <= buf->used,
                   "buf->pos + len <= buf->used");
  if (len > 0) std::memcpy(dest, buf->data + buf->pos, static_cast<size_t>(len));
  buf->pos += static_cast<int32_t>(len);
}

uint32_t NetBufferGetInt(NetBuffer* buf) {
  char bytes[4];
  NetBufferGet(buf, bytes, 4);
  return load_be32(bytes);
}

int64_t NetBufferGetSlng(NetBuffer* buf) {
  unsigned char bytes[8];
  NetBufferGet(buf, bytes, 8);
  uint64_t bits = 0;
  for (unsigned char b : bytes) bits = (bits << 8) | b;
  return static_cast<int64_t>(bits);
}

int64_t NetBufferGetLen(NetBuffer* buf) {
  assert_parsing(buf);
  int64_t prefix = 0;
  return decode_var_length(buf, &prefix);
}

int64_t NetBufferGetVar(NetBuffer* buf, void* dest) {
  assert_parsing(buf);
  int64_t prefix = 0;
  const int64_t len = decode_var_length(buf, &prefix);
  buf->pos += static_cast<int32_t>(prefix);
  NetBufferGet(buf, dest, len);
  return len;
}

int64_t NetBufferGetStr(NetBuffer* buf, char* dest) {
  const int64_t len = NetBufferGetVar(buf, dest);
  dest[len] = '\0';
  return len;
}

void NetBufferGetStrs(NetBuffer* buf, int64_t count, char* dest, char** starts) {
  assert_parsing(buf);
  for (int64_t j = 0; j < count; ++j) {
    int64_t prefix = 1;
    const int64_t len = next_str_length(buf, &prefix);
    std::memcpy(dest, buf->data + buf->pos + prefix, static_cast<size_t>(len));
    buf->pos += static_cast<int32_t>(prefix + len);
    starts[j] = dest;
    dest[len] = '\0';
    dest += len + 1;
  }
}

void NetBufferGetStrsInPlace(NetBuffer* buf, int64_t count, char** starts) {
  assert_parsing(buf);
  for (int64_t j = 0; j < count; ++j) {
    int64_t prefix = 1;
    const int64_t len = next_str_length(buf, &prefix);
    // The text moves back over its own prefix (at least one byte), so its terminator lands on
    // the field's last byte and nothing of the next field is touched.
    char* text = buf->data + buf->pos;
    std::memmove(text, text + prefix, static_cast<size_t>(len));
    text[len] = '\0';
    starts[j] = text;
    buf->pos += static_cast<int32_t>(prefix + len);
  }
}

void NetBufferClose(NetBuffer* buf) {
  KEST_ASSERT(kFacility, buf);
  if (buf->socket != kNetNoSocket && net_close(buf->socket) != 0)
    ZN_LOG(kFacility, ZN_ERROR, "%s: %s", "Error closing socket", net_error_text(net_last_error()));
  buf->socket = kNetNoSocket;
  free(buf->data);
  buf->data = nullptr;
  free(buf->ahead);
  buf->ahead = nullptr;
  buf->ahead_pos = 0;
  buf->ahead_end = 0;
}
