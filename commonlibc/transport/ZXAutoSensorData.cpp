#include "ZXAutoSensorData.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <system_error>

#include "ZXAppLink.h"
#include "ZXDataThread.h"
#include "zxlb_mt_log.h"

namespace {

constexpr int kErrSize = 1024;
constexpr int kFlushPasses = 100;
constexpr char kDataRequest[] = "zx_data_msg_req:";
constexpr char kASRequest[] = "auto_sensor_thread_hotspot_data_req:";

// Caller holds both pool locks. The pool never grows: the count is the
// maximum ("ASDataBufferMaxCount") from the start.
zx::Status asBuffListInit(ZXASDataLink &link, int size, int count) {
  return allocSendBuffers(link.buffers, size, count, "Auto-sensor buffers");
}

// Copies into the filling buffer and the ones behind it. Unlike dumpData a
// record may span several buffers (record 96 payloads can be large), but it
// is stored whole or not at all. Caller holds bufferWriteLock.
int asAddLocked(ZXSendBufferPool &pool, const char *data, int len) {
  nioSettings_t *cur = pool.writeList.load(std::memory_order_acquire);
  if (!cur) return -1;
  long room = cur->buff_size - cur->use_len;
  for (nioSettings_t *b = cur->next.load(std::memory_order_acquire); room < len && b;
       b = b->next.load(std::memory_order_acquire))
    room += b->buff_size;
  if (room < len) return -1;
  while (len > 0) {
    nioSettings_t *b = pool.writeList.load(std::memory_order_relaxed);
    const int n = std::min(len, b->buff_size - b->use_len);
    std::memcpy(b->buff + b->use_len, data, static_cast<size_t>(n));
    b->use_len += n;
    data += n;
    len -= n;
    if (b->use_len == b->buff_size) moveToReadList(pool);
  }
  return 0;
}

void asSleep(ZXASDataLink &link, apr_interval_time_t interval) {
  std::unique_lock lk(link.wakeMutex);
  link.wakeCond.wait_for(lk, std::chrono::microseconds(interval),
                         [&link] { return link.stopRequested; });
}

bool stopping(ZXASDataLink &link) {
  std::lock_guard lk(link.wakeMutex);
  return link.stopRequested;
}

void closeAS(ZXASDataLink &link) {
  std::unique_ptr<ZXConnection> old;
  {
    std::lock_guard lk(link.connLock);
    old = std::move(link.conn);
  }
  if (old) ZX_CTRL_LOG(0, "Info", "Auto-sensor data connection closed.");
}

bool connectAS(ZXAppLink *app, ZXASDataLink &link) {
  std::string request, host;
  int port, protocol;
  ZXTlsSettings tls;
  {
    std::lock_guard lk(link.endpointLock);
    request = link.requestText;
    host = link.host;
    port = link.port;
    protocol = link.protocol;
    tls = link.tls;
  }
  char err[kErrSize] = {};
  std::unique_ptr<ZXConnection> conn = zx_open_connection(
      protocol, host.c_str(), port, app->linkTimings.connectTimeout, app->linkTimings.dataIoTimeout,
      err, sizeof err, [&link] { return stopping(link); }, tls);
  if (!conn) {
    ZX_CTRL_LOG(0, "Error",
                "Error while creating the auto-sensor data connection with %s:%d. Error %s\n",
                host.c_str(), port, err);
    return false;
  }
  ZX_CTRL_LOG(0, "Info", "Auto-sensor connection request '%s'", request.c_str());
  if (conn->send_all(request.data(), request.size(), err, sizeof err) != 0) {
    ZX_CTRL_LOG(0, "Error", "Unable to send auto-sensor connection request: %s", err);
    return false;
  }
  std::lock_guard lk(link.connLock);
  link.conn = std::move(conn);
  return true;
}

// One send per queued buffer: false when the connection broke; `allSent`
// when nothing is left queued.
bool sendPass(ZXASDataLink &link, bool &allSent, long &sent) {
  ZXSendBufferPool &pool = link.buffers;
  allSent = false;
  sent = 0;
  char err[kErrSize] = {};
  while (nioSettings_t *b = sendBufferHead(pool)) {
    const int left = b->use_len - b->send_len;
    const long n = left > 0 ? link.conn->send_some(b->buff + b->send_len,
                                                   static_cast<std::size_t>(left), err, sizeof err)
                            : 0;
    if (n < 0) {
      ZX_CTRL_LOG(0, "Error", "Auto-sensor connection send failed: %s", err);
      return false;
    }
    sent += n;
    if (markBufferSent(pool, b, static_cast<int>(n)) > 0 && n == 0) return true;
  }
  allSent = true;
  return true;
}

void flushAS(ZXASDataLink &link) {
  if (!link.conn) return;
  movePartialToReadList(link.buffers);
  for (int i = 0; i < kFlushPasses; ++i) {
    bool allSent = false;
    long sent = 0;
    if (!sendPass(link, allSent, sent) || allSent || sent == 0) break;
  }
}

void senderBody(ZXAppLink *app) {
  ZXASDataLink &link = app->asData;
  while (!stopping(link)) {
    if (!link.conn && !connectAS(app, link)) {
      asSleep(link, app->linkTimings.dataConnRetryInterval);
      continue;
    }
    // Records arrive once per period at most: ship what is there each tick.
    if (!sendBufferHead(link.buffers)) movePartialToReadList(link.buffers);
    bool allSent = false;
    long sent = 0;
    if (!sendPass(link, allSent, sent)) {
      closeAS(link);
      continue;
    }
    asSleep(link, app->linkTimings.dataTick);
  }
  flushAS(link);
  closeAS(link);
}

}  // namespace

