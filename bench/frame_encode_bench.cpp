// An application process in proxy mode: what a method entry and exit cost
// the host when each is encoded as a frame and queued for the proxy.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "ZXDataDispatcher.h"
#include "ZXFlowpathGenerator.h"
#include "ZXProxyInstance.h"
#include "zxlb_frame_layout.h"
#include "zxlb_mem_pool.h"

namespace {

[[gnu::noinline]] void emptyCall(ZXPerThreadData_t *) {
  benchmark::ClobberMemory();
}
void (*volatile gEmpty)(ZXPerThreadData_t *) = emptyCall;

constexpr char kName[] = "Cart.load";
constexpr int kEntryLen = 72, kExitLen = 104;  // with the 9-byte name

// Whether `p` holds the entry and exit frames of one pair, as the proxy
// would read them.
bool isPair(const char *p) {
  const auto frameOk = [](const char *f, std::int32_t type, std::int32_t len, std::size_t nameAt) {
    msgHdr_t h;
    std::memcpy(&h, f + 1, sizeof h);
    std::int32_t nameLen;
    std::memcpy(&nameLen, f + nameAt, sizeof nameLen);
    return f[0] == ZX_FRAME_START && f[ZX_FRAME_FIXED_AT - 1] == ZX_FRAME_SEPARATOR &&
           h.header_len == ZX_FRAME_HEADER_LEN && h.total_len == len && h.msg_type == type &&
           nameLen == 9 && f[len - 1] == ZX_FRAME_END;
  };
  return frameOk(p, ZX_FRAME_METHOD_ENTRY, kEntryLen,
                 ZX_FRAME_FIXED_AT + offsetof(MethodEntryVar_t, methodName)) &&
         std::memcmp(p + ZX_FRAME_FIXED_AT + sizeof(MethodEntryVar_t), kName, 9) == 0 &&
         frameOk(p + kEntryLen, ZX_FRAME_METHOD_EXIT, kExitLen,
                 ZX_FRAME_FIXED_AT + offsetof(MethodExitVar_t, methodName)) &&
         std::memcmp(p + kEntryLen + ZX_FRAME_FIXED_AT + sizeof(MethodExitVar_t), kName, 9) == 0;
}

struct ProxyApp {
  std::unique_ptr<ZXProxyInstance_t> app = std::make_unique<ZXProxyInstance_t>();
  ZXPerThreadData_t *record = nullptr;
  bool firstPairOk = false;
  bool checked = true;
  explicit ProxyApp(int bufferSize = 102400, int buffers = 1000) {
    app->ZXSys.proxyMode = 1;
    app->ZXSys.bciDataBufferMaxSize = bufferSize;
    app->ZXSys.dataBuffMaxCount = buffers;
    app->Server.testRunRunning = 1;
    publishApplication(app.get());
    initPerThreadSlots(app.get());
    if (buff_list_init(app.get()) == 0)
      record =
          startFP(app.get(), nullptr, "/shop/cart", nullptr, 0, nullptr, nullptr, nullptr, 0, 0);
    // The transaction's start sent, so that the next buffer starts with a pair.
    movePartialToReadList(app->sendBuffers);
    drain();
    checked = false;
  }
  ~ProxyApp() {
    if (record) releaseFP(app.get(), record);
    publishApplication(nullptr);
  }
  // `t` 0: the engine reads the clock.
  void pair(long long t = 0) {
    zxMethodEntry(app.get(), nullptr, record, kName, nullptr, nullptr, 1, nullptr, 0, t);
    zxMethodExit(app.get(), nullptr, record, kName, -1, 200, nullptr, -1, 1, 0, 0, 1, 0, t);
  }
  // Sends (discards) every queued buffer, as an infinitely fast data thread;
  // the first buffer's first pair is decoded on the way.
  void drain() {
    ZXSendBufferPool &pool = app->sendBuffers;
    while (nioSettings_t *b = sendBufferHead(pool)) {
      if (!checked && b->use_len > 0) {
        checked = true;
        firstPairOk = b->use_len >= kEntryLen + kExitLen && isPair(b->buff);
      }
      markBufferSent(pool, b, b->use_len);
    }
  }
  // Every frame queued, sent whole (the sender's walk found as many frames
  // as were queued, from their lengths) and the first one well formed.
  const char *verify(long long pairs) {
    movePartialToReadList(app->sendBuffers);
    drain();
    const ZXSendCounts c = readSendCounts(app->sendBuffers);
    if (c.lost() != 0) return "a frame was lost";
    if (c.records != 1 + 2 * static_cast<unsigned long long>(pairs))
      return "a frame was not queued";
    if (c.sent != c.records) return "the sender did not find every frame";
    if (!firstPairOk) return "a queued frame is malformed";
    return nullptr;
  }
};

void BM_EmptyCallBaseline(benchmark::State &state) {
  ProxyApp p;
  for (auto _ : state) gEmpty(p.record);
}
BENCHMARK(BM_EmptyCallBaseline);

// Pairs with the sender's share left out (it runs on the data thread): full
// 1 MiB buffers are drained with the clock paused, once per some 6000 pairs.
void encodedPairs(benchmark::State &state, long long t) {
  ProxyApp p(1 << 20, 8);
  if (!p.record) return state.SkipWithError("no flowpath");
  ZXSendBufferPool &pool = p.app->sendBuffers;
  for (auto _ : state) {
    p.pair(t);
    if (pool.readList) {  // racy peek is fine: one thread
      state.PauseTiming();
      p.drain();
      state.ResumeTiming();
    }
  }
  if (const char *wrong = p.verify(state.iterations())) state.SkipWithError(wrong);
}

// The host thread's cost: zxMethodEntry + zxMethodExit by name, as the SDK
// calls them, per pair: two clock reads and two frames (72 + 104 bytes)
// staged, handed to the send buffers a stage at a time.
void BM_EntryExitPairEncoded(benchmark::State &state) {
  encodedPairs(state, 0);
}
BENCHMARK(BM_EntryExitPairEncoded);

// The same with both times given by the host, as the SDK allows: no clock
// read, so the frames' own share shows.
void BM_EntryExitPairEncodedTimesGiven(benchmark::State &state) {
  encodedPairs(state, 1'700'000'000'000LL);
}
BENCHMARK(BM_EntryExitPairEncodedTimesGiven);

// The same with the sender's walk over every frame in the figure: the
// producer drains once per filled buffer inside the timed loop.
void BM_EntryExitPairEncodedAndSent(benchmark::State &state) {
  ProxyApp p;
  if (!p.record) return state.SkipWithError("no flowpath");
  ZXSendBufferPool &pool = p.app->sendBuffers;
  for (auto _ : state) {
    p.pair();
    if (pool.readList) p.drain();
  }
  if (const char *wrong = p.verify(state.iterations())) state.SkipWithError(wrong);
}
BENCHMARK(BM_EntryExitPairEncodedAndSent);

}  // namespace
