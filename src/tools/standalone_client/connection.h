// The record of one connection to the Kest server, shared by the session (which opens it and
// runs the queries) and the reception (which reads the answers on it). Plain data: the
// functions that act on it live in session.h and reception.h.
#pragma once

#include <cstdint>

#include "tools/standalone_client/reception.h"
#include "utils/netbuffer.h"

struct ClientConnection {
  int32_t socket;
  int32_t column_count;  // of the current result
  int64_t vector_size;   // the most rows one data message of the current result may carry
  char* key;             // owned, 65 bytes zero-filled: up to 64 key bytes and a zero
  NetBuffer netbuf;      // owns the socket once connected
  QueryResult result;    // the query in flight; empty between queries
  int64_t rows;          // rows received for the last query run
};