ZXASDataLink::ZXASDataLink() = default;

ZXASDataLink::~ZXASDataLink() {
  {
    std::lock_guard lk(wakeMutex);
    stopRequested = true;
  }
  wakeCond.notify_all();
  std::lock_guard lk(threadLock);
  if (sender.joinable()) sender.join();
}

int makeASConnectionRequest(ZXAppLink *app, char *out, std::size_t cap) {
  constexpr std::size_t skip = sizeof kDataRequest - 1, prefix = sizeof kASRequest - 1;
  if (cap <= prefix + 3) return 0;
  std::memcpy(out, kASRequest, prefix);
  // The data request's own fields, behind our request word.
  char data[4096];
  const int n = makeDataConnectionRequest(app, data, sizeof data);
  if (n <= static_cast<int>(skip)) return 0;
  const int written =
      snprintf(out + prefix, cap - prefix, "%.*s", n - static_cast<int>(skip), data + skip);
  if (written < 0) return 0;
  if (static_cast<std::size_t>(written) >= cap - prefix) {
    out[cap - 3] = '\n';
    out[cap - 2] = '\n';
    return static_cast<int>(cap - 1);
  }
  return static_cast<int>(prefix) + written;
}

void check_as_data_thread(ZXAppLink *app) {
  ZXASDataLink &link = app->asData;
  char request[4096];
  const int len = makeASConnectionRequest(app, request, sizeof request);
  {
    std::lock_guard lk(link.endpointLock);
    link.requestText.assign(request, static_cast<std::size_t>(len));
    link.host = app->control.dstIp;
    link.port = app->control.dstPort;
    link.protocol = app->linkProtocol();
    link.tls = app->tls;
  }
  if (!link.ready.load(std::memory_order_acquire)) {
    std::lock_guard write(link.buffers.bufferWriteLock);
    std::lock_guard move(link.buffers.bufferMoveLock);
    if (asBuffListInit(link, app->ZXSys.bciASDataBufferMaxSize, app->ZXSys.ASDataBuffMaxCount).ok())
      link.ready.store(true, std::memory_order_release);
  }
  std::lock_guard lk(link.threadLock);
  if (link.sender.joinable()) {
    bool running;
    {
      std::lock_guard wk(link.wakeMutex);
      running = !link.stopRequested;
    }
    if (running) return;
    link.sender.join();
  }
  {
    std::lock_guard wk(link.wakeMutex);
    link.stopRequested = false;
  }
  link.senderDone.reset();
  try {
    link.sender = std::thread([app] {
      zx::ThreadAppScope scope(app);
      try {
        senderBody(app);
      } catch (const std::exception &e) {
        ZX_CTRL_LOG(0, "Error", "Auto-sensor thread stopped: %s", e.what());
        closeAS(app->asData);
      }
      app->asData.senderDone.arrive();
    });
  } catch (const std::system_error &e) {
    link.senderDone.arrive();
    ZX_CTRL_LOG(0, "Error", "Auto-sensor thread not started: %s", e.what());
  }
}

void request_as_data_thread_stop(ZXAppLink *app) {
  ZXASDataLink &link = app->asData;
  {
    std::lock_guard lk(link.wakeMutex);
    link.stopRequested = true;
  }
  link.wakeCond.notify_all();
  std::lock_guard lk(link.connLock);
  if (link.conn) link.conn->wakeup();
}

zx::Status stop_as_data_thread(ZXAppLink *app, apr_time_t deadline) {
  request_as_data_thread_stop(app);
  ZXASDataLink &link = app->asData;
  std::lock_guard lk(link.threadLock);
  return zx::joinBy(link.sender, link.senderDone, deadline);
}

int dumpASData(ZXAppLink *app, const char *data, int len) {
  if (!data || len <= 0) return 0;
  if (!app) return -99;
  ZXASDataLink &link = app->asData;
  const bool ready = link.ready.load(std::memory_order_acquire);
  int rc = -99;
  if (ready) {
    std::lock_guard write(link.buffers.bufferWriteLock);
    rc = asAddLocked(link.buffers, data, len);
  }
  if (rc != 0) {
    const long long n = link.discardCount.fetch_add(1, std::memory_order_relaxed) + 1;
    if (n % 1000 == 1)
      ZX_CTRL_LOG(0, "Warning", "Auto-sensor %s: record of %d bytes dropped, %lld dropped so far",
                  ready ? "buffers full" : "link not ready", len, n);
  }
  return rc;
}
