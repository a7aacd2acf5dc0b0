#include "tools/standalone_client/session.h"

#include <cctype>
#include <cerrno>
#include <chrono>
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

// Reads data messages to the end of the results or the first failure: 0 or -1.
int read_results(ClientConnection* connection) {
  int64_t result = 0;
  while ((result = receive_data(connection)) > 0) connection->rows += result;
  return result == 0 ? 0 : -1;
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
  return connection;
}

int run_query(ClientConnection* connection, const char* query) {
  int result = -1;
  connection->rows = 0;
  ZN_LOG(kFacility, ZN_INFO, "Sending query");
  if (send_query(connection, query) != 0) {
    ZN_LOG(kFacility, ZN_ERROR, "network error while sending query");
  } else {
    ZN_LOG(kFacility, ZN_INFO, "Receiving acknowledgement");
    if (NetBufferRecv(&connection->netbuf) <= 0) {
      ZN_LOG(kFacility, ZN_ERROR, "network error while reading ack");
    } else {
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
  NetBufferClose(&connection->netbuf);
  free(connection->key);
  free(connection);
}
