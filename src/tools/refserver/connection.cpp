#include "tools/refserver/connection.h"

#include <memory>
#include <string>

#include "tools/refserver/faults.h"
#include "tools/refserver/listener.h"
#include "tools/refserver/parser.h"
#include "tools/refserver/query_error.h"
#include "tools/refserver/relation.h"
#include "tools/refserver/stream.h"
#include "utils/context.h"
#include "utils/kest_error.h"
#include "utils/netbuffer.h"
#include "utils/znlog.h"

namespace {

constexpr const char* kFacility = "REFSERVER";
constexpr int64_t kPollMicros = 100000;  // how often a waiting connection looks at `stop`
constexpr uint32_t kRequestQuery = 1;
// Queued frames leave once they reach this many bytes, and at the end of every answer.
constexpr size_t kSendBlock = 64 * 1024;

struct QueryContextDeleter {
  void operator()(QueryContext* ctx) const { query_context_destroy(ctx); }
};
using QueryContextPtr = std::unique_ptr<QueryContext, QueryContextDeleter>;

class Session {
 public:
  Session(int32_t socket, const ServerOptions& options, const std::atomic<bool>& stop)
      : socket_(socket), options_(options), stop_(stop) {
    NetBufferInit(&buf_, socket);
  }
  ~Session() { NetBufferClose(&buf_); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Serves queries until the connection is to end.
  void run() {
    while (wait_for_message() && NetBufferRecv(&buf_) == 1) {
      const AfterSend after = answer();
      if (after == AfterSend::reset) {
        socket_close_reset(socket_);
        buf_.socket = -1;  // already closed
        return;
      }
      if (after != AfterSend::go_on) return;
    }
  }

 private:
  bool wait_for_message() {
    // A query read ahead with the last one is not waiting on the socket.
    if (NetBufferFrameReady(&buf_)) return true;
    for (;;) {
      if (stop_.load()) return false;
      const int ready = socket_wait_readable(socket_, kPollMicros);
      if (ready != 0) return ready > 0;
    }
  }

  std::string get_str() {
    std::string s(static_cast<size_t>(NetBufferGetLen(&buf_)) + 1, '\0');
    NetBufferGetStr(&buf_, s.data());
    s.pop_back();
    return s;
  }

  // `last` marks the final message of an answer.
  AfterSend send(MessageKind kind, bool last, bool first_data = false) {
    if (options_.fault == Fault::none) return queue(last);
    return send_message(&buf_, socket_, options_.fault, kind, first_data);
  }

  // The frames of one answer leave together: the acknowledgement, data and end of a short
  // result reach the client in one segment, so each side wakes once per query instead of once
  // per message. A long result leaves in blocks of kSendBlock bytes or more, each as soon as it
  // is complete. (Fault modes send message by message: they stage breaks between messages.)
  AfterSend queue(bool last) {
    const auto [bytes, len] = built_frame(&buf_);
    if (pending_.empty() && (last || len >= kSendBlock))
      return NetBufferSend(&buf_) == 0 ? AfterSend::go_on : AfterSend::failed;
    pending_.append(reinterpret_cast<const char*>(bytes), len);
    if (!last && pending_.size() < kSendBlock) return AfterSend::go_on;
    const bool sent = socket_send_all(socket_, pending_.data(), pending_.size(), NETBUF_CHUNK);
    pending_.clear();
    return sent ? AfterSend::go_on : AfterSend::failed;
  }

  AfterSend send_error(QueryContext* ctx, MessageKind kind) {
    put_error(&buf_, ctx->errors);
    ZN_LOG(kFacility, ZN_DEBUG, "query failed with error %d", ctx->errors->code);
    return send(kind, true);
  }

  AfterSend answer();
  AfterSend stream(QueryContext* ctx, RowSource& source);

  int32_t socket_;
  const ServerOptions& options_;
  const std::atomic<bool>& stop_;
  NetBuffer buf_{};
  std::string pending_;  // whole frames queued by queue()
};

AfterSend Session::answer() {
  QueryContextPtr ctx(query_context_create(nullptr));
  const uint32_t request = NetBufferGetInt(&buf_);
  try {
    if (request != kRequestQuery) {
      query_fail(ctx.get(), KEST_ERR_UNSUPPORTED_REQUEST, {std::to_string(request)});
    }
    const std::string query = get_str();
    const std::string key = get_str();
    ZN_LOG(kFacility, ZN_DEBUG, "query [%s]", query.c_str());
    if (!options_.passfile.empty() && key != options_.key) {
      query_fail(ctx.get(), KEST_ERR_AUTHENTICATION, {"the key does not match"});
    }
    if (options_.fault == Fault::no_answer) {
      while (!stop_.load() && socket_wait_readable(socket_, kPollMicros) == 0) {
      }
      return AfterSend::close;
    }
    const auto rel = parse_query(ctx.get(), query);
    const auto source =
        build_plan(ctx.get(), *rel, static_cast<size_t>(options_.vector_size), &stop_);
    StreamDistortion distortion;
    if (options_.fault == Fault::unknown_type) distortion.physical_name = "nosuchtype";
    put_ack(&buf_, source->schema(), options_.vector_size, distortion);
    const AfterSend after = send(MessageKind::ack, false);
    if (after != AfterSend::go_on) return after;
    return stream(ctx.get(), *source);
  } catch (const QueryFailed&) {
    return send_error(ctx.get(), MessageKind::ack);
  }
}

AfterSend Session::stream(QueryContext* ctx, RowSource& source) {
  StreamDistortion distortion;
  if (options_.fault == Fault::too_many_rows) distortion.extra_rows = options_.vector_size;
  bool first = true;
  for (;;) {
    Batch batch;
    bool more;
    try {
      more = source.next(batch);
    } catch (const QueryFailed&) {
      return send_error(ctx, MessageKind::error);
    }
    if (!more) {
      put_end(&buf_);
      return send(MessageKind::end, true, first);
    }
    if (first && distortion.extra_rows) {
      distortion.extra_rows = options_.vector_size + 1 - static_cast<int32_t>(batch.rows);
    }
    const int64_t bytes =
        put_data(&buf_, source.schema(), batch, first ? distortion : StreamDistortion{});
    if (bytes > NETBUF_MAX_FRAME) {
      add_error(ctx, kFacility, kErrMessageTooLong, 2, std::to_string(bytes).c_str(),
                std::to_string(NETBUF_MAX_FRAME).c_str());
      return send_error(ctx, MessageKind::error);
    }
    const AfterSend after = send(MessageKind::data, false, first);
    if (after != AfterSend::go_on) return after;
    first = false;
  }
}

}  // namespace

void serve_connection(int32_t socket, const ServerOptions& options, const std::atomic<bool>& stop) {
  Session session(socket, options, stop);
  session.run();
}
