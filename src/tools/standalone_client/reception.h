// Result set reception: parses the acknowledgement and the data messages that answer a query into
// the query's result layout (QueryResult), and hands each batch of rows to the printer.
//
// Acknowledgement: int status (-1: an error record follows instead), int column count n, int
// vector size, n names (str), then per column int isconst, str logical type, str physical type.
// Data message: int status (-1: an error record follows), int row count r (0 ends the results),
// then per column, with k = 1 for a constant column and k = r otherwise, k x width raw bytes for
// a fixed-size physical type, else k vars.
// Error record: int code, int parameter count p, p strs.
//
// The decoders (receive_ack, decode_data) read a message that is already held by a NetBuffer,
// however it got there: from the socket (receive_data wraps the receive) or loaded from bytes.
//
// A malformed message (a field running past the frame) ends the process through the network
// buffer's assertions; so do an over-long logical type text and an unknown physical type.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "utils/kest_error.h"

struct NetBuffer;
struct PhysicalType;
struct ResultPrinter;
struct ClientConnection;

// A logical type text must be shorter than this.
constexpr int MAX_TYPE_NAME = 64;

// Why the last data message failed the query, which tells what is left in the stream.
enum class DataFailure : int32_t {
  kNone = 0,
  kServerError,  // an error record: the answer ends with it
  kRowCount,     // a row count out of range: the rest of the answer is still to come
  kConnection,   // closed, a network error, or the receive time-out ran out (kTimedOut)
  kTimedOut,
};

// One query's result: the only owner of everything the query holds. receive_ack fills it,
// every data message reuses its data areas, and query_finish (or query_cancel) closes the
// printer and frees the rest, leaving it empty for the next query. An empty result is all zero.
struct QueryResult {
  char** name;                // n + 1 owned texts, the last null (marks the end of the columns)
  const PhysicalType** type;  // registry records, not owned
  uint32_t* ltype;            // logical type codes
  int32_t* isconst;           // non-zero: one value stands for every row
  int32_t* width;             // bytes per value
  void** data;                // width x (1 if constant, else the vector size) bytes each; a
                              // variable-size column holds one char* per value into the
                              // network buffer, valid only until the next receive
  ResultPrinter* printer;     // open while results are printed, else null
  FILE* out;                  // where the printer writes; null means standard output
  DataFailure failure;        // set when decode_data or receive_data returns -1
};

// What an acknowledgement said: an error record (then column_count and vector_size are 0), or
// the shape of the result with the QueryResult filled.
struct QueryAck {
  bool is_error;       // the status was -1
  ErrorRecord* error;  // the record (null when memory ran out); owned by the caller, free_error
  int32_t column_count;
  int64_t vector_size;
};

// Parses the acknowledgement held by `netbuf` (already received) into `result`. When results
// are printed and the acknowledgement is not an error, opens the printer on result->out, which
// prints the head. REQUIRES: netbuf and ack are not null; result is empty.
void receive_ack(QueryResult* result, NetBuffer* netbuf, QueryAck* ack);
// Decodes the data message held by `netbuf` into `result` and prints its rows: the row count
// (> 0), 0 at the end of the results, or -1 for an error record from the server (printed as
// "Error: ..." on standard output) or a row count that is negative or above `vector_size`.
// After -1 the rest of the message is unread.
int64_t decode_data(QueryResult* result, NetBuffer* netbuf, int64_t vector_size);
// Receives one data message on the connection and decodes it into connection->result: as
// decode_data, and -1 also for a closed connection or a network error. What the printer holds
// is written out before the client waits for the server.
int64_t receive_data(ClientConnection* connection);
// Ends the query: prints the footer when the printer is open (also after a failed stream),
// then frees everything `result` holds. The result is empty afterwards; an empty one is ignored.
void query_finish(QueryResult* result);

// Ends a query whose result was cancelled: as query_finish, and after the footer a line on the
// same stream that says the result was cancelled (when the printer was open).
void query_cancel(QueryResult* result);

// Reads an error record at the buffer's read position; null when memory runs out.
ErrorRecord* receive_error(NetBuffer* netbuf);
// Frees the parameters, their array and the record; null is ignored.
void free_error(ErrorRecord* record);
// The message of a received error: the table's template filled with the parameters, or, for a
// code outside the table, a text naming the code and listing the parameters.
std::string server_error_text(const ErrorRecord* record);
// Shows a server error as the run reports it: "Error: <message>\n" on standard output (flushed)
// and the message at level 3 in the log; then frees the record. A null record (memory ran out
// while reading it, already logged) prints nothing.
void report_server_error(ErrorRecord* record);
