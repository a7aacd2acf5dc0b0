// The network message buffer: length-framed messages of typed fields over one TCP socket.
//
// Wire format. A message is one frame: a 4-byte big-endian total length (the 4 bytes included),
// then the fields back to back, untagged; the reader must know their order.
//   int   4 bytes, big-endian
//   slng  8 bytes, signed, big-endian
//   raw   the bytes as they are (both sides know the length)
//   var   a length prefix, then the bytes: floor(L / 255) bytes of 255, then one byte L mod 255
//         (L = 0 -> 00; 254 -> FE; 255 -> FF 00; 600 -> FF FF 5A)
//   str   a var holding the text without its terminator; reading appends a zero byte
//
// One NetBuffer belongs to one connection and serves both directions in turn: build and send a
// message, then receive the answer into the same data area and parse it. Several messages may be
// received one after another without a clear in between.
//
// Failure handling. A broken precondition (wrong state, a field that would run past the message,
// a null record, an allocation that fails) is an assertion under the facility "NETBUFFER": it
// logs and aborts. Network errors are logged and reported by return value, never fatal.
#pragma once

#include <cstdint>

// Values of NetBuffer::state.
enum NetBufState : int32_t {
  NETBUF_BUILDING = 1,   // fields may be appended
  NETBUF_SENDING = 2,    // a send has been started
  NETBUF_RECEIVING = 3,  // a receive is in progress
  NETBUF_PARSING = 4,    // a complete message is held; fields may be read
  NETBUF_RESET = 5,      // the peer reset the connection; sticky until the next NetBufferInit
};

// Capacity of a fresh data area. Building grows it by doubling. A receive sizes it for the frame
// (NETBUF_INITIAL_SIZE doubled as often as needed) when the frame does not fit, and also when the
// area is over 16 MiB and the frame needs a quarter of it or less: one frame is held at a time,
// never a copy of it, and a large area does not outlive the large frames it was made for.
constexpr int32_t NETBUF_INITIAL_SIZE = 1 << 20;
// At most this many bytes move per send or recv call.
constexpr int32_t NETBUF_CHUNK = 1 << 16;
// Hard cap on a frame's total length, 1 GiB. A received length field above it (or below 4, the
// header alone) is refused before anything is allocated: NetBufferRecv logs and returns -1.
// Building a message past it is an allocation failure (assertion "buf->data").
constexpr int32_t NETBUF_MAX_FRAME = 1 << 30;

struct NetBuffer {
  int32_t state;   // a NetBufState
  int32_t socket;  // -1 after NetBufferClose
  // Building: bytes written so far, the 4-byte header included. Sending: bytes already sent.
  // Receiving: bytes received so far. Parsing: the read position.
  int32_t pos;
  // Sending: the message length. Receiving: bytes expected so far (4 until the header is in,
  // then the whole length). Parsing: the message length.
  int32_t used;
  int32_t size;  // capacity of data, NETBUF_INITIAL_SIZE doubled as often as needed
  char* data;    // owned; freed by NetBufferClose
  // Read-ahead: one recv asks for up to NETBUF_CHUNK bytes, so the frames of a short answer
  // arrive in one call. The bytes past the current frame wait here, in `ahead`
  // [ahead_pos, ahead_end), for the next NetBufferRecv; building and sending leave them alone.
  char* ahead;  // owned, NETBUF_CHUNK bytes; null until the first receive
  int32_t ahead_pos;
  int32_t ahead_end;
};

// Starts the socket library once per process. 0, or -1 when it cannot start.
int network_init();

// Prepares `buf` for `socket`: NETBUF_BUILDING, pos 4, used 0, a zero-filled data area of
// NETBUF_INITIAL_SIZE, TCP_NODELAY on the socket (a failure there is only logged). A socket of
// -1 prepares a buffer that only builds, loads (NetBufferLoad) and parses.
// REQUIRES: buf->data is null or an area from an earlier NetBufferInit (it is released), so a
// fresh record must be zero-filled.
void NetBufferInit(NetBuffer* buf, int32_t socket);
// Starts a new message (pos 4, used 0, NETBUF_BUILDING); NETBUF_RESET stays as it is.
void NetBufferClear(NetBuffer* buf);

