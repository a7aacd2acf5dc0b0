#include "tools/refserver/server.h"

#include <cstdio>
#include <list>
#include <memory>
#include <thread>

#include "tools/refserver/connection.h"
#include "tools/refserver/listener.h"
#include "utils/platform.h"
#include "utils/znlog.h"

namespace {

constexpr const char* kFacility = "REFSERVER";
constexpr int64_t kAcceptPollMicros = 100000;  // how often the accept loop looks at `stop`

struct Worker {
  std::atomic<bool> done{false};
  std::thread thread;
};

// Joins the threads of connections that have ended, so that a long run does not pile them up.
void reap(std::list<std::unique_ptr<Worker>>& workers, bool all) {
  for (auto it = workers.begin(); it != workers.end();) {
    if (all || (*it)->done.load()) {
      (*it)->thread.join();
      it = workers.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace

int32_t server_listen(const ServerOptions& options, uint16_t* port) {
  return listener_open(options.host.c_str(), options.port, port);
}

void server_serve(int32_t listener, const ServerOptions& options, const std::atomic<bool>& stop) {
  std::list<std::unique_ptr<Worker>> workers;
  while (!stop.load()) {
    const int32_t s = listener_accept(listener, kAcceptPollMicros);
    reap(workers, false);
    if (s == -2) continue;
    if (s < 0) {
      ZN_LOG(kFacility, ZN_WARN, "accept failed");
      sleep_ms(10);  // a lasting failure (no descriptors left) must not spin
      continue;
    }
    auto worker = std::make_unique<Worker>();
    Worker* w = worker.get();
    w->thread = std::thread([s, &options, &stop, w] {
      serve_connection(s, options, stop);
      w->done.store(true);
    });
    workers.push_back(std::move(worker));
  }
  socket_close(listener);
  reap(workers, true);
}

int run_server(const ServerOptions& options, const std::atomic<bool>& stop) {
  uint16_t port = 0;
  const int32_t listener = server_listen(options, &port);
  if (listener < 0) return 1;
  std::printf("listening on %s:%u\n", options.host.c_str(), static_cast<unsigned>(port));
  std::fflush(stdout);
  server_serve(listener, options, stop);
  return 0;
}
