// Network buffer speed: field puts and gets in memory, and a 256 MiB stream of 1 MiB messages over
// loopback between two threads, side by side with a plain send/recv loop moving the same frames
// in the same 64 KiB chunks. The buffer's stream should stay within 10% of the plain loop.
// BM_StreamNetBuffer builds every message with a put (one 1 MiB copy) before sending it;
// BM_StreamNetBufferRecv sends ready frames and receives through the buffer, the client's path.
// Run them interleaved on a busy machine: --benchmark_enable_random_interleaving=true
// --benchmark_repetitions=5.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "utils/netbuffer.h"
#include "utils/netbuffer_socket.h"

namespace {

constexpr int kFieldsPerMessage = 4096;
constexpr int32_t kMessageBytes = 1 << 20;  // the whole frame, header included
constexpr int kMessagesPerStream = 256;     // 256 MiB per stream

struct MemBuffer {
  NetBuffer nb{};
  MemBuffer() {
    nb.socket = kNetNoSocket;
    nb.state = NETBUF_BUILDING;
    nb.pos = 4;
    nb.size = NETBUF_INITIAL_SIZE;
    nb.data = static_cast<char*>(calloc(1, NETBUF_INITIAL_SIZE));
  }
  ~MemBuffer() { NetBufferClose(&nb); }
  void rewind_for_reading(int32_t used) {
    nb.state = NETBUF_PARSING;
    nb.used = used;
    nb.pos = 4;
  }
};

void BM_PutInt(benchmark::State& state) {
  MemBuffer m;
  for (auto _ : state) {
    NetBufferClear(&m.nb);
    for (int i = 0; i < kFieldsPerMessage; ++i) NetBufferPutInt(&m.nb, static_cast<uint32_t>(i));
    benchmark::DoNotOptimize(m.nb.data);
  }
  state.SetBytesProcessed(state.iterations() * kFieldsPerMessage * 4);
}
BENCHMARK(BM_PutInt);

void BM_GetInt(benchmark::State& state) {
  MemBuffer m;
  for (int i = 0; i < kFieldsPerMessage; ++i) NetBufferPutInt(&m.nb, static_cast<uint32_t>(i));
  const int32_t used = m.nb.pos;
  uint32_t sum = 0;
  for (auto _ : state) {
    m.rewind_for_reading(used);
    for (int i = 0; i < kFieldsPerMessage; ++i) sum += NetBufferGetInt(&m.nb);
  }
  benchmark::DoNotOptimize(sum);
  state.SetBytesProcessed(state.iterations() * kFieldsPerMessage * 4);
}
BENCHMARK(BM_GetInt);

// Arg: the var's length. As many vars as fit in 512 KiB per message.
void BM_PutVar(benchmark::State& state) {
  const auto len = static_cast<int32_t>(state.range(0));
  const std::string value(static_cast<size_t>(len), 'v');
  const int count = (512 * 1024) / (len + 1);
  MemBuffer m;
  for (auto _ : state) {
    NetBufferClear(&m.nb);
    for (int i = 0; i < count; ++i) NetBufferPutVar(&m.nb, value.data(), len);
    benchmark::DoNotOptimize(m.nb.data);
  }
  state.SetBytesProcessed(state.iterations() * count * int64_t{len});
}
BENCHMARK(BM_PutVar)->Arg(8)->Arg(200)->Arg(4096);

void BM_GetVar(benchmark::State& state) {
  const auto len = static_cast<int32_t>(state.range(0));
  const std::string value(static_cast<size_t>(len), 'v');
  const int count = (512 * 1024) / (len + 1);
  MemBuffer m;
  for (int i = 0; i < count; ++i) NetBufferPutVar(&m.nb, value.data(), len);
  const int32_t used = m.nb.pos;
  std::string dest(static_cast<size_t>(len), '\0');
  for (auto _ : state) {
    m.rewind_for_reading(used);
    for (int i = 0; i < count; ++i) {
      benchmark::DoNotOptimize(NetBufferGetLen(&m.nb));
      NetBufferGetVar(&m.nb, dest.data());
    }
    benchmark::DoNotOptimize(dest.data());
  }
  state.SetBytesProcessed(state.iterations() * count * int64_t{len});
}
BENCHMARK(BM_GetVar)->Arg(8)->Arg(200)->Arg(4096);

// A connected loopback pair for one benchmark run.
struct LoopbackPair {
  int32_t sender = kNetNoSocket;
  int32_t receiver = kNetNoSocket;
  LoopbackPair() {
    network_init();
    const int32_t listener = net_bind(net_loopback_address(), 0, true);
    sender = net_tcp_socket();
    if (net_connect(sender, net_loopback_address(), net_local_port(listener)) == 0)
      receiver = net_accept(listener);
    net_close(listener);
    net_set_nodelay(sender);
    net_set_nodelay(receiver);
  }
  bool ok() const { return sender != kNetNoSocket && receiver != kNetNoSocket; }
};

void BM_StreamNetBuffer(benchmark::State& state) {
  LoopbackPair pair;
  if (!pair.ok()) return state.SkipWithError("no loopback connection");
  NetBuffer out{}, in{};
  NetBufferInit(&out, pair.sender);
  NetBufferInit(&in, pair.receiver);
  const std::string body(kMessageBytes - 4, 'b');
  bool failed = false;
  for (auto _ : state) {
    std::thread writer([&] {
      for (int i = 0; i < kMessagesPerStream; ++i) {
        NetBufferClear(&out);
        NetBufferPut(&out, body.data(), static_cast<int32_t>(body.size()));
        if (NetBufferSend(&out) != 0) return;
      }
    });
    for (int i = 0; i < kMessagesPerStream; ++i) failed |= NetBufferRecv(&in) != 1;
    writer.join();
  }
  if (failed) state.SkipWithError("a message was lost");
  state.SetBytesProcessed(state.iterations() * int64_t{kMessagesPerStream} * kMessageBytes);
  NetBufferClose(&out);
  NetBufferClose(&in);
}
BENCHMARK(BM_StreamNetBuffer)->Unit(benchmark::kMillisecond)->UseRealTime();

bool plain_send(int32_t s, const char* bytes, int64_t len) {
  for (int64_t at = 0; at < len;) {
    const int64_t n =
        net_send(s, bytes + at, static_cast<size_t>(std::min<int64_t>(len - at, NETBUF_CHUNK)));
    if (n <= 0) return false;
    at += n;
  }
  return true;
}

bool plain_recv(int32_t s, char* bytes, int64_t len) {
  for (int64_t at = 0; at < len;) {
    const int64_t n =
        net_recv(s, bytes + at, static_cast<size_t>(std::min<int64_t>(len - at, NETBUF_CHUNK)));
    if (n <= 0) return false;
    at += n;
  }
  return true;
}

// The client's side alone: ready frames sent plainly, received through the buffer.
void BM_StreamNetBufferRecv(benchmark::State& state) {
  LoopbackPair pair;
  if (!pair.ok()) return state.SkipWithError("no loopback connection");
  NetBuffer in{};
  NetBufferInit(&in, pair.receiver);
  std::vector<char> out(kMessageBytes, 'b');
  for (int i = 0; i < 4; ++i) out[i] = static_cast<char>(uint32_t{kMessageBytes} >> (24 - 8 * i));
  bool failed = false;
  for (auto _ : state) {
    std::thread writer([&] {
      for (int i = 0; i < kMessagesPerStream; ++i)
        if (!plain_send(pair.sender, out.data(), kMessageBytes)) return;
    });
    for (int i = 0; i < kMessagesPerStream; ++i) failed |= NetBufferRecv(&in) != 1;
    writer.join();
  }
  if (failed) state.SkipWithError("a message was lost");
  state.SetBytesProcessed(state.iterations() * int64_t{kMessagesPerStream} * kMessageBytes);
  net_close(pair.sender);
  NetBufferClose(&in);
}
BENCHMARK(BM_StreamNetBufferRecv)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same frames as BM_StreamNetBuffer, sent from a ready area and received header first.
void BM_StreamPlain(benchmark::State& state) {
  LoopbackPair pair;
  if (!pair.ok()) return state.SkipWithError("no loopback connection");
  std::vector<char> out(kMessageBytes, 'b'), in(kMessageBytes);
  const uint32_t total = kMessageBytes;
  for (int i = 0; i < 4; ++i) out[i] = static_cast<char>(total >> (24 - 8 * i));
  bool failed = false;
  for (auto _ : state) {
    std::thread writer([&] {
      for (int i = 0; i < kMessagesPerStream; ++i)
        if (!plain_send(pair.sender, out.data(), kMessageBytes)) return;
    });
    for (int i = 0; i < kMessagesPerStream; ++i) {
      failed |= !plain_recv(pair.receiver, in.data(), 4);
      failed |= !plain_recv(pair.receiver, in.data() + 4, kMessageBytes - 4);
    }
    writer.join();
  }
  if (failed) state.SkipWithError("a message was lost");
  state.SetBytesProcessed(state.iterations() * int64_t{kMessagesPerStream} * kMessageBytes);
  net_close(pair.sender);
  net_close(pair.receiver);
}
BENCHMARK(BM_StreamPlain)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
