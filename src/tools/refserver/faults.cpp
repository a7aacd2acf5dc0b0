#include "tools/refserver/faults.h"

#include <array>
#include <utility>

#include "tools/refserver/listener.h"
#include "utils/netbuffer.h"

namespace {

constexpr std::array<std::pair<const char*, Fault>, 9> kFaults = {{
    {"close-after-ack", Fault::close_after_ack},
    {"close-mid-frame", Fault::close_mid_frame},
    {"reset", Fault::reset},
    {"byte-by-byte", Fault::byte_by_byte},
    {"too-many-rows", Fault::too_many_rows},
    {"unknown-type", Fault::unknown_type},
    {"short-frame", Fault::short_frame},
    {"huge-frame", Fault::huge_frame},
    {"no-answer", Fault::no_answer},
}};

void put_be32(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v >> 24);
  p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8);
  p[3] = static_cast<unsigned char>(v);
}

bool send_header_only(int32_t socket, uint32_t length) {
  unsigned char header[4];
  put_be32(header, length);
  return socket_send_all(socket, header, sizeof header, sizeof header);
}

}  // namespace

std::pair<const unsigned char*, size_t> built_frame(NetBuffer* buf) {
  auto* data = reinterpret_cast<unsigned char*>(buf->data);
  put_be32(data, static_cast<uint32_t>(buf->pos));
  return {data, static_cast<size_t>(buf->pos)};
}

bool fault_from_name(const std::string& name, Fault* fault) {
  for (const auto& [n, f] : kFaults) {
    if (name == n) {
      *fault = f;
      return true;
    }
  }
  return false;
}

std::string fault_names() {
  std::string names;
  for (const auto& f : kFaults) names += (names.empty() ? "" : ", ") + std::string(f.first);
  return names;
}

AfterSend send_message(NetBuffer* buf, int32_t socket, Fault fault, MessageKind kind,
                       bool first_data) {
  const bool ack = kind == MessageKind::ack;
  if (ack && fault == Fault::short_frame) {
    return send_header_only(socket, 3) ? AfterSend::close : AfterSend::failed;
  }
  if (ack && fault == Fault::huge_frame) {
    return send_header_only(socket, 3u << 30) ? AfterSend::close : AfterSend::failed;
  }
  if (fault == Fault::byte_by_byte) {
    auto [bytes, len] = built_frame(buf);
    return socket_send_all(socket, bytes, len, 1) ? AfterSend::go_on : AfterSend::failed;
  }
  if (fault == Fault::close_mid_frame && first_data &&
      (kind == MessageKind::data || kind == MessageKind::end)) {
    auto [bytes, len] = built_frame(buf);
    return socket_send_all(socket, bytes, len / 2, len) ? AfterSend::close : AfterSend::failed;
  }
  if (NetBufferSend(buf) != 0) return AfterSend::failed;
  if (ack && fault == Fault::close_after_ack) return AfterSend::close;
  if (ack && fault == Fault::reset) return AfterSend::reset;
  return AfterSend::go_on;
}
