// The record of one connection to the Kest server, shared by the session (which opens it and
// runs the queries) and the reception (which reads the answers on it). Plain data: the
// functions that act on it live in session.h and reception.h.
#pragma once

#include <cstdint>

#include "tools/standalone_client/reception.h"
#include "utils/netbuffer.h"

// Whether the stream stands at the start of an answer, as a new query needs it.
enum class StreamState : int32_t {
  kInStep = 0,  // the last answer was read to its end (or there was none)
  kUnfinished,  // the last answer stopped early at a frame boundary: the rest can be drained
  kBroken,      // a wait timed out or was cancelled, or draining failed: the socket must go
};
// A connection the peer closed or reset stays as it is (kInStep): every later query then fails
// on it, as it always has.

struct ClientConnection {
  int32_t socket;
  int32_t column_count;  // of the current result
  int64_t vector_size;   // the most rows one data message of the current result may carry
  char* key;             // owned, 65 bytes zero-filled: up to 64 key bytes and a zero
  NetBuffer netbuf;      // owns the socket once connected
  QueryResult result;    // the query in flight; empty between queries
  // Where the connection goes, kept to re-open it: `host` is owned.
  char* host;
  int64_t port;
  int64_t tries;
  int64_t timeout_us;  // no byte from the server for this long fails the query; 0: no limit
  StreamState stream;
  int64_t rows;  // rows received for the last query run
};
