#include "tools/standalone_client/session.h"

#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "tools/standalone_client/client_globals.h"
#include "tools/standalone_client/connection.h"
#include "tools/standalone_client/reception.h"
#include "utils/file.h"
#include "utils/netbuffer_socket.h"
#include "utils/znconfig.h"
#include "utils/znlog.h"

namespace {

constexpr const char* kFacility = "KESTCLIENT";
constexpr size_t kKeyBytes = 65;  // 64 key bytes and a terminating zero
constexpr uint32_t kFirstPauseMs = 400;
constexpr uint32_t kRequestQuery = 1;

void real_sleep(uint32_t ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

SessionSleepFn pause_between_tries = real_sleep;

// Cancelling: written by a signal handler or another thread, read between waits.
volatile std::sig_atomic_t cancel_armed = 0;
volatile std::sig_atomic_t cancel_requested = 0;
bool last_cancelled = false;
// While armed, the longest wait before a request is looked at.
constexpr int64_t kCancelSliceUs = 100'000;
// The longest an unfinished answer is drained before the connection is dropped instead.
constexpr int64_t kDrainUs = 1'000'000;

const char* errno_text() { return errno == 0 ? "" : std::strerror(errno); }

void close_socket(int32_t s) {
  if (net_close(s) != 0)
    ZN_LOG(kFacility, ZN_ERROR, "%s: %s", "Error closing socket", net_error_text(net_last_error()));
}

// The server's address in network byte order, or false (logged).
bool server_address(const char* host, uint32_t* address) {
  if (std::isdigit(static_cast<unsigned char>(host[0]))) {
    errno = 0;
    *address = net_inet_addr(host);
    // The sign of the address as it lies in memory: this refuses every dotted address whose last
    // part is 128 or more as well as the unreadable ones (all bits set). Kept on purpose.
    if (static_cast<int32_t>(*address) < 0) {
      ZN_LOG(kFacility, ZN_ERROR, "invalid IP address %s: %s", host, errno_text());
      return false;
    }
    return true;
  }
  // The loopback name needs no resolver: reading the system's resolver configuration and hosts
  // file was most of the system calls of a short run.
  if (std::strcmp(host, "localhost") == 0) {
    *address = net_loopback_address();
    return true;
  }
  errno = 0;
  if (net_resolve(host, address) != 0) {
    ZN_LOG(kFacility, ZN_ERROR, "address not found for host %s: %s", host, errno_text());
    return false;
  }
  return true;
}

void load_key(char* key) {
  const char* passfile = client_config ? znconfig_get_str(client_config, ZNCONFIG_GROUP_CLIENT,
                                                          ZNCONFIG_CLIENT_PASSFILE)
                                       : nullptr;
  key[0] = '\0';
  // The reader logs its own complaints; whatever it read stays in the key and is sent.
  if (passfile != nullptr && passfile[0] != '\0') read_auth_file(passfile, key);
}

int send_query(ClientConnection* connection, const char* query) {
  NetBuffer* netbuf = &connection->netbuf;
  NetBufferClear(netbuf);
  NetBufferPutInt(netbuf, kRequestQuery);
  NetBufferPutStr(netbuf, query);
  NetBufferPutStr(netbuf, connection->key ? connection->key : "");
  return NetBufferSend(netbuf);
}

void log_timeout(const ClientConnection* c) {
  ZN_LOG(kFacility, ZN_ERROR, "no data from the server at %s:%lld for %g seconds", c->host,
         static_cast<long long>(c->port), static_cast<double>(c->timeout_us) / 1e6);
}

// What waiting for the next message came to.
enum class Wait { kReady, kCancelled, kTimedOut, kFailed };

// Waits until a message can be received without blocking for long: at once when a whole frame
// is read ahead, or nothing needs watching (no time limit, no cancelling). Otherwise in slices,
// so that a cancel request is seen within one. What the printer holds goes out first.
Wait await_message(ClientConnection* c) {
  if (cancel_requested) return Wait::kCancelled;
  if (NetBufferFrameReady(&c->netbuf)) return Wait::kReady;
  if (!cancel_armed && c->timeout_us <= 0) return Wait::kReady;
  printer_flush(c->result.printer);
  int64_t waited = 0;
  for (;;) {
    if (cancel_requested) return Wait::kCancelled;
    int64_t slice = c->timeout_us > 0 ? c->timeout_us - waited : kCancelSliceUs;
    if (cancel_armed && slice > kCancelSliceUs) slice = kCancelSliceUs;
    const int ready = net_wait_readable(c->socket, slice);
    if (ready > 0) return cancel_requested ? Wait::kCancelled : Wait::kReady;
    if (ready < 0) return Wait::kFailed;
    waited += slice;
    if (c->timeout_us > 0 && waited >= c->timeout_us) return Wait::kTimedOut;
  }
}

// The receive of one message after its wait: 1, or the failure logged and the stream marked.
int receive_message(ClientConnection* c, const char* failure) {
  switch (await_message(c)) {
    case Wait::kReady:
      break;
    case Wait::kCancelled:
      last_cancelled = true;
      c->stream = StreamState::kBroken;  // the rest may be long: the next query re-opens
      return -1;
    case Wait::kTimedOut:
      log_timeout(c);
      c->stream = StreamState::kBroken;
      return -1;
    case Wait::kFailed:
      ZN_LOG(kFacility, ZN_ERROR, "%s", failure);
      c->stream = StreamState::kBroken;
      return -1;
  }
  return 1;
}

// Reads data messages to the end of the results or the first failure: 0 or -1. A failure that
// leaves the rest of the answer in the stream marks it, so the next query settles it first.
int read_results(ClientConnection* connection) {
  for (;;) {
    if (receive_message(connection, "network error") < 0) return -1;
    const int64_t rows = receive_data(connection);
    if (rows > 0) {
      connection->rows += rows;
      continue;
    }
    if (rows == 0) return 0;
    switch (connection->result.failure) {
      case DataFailure::kServerError:
        break;
      case DataFailure::kRowCount:
        connection->stream = StreamState::kUnfinished;
        break;
      case DataFailure::kTimedOut:
        log_timeout(connection);
        connection->stream = StreamState::kBroken;
        break;
      default:  // the connection is gone: later queries fail on it as they always have
        break;
    }
    return -1;
  }
}

// Reads what is left of an unfinished answer, without printing it, up to its end (a message
// with no rows or an error record). False when it does not end within kDrainUs.
bool drain_answer(ClientConnection* c) {
  const auto start = std::chrono::steady_clock::now();
  for (;;) {
    const auto spent = std::chrono::steady_clock::now() - start;
    const int64_t left =
        kDrainUs - std::chrono::duration_cast<std::chrono::microseconds>(spent).count();
    if (left <= 0 || NetBufferTimedRecv(&c->netbuf, left) != 1) return false;
    if (NetBufferGetInt(&c->netbuf) == 0xFFFFFFFFu) return true;
    if (NetBufferGetInt(&c->netbuf) == 0) return true;
  }
}

bool reopen(ClientConnection* c) {
  NetBufferClose(&c->netbuf);
  c->socket = -1;
  uint32_t address = 0;
  if (!server_address(c->host, &address)) return false;
  const int32_t s = open_socket(address, c->port, c->tries);
  if (s < 0) return false;
  c->socket = s;
  NetBufferInit(&c->netbuf, s);
  if (c->timeout_us > 0) net_set_receive_timeout(s, c->timeout_us);
  return true;
}

}  // namespace

void session_set_sleep(SessionSleepFn sleep) { pause_between_tries = sleep ? sleep : real_sleep; }

int32_t open_socket(uint32_t address, int64_t port, int64_t tries) {
  const int32_t s = net_tcp_socket();
  if (s == kNetNoSocket) {
    ZN_LOG(kFacility, ZN_ERROR, "%s: %s", "socket", net_error_text(net_last_error()));
    return -1;
  }
  int64_t attempt = 0;
  for (; attempt < tries; ++attempt) {
    if (net_connect(s, address, static_cast<uint16_t>(port)) == 0) break;
    if (attempt + 1 < tries) {
      ZN_LOG(kFacility, ZN_WARN, "server not responding, still trying");
      pause_between_tries(kFirstPauseMs << (attempt % 32));
    }
  }
  if (attempt == tries || net_set_nodelay(s) != 0) {
    ZN_LOG(kFacility, ZN_ERROR, "cannot connect to kest server");
    close_socket(s);
    return -1;
  }
  net_set_keepalive(s);  // best effort: a system without it still connects
  return s;
}

ClientConnection* client_connect(const char* host, int64_t port, int64_t tries) {
  auto* connection = static_cast<ClientConnection*>(calloc(1, sizeof(ClientConnection)));
  if (connection == nullptr) {
    ZN_LOG(kFacility, ZN_ERROR, "failed to allocate space for internal buffer\n");
    return nullptr;
  }
  ZN_LOG(kFacility, ZN_INFO, "connecting to %s\n", host);
  uint32_t address = 0;
  if (!server_address(host, &address) ||
      (connection->socket = open_socket(address, port, tries)) < 0) {
    free(connection);
    return nullptr;
  }
  NetBufferInit(&connection->netbuf, connection->socket);
  connection->key = static_cast<char*>(calloc(1, kKeyBytes));
  if (connection->key == nullptr) {
    ZN_LOG(kFacility, ZN_ERROR, "failed to allocate space for internal buffer\n");
    client_disconnect(connection);
    return nullptr;
  }
  load_key(connection->key);
  connection->host = strdup(host);
  connection->port = port;
  connection->tries = tries;
  return connection;
}

void session_set_timeout(ClientConnection* connection, double seconds) {
  connection->timeout_us = seconds > 0 ? static_cast<int64_t>(seconds * 1e6 + 0.5) : 0;
  if (connection->timeout_us > 0 && connection->timeout_us < 1000) connection->timeout_us = 1000;
  if (connection->timeout_us > 0)
    net_set_receive_timeout(connection->socket, connection->timeout_us);
}

int session_settle(ClientConnection* connection) {
  switch (connection->stream) {
    case StreamState::kInStep:
      return 0;
    case StreamState::kUnfinished:
      if (drain_answer(connection)) {
        ZN_LOG(kFacility, ZN_DEBUG, "the rest of the previous answer was drained");
        connection->stream = StreamState::kInStep;
        return 0;
      }
      break;
    case StreamState::kBroken:
      break;
  }
  ZN_LOG(kFacility, ZN_WARN,
         "the previous answer was not read to its end: re-opening the connection to %s:%lld",
         connection->host, static_cast<long long>(connection->port));
  if (!reopen(connection)) return -1;
  connection->stream = StreamState::kInStep;
  return 0;
}

int session_revive(ClientConnection* connection) {
  // Between answers the server sends nothing: a readable socket holds an end of stream, a reset
  // or stray bytes, and none of them leaves the connection usable.
  if (connection->stream == StreamState::kInStep &&
      (connection->socket < 0 || net_wait_readable(connection->socket, 0) != 0)) {
    ZN_LOG(kFacility, ZN_WARN,
           "the connection to %s:%lld was closed or is out of step: re-opening the connection",
           connection->host, static_cast<long long>(connection->port));
    return reopen(connection) ? 0 : -1;
  }
  return session_settle(connection);
}

void session_arm_cancel(bool armed) {
  cancel_armed = armed ? 1 : 0;
  cancel_requested = 0;
}

void session_request_cancel() { cancel_requested = 1; }

bool session_query_cancelled() { return last_cancelled; }

namespace {

// Receives the acknowledgement: 1, or -1 (logged; the stream marked when it must be re-opened).
int receive_ack_message(ClientConnection* connection) {
  if (receive_message(connection, "network error while reading ack") < 0) return -1;
  const int got = NetBufferRecv(&connection->netbuf);
  if (got == -2) {
    log_timeout(connection);
    connection->stream = StreamState::kBroken;
    return -1;
  }
  if (got <= 0) {
    ZN_LOG(kFacility, ZN_ERROR, "network error while reading ack");
    return -1;
  }
  return 1;
}

}  // namespace

int run_query(ClientConnection* connection, const char* query) {
  int result = -1;
  last_cancelled = false;
  cancel_requested = 0;
  if (session_settle(connection) != 0) return -1;
  connection->rows = 0;
  ZN_LOG(kFacility, ZN_INFO, "Sending query");
  if (send_query(connection, query) != 0) {
    ZN_LOG(kFacility, ZN_ERROR, "network error while sending query");
  } else {
    ZN_LOG(kFacility, ZN_INFO, "Receiving acknowledgement");
    if (receive_ack_message(connection) > 0) {
      QueryAck ack;
      receive_ack(&connection->result, &connection->netbuf, &ack);
      if (ack.is_error) {
        report_server_error(ack.error);
      } else {
        connection->column_count = ack.column_count;
        connection->vector_size = ack.vector_size;
        result = read_results(connection);
      }
    }
  }
  if (last_cancelled)
    query_cancel(&connection->result);
  else
    query_finish(&connection->result);
  return result;
}

std::string timing_line(double milliseconds, int64_t rows) {
  char line[96];
  std::snprintf(line, sizeof line, "Time: %.3f ms, %lld %s\n", milliseconds,
                static_cast<long long>(rows), rows == 1 ? "row" : "rows");
  return line;
}

void client_disconnect(ClientConnection* connection) {
  if (connection == nullptr) return;
  query_finish(&connection->result);
  NetBufferClose(&connection->netbuf);
  free(connection->key);
  free(connection->host);
  free(connection);
}
