// The server session: one TCP connection to the Kest server per run, used for every query in
// turn. Resolves the server, connects with a bounded number of tries and a doubling pause, loads
// the authentication key, and runs one query at a time.
//
// Query message: int 1 (the request code), str the query text, str the key up to its first zero
// byte. The answers are parsed by the reception (reception.h).
#pragma once

#include <cstdint>
#include <string>

struct ClientConnection;  // connection.h

// Connects to `host` (a dotted IPv4 address when it starts with a digit, else a name to
// resolve) on `port`, trying `tries` times, and reads the key from the configured passfile.
// Returns the connection, owned by the caller and ended with client_disconnect, or null (the
// reason is logged). A dotted address whose value read as a signed 32-bit number in memory is
// negative (last part 128 or more on this byte order) is refused as invalid.
ClientConnection* client_connect(const char* host, int64_t port, int64_t tries);
// A socket connected to `address` (IPv4, network byte order) and `port`, with TCP_NODELAY, or -1
// (logged). Failed tries are followed, except the last, by a pause of 400 << try milliseconds.
// A negative `tries` makes no attempt and returns the socket unconnected.
int32_t open_socket(uint32_t address, int64_t port, int64_t tries);
// Sends `query` and reads its acknowledgement and results, printing them when print_results is
// set. 0 when the results were read to their end, -1 otherwise (a server error is printed as
// "Error: <message>" on standard output).
// connection->rows counts the rows received for it, also when it failed.
int run_query(ClientConnection* connection, const char* query);
// The line --timing prints on standard error after each query: "Time: 12.345 ms, 3 rows\n" (the
// wall time from sending the query to the end of its output, in milliseconds with three
// decimals; "row" for one).
std::string timing_line(double milliseconds, int64_t rows);
// Closes the socket and frees the key and the record; null is ignored.
void client_disconnect(ClientConnection* connection);

// Fails a query when no byte arrives from the server for `seconds` (0 or less: no limit). The
// failure names the host, the port and the seconds waited, and the connection is re-opened
// before the next query.
void session_set_timeout(ClientConnection* connection, double seconds);

// Before a query is sent, brings a stream that an earlier answer left unfinished back to the
// start of an answer: drains what is left of that answer (for at most a second), or drops the
// connection and opens a new one (logged at warn). 0, or -1 when no connection could be made.
// run_query calls it first; a caller may call it early (after a cancelled result, say).
int session_settle(ClientConnection* connection);

// Between queries, makes sure the connection can take the next one: when the server closed it
// (or reset it, or sent bytes no query asked for), or a cancelled or failed answer left it
// unusable, it is re-opened as session_settle does. 0 when the connection is usable, -1 when it
// could not be re-opened (try again later). Cheap when all is well: one look at the socket
// without waiting.
int session_revive(ClientConnection* connection);

// Cancelling. While armed, the session waits for the server in short slices and looks for a
// request between them and between messages; a request stops the result at once (the printer
// closes the table and says the result was cancelled), the query fails, and the rest of the
// answer is dropped by the next session_settle. session_request_cancel only sets a flag: it is
// safe in a signal handler and from another thread.
void session_arm_cancel(bool armed);
void session_request_cancel();
// True when the last query ended because it was cancelled (cleared when the next one starts).
bool session_query_cancelled();

// The pause between connection tries; tests replace it. Null restores the real sleep.
using SessionSleepFn = void (*)(uint32_t milliseconds);
void session_set_sleep(SessionSleepFn sleep);
