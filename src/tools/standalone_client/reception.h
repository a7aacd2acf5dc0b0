// Result set reception: parses the acknowledgement and the data messages that answer a query into
// the per-query result layout `queryres`, and hands each batch of rows to the printer.
//
// Acknowledgement: int status (-1: an error record follows instead), int column count n, int
// vector size, n names (str), then per column int isconst, str logical type, str physical type.
// Data message: int status (-1: an error record follows), int row count r (0 ends the results),
// then per column, with k = 1 for a constant column and k = r otherwise, k x width raw bytes for
// a fixed-size physical type, else k vars.
// Error record: int code, int parameter count p, p strs.
//
// A malformed message (a field running past the frame) ends the process through the network
// buffer's assertions; so do an over-long logical type text and an unknown physical type.
#pragma once

#include <cstdint>
#include <string>

#include "utils/kest_error.h"

struct NetBuffer;
struct PhysicalType;
struct ResultPrinter;
struct ClientConnection;

// A logical type text must be shorter than this.
constexpr int MAX_TYPE_NAME = 64;

// The per-query result layout: parallel arrays over the n columns, allocated by receive_ack
// and freed by queryres_free at the end of the query. Every data message reuses the data areas.
struct QueryResult {
  char** name;                // n + 1 owned texts, the last null (marks the end of the columns)
  const PhysicalType** type;  // registry records, not owned
  uint32_t* ltype;            // logical type codes
  int32_t* isconst;           // non-zero: one value stands for every row
  int32_t* width;             // bytes per value
  void** data;                // width x (1 if constant, else the vector size) bytes each; a
                              // variable-size column holds one char* per value, valid only
                              // while the message that carried it is being printed
  ResultPrinter* printer;     // open while results are printed, else null
};
extern QueryResult queryres;

// What an acknowledgement said: an error record (then column_count and vector_size are 0), or
// the shape of the result with queryres filled.
struct QueryAck {
  bool is_error;       // the status was -1
  ErrorRecord* error;  // the record (null when memory ran out); owned by the caller, free_error
  int32_t column_count;
  int64_t vector_size;
};

// Parses the acknowledgement held by `netbuf` (already received). When results are printed and
// the acknowledgement is not an error, opens the printer on standard output, which prints the
// head. REQUIRES: netbuf and ack are not null; queryres is empty.
void receive_ack(NetBuffer* netbuf, QueryAck* ack);
// Receives and parses one data message on the connection: the row count (> 0), 0 at the end of
// the results, or -1 on any failure (a closed connection, a network error, an error record from
// the server, which is printed as "Error: ..." on standard output, or a bad row count).
int64_t receive_data(ClientConnection* connection);
// Reads an error record at the buffer's read position; null when memory runs out.
ErrorRecord* receive_error(NetBuffer* netbuf);
// Frees the parameters, their array and the record; null is ignored.
void free_error(ErrorRecord* record);
// The message of a received error: the table's template filled with the parameters, or, for a
// code outside the table, a text naming the code and listing the parameters.
std::string server_error_text(const ErrorRecord* record);
// Frees the names, the data areas and the arrays, and leaves queryres empty. The printer must
// have been closed.
void queryres_free();