// Append one field. REQUIRES: NETBUF_BUILDING; in NETBUF_RESET they do nothing.
void NetBufferPut(NetBuffer* buf, const void* bytes, int32_t len);
void NetBufferPutInt(NetBuffer* buf, uint32_t value);
void NetBufferPutSlng(NetBuffer* buf, int64_t value);
void NetBufferPutVar(NetBuffer* buf, const void* bytes, int32_t len);
void NetBufferPutStr(NetBuffer* buf, const char* text);  // without the terminator

// Sends the built message: 0, or -1 (logged). In NETBUF_RESET nothing is sent and -1 returned.
// A connection reset seen here moves the buffer to NETBUF_RESET.
int NetBufferSend(NetBuffer* buf);
// Receives one whole message: 1 when it is ready to parse (NETBUF_PARSING, pos at the first
// field), 0 when the peer closed or reset the connection before a frame header was complete
// (a reset also moves the buffer to NETBUF_RESET, and a buffer already reset returns 0 at once),
// -1 on any other error, a peer that closes inside a message, or a length field outside
// 4 .. NETBUF_MAX_FRAME; -2 when the socket's receive time-out (net_set_receive_timeout) ran out
// before the message was complete (logged at info: the caller reports it). A frame already read
// ahead is taken without touching the socket.
int NetBufferRecv(NetBuffer* buf);
// Loads one whole frame from bytes[0, len) into buf as NetBufferRecv would receive it: 1 when a
// frame was loaded (NETBUF_PARSING, pos at the first field; *consumed = its length), 0 when the
// bytes hold no whole frame yet (nothing consumed), -1 for a length field outside
// 4 .. NETBUF_MAX_FRAME (logged as NetBufferRecv logs it). Needs no socket; the buffer must have
// been prepared by NetBufferInit (a socket of -1 is fine). The frame is copied: `bytes` need not
// outlive the call. On 0 or -1 the buffer holds no message (NETBUF_RECEIVING, as in the middle
// of a receive), and a partial frame has allocated nothing. A buffer in NETBUF_RESET stays so
// and loads nothing (0). The read-ahead area is neither used nor touched.
int NetBufferLoad(NetBuffer* buf, const void* bytes, int64_t len, int64_t* consumed);
// True when a whole frame has already been read ahead, so that NetBufferRecv will not wait.
bool NetBufferFrameReady(const NetBuffer* buf);
// As NetBufferRecv, after waiting at most `microseconds` for the socket to become readable
// (no wait when bytes were read ahead); -2 when the time ran out (nothing was read), -1 when the
// wait itself failed.
int NetBufferTimedRecv(NetBuffer* buf, int64_t microseconds);

// Read one field at pos and advance. REQUIRES: NETBUF_PARSING and a field that ends inside the
// message; otherwise the process ends with the assertion text.
void NetBufferGet(NetBuffer* buf, void* dest, int64_t len);
uint32_t NetBufferGetInt(NetBuffer* buf);
int64_t NetBufferGetSlng(NetBuffer* buf);
// Copies the next var into `dest` (which needs NetBufferGetLen bytes); returns its length.
int64_t NetBufferGetVar(NetBuffer* buf, void* dest);
// As NetBufferGetVar, then a zero byte after the copied bytes: `dest` needs length + 1 bytes.
int64_t NetBufferGetStr(NetBuffer* buf, char* dest);
// Reads the next `count` str fields into `dest` end to end, each followed by a zero byte, and
// stores where each one begins in `starts`. `dest` needs room for what is left of the message
// plus `count` bytes. The same as `count` calls of NetBufferGetStr, in one pass.
void NetBufferGetStrs(NetBuffer* buf, int64_t count, char* dest, char** starts);
// As NetBufferGetStrs, but each text is terminated where it lies in the message (moved back over
// its length prefix), so no second copy of the texts is needed. The texts stay valid until the
// next receive, clear or put on `buf`; the fields they came from cannot be read again.
void NetBufferGetStrsInPlace(NetBuffer* buf, int64_t count, char** starts);
// The length of the next var, without consuming anything, so that the caller can allocate first.
int64_t NetBufferGetLen(NetBuffer* buf);

// Closes the socket (a failure is logged), sets it to -1, frees the data and read-ahead areas.
// A buffer whose socket is already -1 only releases its areas.
void NetBufferClose(NetBuffer* buf);
