#include "ZXDataThread.h"

#include <apr_thread_proc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <string>

#include "ZXAppLink.h"
#include "ZXDataDispatcher.h"
#include "zxlb_mt_log.h"

namespace {

constexpr int kErrSize = 1024;
constexpr int kFlushPasses = 100;
constexpr int kHeartbeatLogEvery = 5;
// An exit drain stops sending this much (at most a tenth of its time) before
// the deadline, so that the caller finds the rest counted when it wakes.
constexpr apr_interval_time_t kDrainMargin = apr_time_from_msec(20);

// On a data thread, the application it sends for: how sendBufferDataCon
// knows it runs on that application's data thread.
thread_local ZXAppLink *dataThreadApp = nullptr;

// The data connection as the trace log last told it: one line at the
// default level per change, the retries beneath it.
enum class LinkState { Unknown, Up, Down };
thread_local LinkState dataLink = LinkState::Unknown;

}  // namespace

// Writes at the default level when the connection changes to `to`, and only
// at the control level while it stays there.
#define ZX_DATA_LINK_LOG(to, severity, ...)                     \
  do {                                                          \
    if (dataLink != (to))                                       \
      ZX_LOG_IF(true, "CONTROL_THREAD", severity, __VA_ARGS__); \
    else                                                        \
      ZX_CTRL_LOG(0, severity, __VA_ARGS__);                    \
    dataLink = (to);                                            \
  } while (0)

namespace {

// Sleeps up to `interval`; ends early on stop or a wake request.
void dataSleep(ZXAppLink *app, apr_interval_time_t interval) {
  std::unique_lock lk(app->dataWakeMutex);
  app->dataWakeCond.wait_for(lk, std::chrono::microseconds(interval), [app] {
    return app->dataWakeRequested || app->stopDataThread.load() != 0;
  });
  app->dataWakeRequested = false;
}

void wakeDataThread(ZXAppLink *app) {
  {
    std::lock_guard lk(app->dataWakeMutex);
    app->dataWakeRequested = true;
  }
  app->dataWakeCond.notify_all();
  std::lock_guard lk(app->dataConnLock);
  if (app->zxcDataSocket) app->zxcDataSocket->wakeup();
}

// Bytes sent in one pass over the queued buffers (one send per buffer), or -1
// with the reason in `err` when the connection broke. With `stopAt` each send
// is bounded to end by then (an exit drain); without, the pass gives way to a
// drain as soon as one is asked for. Once the pool is closed for exit it
// sends nothing and discards what is queued.
long sendPass(ZXAppLink *app, ZXConnection &conn, bool &allSent, char *err, int errLen,
              apr_time_t stopAt = 0) {
  ZXSendBufferPool &pool = app->sendBuffers;
  long total = 0;
  allSent = false;
  for (;;) {
    if (stopAt) {
      const apr_time_t now = apr_time_now();
      if (now >= stopAt) return total;
      conn.set_send_timeout(std::min(app->linkTimings.dataIoTimeout, stopAt - now));
    } else if (pool.drainDeadline.load(std::memory_order_relaxed)) {
      return total;
    }
    std::unique_lock send(pool.sendLock);
    if (pool.closedForExit.load(std::memory_order_acquire)) {
      discardQueued(pool, ZXSendLoss::AtExit);
      break;
    }
    nioSettings_t *b = sendBufferHead(pool);
    if (!b) break;
    const int left = b->use_len - b->send_len;
    const long n = left > 0 ? conn.send_some(b->buff + b->send_len, static_cast<std::size_t>(left),
                                             err, errLen)
                            : 0;
    if (n < 0) return -1;
    total += n;
    const int rest = markBufferSent(pool, b, static_cast<int>(n));
    send.unlock();
    if (rest > 0) {
      if (n == 0) return total;  // the collector is not reading: try next tick
      continue;
    }
    if (app->stopDataThread) return total;
  }
  allSent = true;
  return total;
}

// The collector sends nothing on the data connection, so input there is its
// end of the connection (anything else is ignored). Seen at once, not only
// when a send finally fails: a stalled send can take long to learn of it.
bool collectorHungUp(ZXConnection &conn, char *err, int errLen) {
  if (conn.wait_readable(0, err, errLen) != ZXConnection::Wait::Readable) return false;
  char buf[512];
  return conn.receive(buf, sizeof buf, err, errLen) < 0;
}

// A connection broken mid-line (or mid-frame) leaves the rest of it queued;
// the new connection starts at the next whole one, and the cut one counts as
// lost.
void skipPartialLine(ZXSendBufferPool &pool) {
  std::lock_guard send(pool.sendLock);
  // Bounded: every round but the last takes a whole buffer.
  for (int round = 0; pool.midLine && round <= pool.bufferCount; ++round) {
    nioSettings_t *b = sendBufferHead(pool);
    if (!b) {
      // The line's end is in the buffer being filled (stored with its start).
      movePartialToReadList(pool);
      if (!(b = sendBufferHead(pool))) return;
    }
    markBufferDiscarded(pool, b, bytesToUnitEnd(pool, b), ZXSendLoss::ConnDown);
  }
}

// Connects, sends the request and (to a collector) record 99. False when any step failed.
// `giveUpAt` (APR time, 0 = none) bounds the attempt besides the stop.
bool connectData(ZXAppLink *app, apr_time_t giveUpAt = 0) {
  socketInfo_t dst;
  int protocol;
  ZXTlsSettings tls;
  {
    std::lock_guard lk(app->dataEndpointLock);
    dst = app->dataSkt;
    protocol = app->dataProtocol;
    tls = app->dataTls;
  }
  char err[kErrSize] = {};
  std::unique_ptr<ZXConnection> conn = zx_open_connection(
      protocol, dst.dstIp, dst.dstPort, app->linkTimings.connectTimeout,
      app->linkTimings.dataIoTimeout, err, sizeof err,
      [app, giveUpAt] {
        return app->stopDataThread.load() != 0 || (giveUpAt && apr_time_now() >= giveUpAt);
      },
      tls);
  if (!conn) {
    ZX_DATA_LINK_LOG(LinkState::Down, "Error",
                     "Error while creating the data connection with %s:%d. Error %s\n", dst.dstIp,
                     dst.dstPort, err);
    return false;
  }
  {
    std::lock_guard lk(app->dataConnLock);
    app->zxcDataSocket = std::move(conn);
  }
  if (buff_list_init(app) != 0) {
    ZX_DATA_LINK_LOG(LinkState::Down, "Error", "Error in buff_list_init");
    close_data_connection(app);
    return false;
  }
  if (send_data_con_req_msg_to_zxc(app)) {
    ZX_DATA_LINK_LOG(LinkState::Down, "Error",
                     "dataConnectionBreak due to send_data_con_req_msg_to_zxc() == FAIL ");
    close_data_connection(app);
    return false;
  }
  // The proxy reads nothing but event frames after the request.
  if (!app->sendBuffers.framed && !dumpNewConnectionRecord(app)) {
    ZX_DATA_LINK_LOG(LinkState::Down, "Error", "Data connection lost before its first record");
    close_data_connection(app);
    return false;
  }
  skipPartialLine(app->sendBuffers);
  ZX_DATA_LINK_LOG(LinkState::Up, "Info", "Data connection established with %s:%d", dst.dstIp,
                   dst.dstPort);
  return true;
}

// At most once per lossSummaryInterval (and once more when the thread
// ends), and only when something was lost since the last one: the losses by
// cause, at the default level.
void summarizeLosses(ZXAppLink *app, apr_time_t &lastAt, ZXSendCounts &last, bool final = false) {
  ZXSendBufferPool &pool = app->sendBuffers;
  const apr_time_t now = apr_time_now();
  if (!final && now - lastAt < pool.lossSummaryInterval) return;
  lastAt = now;
  const ZXSendCounts c = readSendCounts(pool);
  if (c.lost() != last.lost())
    ZX_LOG_IF(true, "CONTROL_THREAD", "Warning",
              "Data records lost since the last summary: %llu (send buffers full %llu, "
              "connection down %llu, at exit %llu, too large %llu); in all %llu of %llu lost, "
              "%llu sent, %llu queued",
              c.lost() - last.lost(), c.lostPoolFull - last.lostPoolFull,
              c.lostConnDown - last.lostConnDown, c.lostAtExit - last.lostAtExit,
              c.lostOversized - last.lostOversized, c.lost(), c.records, c.sent, c.queued);
  last = c;
}

// The data thread's side of drainSendBuffersForExit: sends what is queued
// until shortly before `deadline`, then closes the pool for exit (what is
// left counts as lost at exit) and tells the caller.
void drainForExit(ZXAppLink *app, apr_time_t deadline) {
  ZXSendBufferPool &pool = app->sendBuffers;
  // A run that has just started may still be connecting: its records are
  // worth the wait, within the deadline.
  if (!app->zxcDataSocket && app->ZXSys.dataConnState != 0) connectData(app, deadline);
  if (ZXConnection *conn = app->zxcDataSocket.get()) {
    movePartialToReadList(pool);
    const apr_time_t stopAt =
        deadline -
        std::min(kDrainMargin, std::max<apr_interval_time_t>(0, (deadline - apr_time_now()) / 10));
    char err[kErrSize] = {};
    bool allSent = false;
    while (!allSent && apr_time_now() < stopAt) {
      if (sendPass(app, *conn, allSent, err, sizeof err, stopAt) < 0) {
        ZX_DATA_LINK_LOG(LinkState::Down, "Error", "Data connection lost: %s", err);
        close_data_connection(app);
        break;
      }
    }
    if (app->zxcDataSocket) conn->set_send_timeout(app->linkTimings.dataIoTimeout);
  }
  {
    std::lock_guard send(pool.sendLock);
    pool.closedForExit.store(true, std::memory_order_release);
    discardQueued(pool, ZXSendLoss::AtExit);
  }
  {
    std::lock_guard lk(pool.drainMutex);
    pool.drainDone = true;
  }
  pool.drainCond.notify_all();
}

void dataThreadBody(ZXAppLink *app) {
  ZXSys_t &sys = app->ZXSys;
  ZXSendBufferPool &pool = app->sendBuffers;
  int ticksLeft = 0;
  int written = 0;
  apr_time_t summaryAt = apr_time_now();
  ZXSendCounts summarized = readSendCounts(pool);
  // Losses since the last tick's summary are told on every way out too.
  struct FinalSummary {
    ZXAppLink *app;
    apr_time_t &at;
    ZXSendCounts &last;
    ~FinalSummary() { summarizeLosses(app, at, last, true); }
  } finalSummary{app, summaryAt, summarized};
  while (!checkAndStopThread(app)) {
    summarizeLosses(app, summaryAt, summarized);
    if (apr_time_t deadline = pool.drainDeadline.exchange(0)) {
      drainForExit(app, deadline);
      continue;
    }
    if (pool.closedForExit.load(std::memory_order_acquire)) {
      // The process is past its exit deadline: nothing more goes out.
      {
        std::lock_guard send(pool.sendLock);
        discardQueued(pool, ZXSendLoss::AtExit);
      }
      dataSleep(app, app->linkTimings.dataTick);
      continue;
    }
    if (sys.dataConnState == 0) {
      // The collector closed the data connection; it reopens it by echo.
      if (dataLink == LinkState::Up)
        ZX_DATA_LINK_LOG(LinkState::Down, "Info", "Data connection closed by the collector");
      close_data_connection(app);
      dataSleep(app, app->linkTimings.dataTick);
      continue;
    }
    if (!app->zxcDataSocket && !connectData(app)) {
      dataSleep(app, app->linkTimings.dataConnRetryInterval);
      continue;
    }
    // A quiet application may take minutes to fill a buffer: a tick with
    // nothing full to send ships the partly filled one. Staged frames of a
    // long or stalled flowpath move on every tick.
    if (!sendBufferHead(pool)) {
      movePartialToReadList(pool);
    } else {
      std::lock_guard write(pool.bufferWriteLock);
      takeStagedFrames(pool);
    }
    if (processData(app) < 0) {
      close_data_connection(app);
      if (sys.closeCtrlConFlag) {
        ZX_CTRL_LOG(0, "Info",
                    "dataConnectionBreak Control connecton already closed. Going to closing data "
                    "thread");
        return;
      }
      continue;  // reconnect at once; the retry interval applies if that fails
    }
    if (checkAndStopThread(app)) break;
    dataSleep(app, app->linkTimings.dataTick);
    handleHeartBeat(app, ticksLeft, written);
  }
  flushCommonData(app);
  close_data_connection(app);
}

// The thread's whole work, in a frame of its own: it returns before the
// thread reports its end (the application may go away as soon as it has), and
// apr_thread_exit's forced unwind then finds no object to destroy and no
// stack left poisoned by a sanitizer.
[[gnu::noinline]] void runDataThread(ZXAppLink *app) {
  zx::ThreadAppScope scope(app);
  dataThreadApp = app;
  dataLink = LinkState::Unknown;
  try {
    dataThreadBody(app);
  } catch (const std::exception &e) {
    ZX_CTRL_LOG(0, "Error", "Data thread stopped: %s", e.what());
    close_data_connection(app);
  }
  // What could not be sent is not kept for a later run: it is counted lost.
  ZXSendBufferPool &pool = app->sendBuffers;
  unsigned long long dropped;
  {
    std::lock_guard send(pool.sendLock);
    dropped =
        discardQueued(pool, pool.closedForExit.load() ? ZXSendLoss::AtExit : ZXSendLoss::ConnDown);
  }
  if (dropped > 0)
    ZX_LOG_IF(true, "CONTROL_THREAD", "Warning",
              "Data thread stopped with %llu records unsent; they are dropped", dropped);
  dataThreadApp = nullptr;
  app->dataThreadRunning = false;
}

void *APR_THREAD_FUNC data_thread_entry(apr_thread_t *thread, void *arg) {
  auto *app = static_cast<ZXAppLink *>(arg);
  runDataThread(app);
  app->dataThreadDone.arrive();
  apr_thread_exit(thread, APR_SUCCESS);
  return nullptr;
}

// Joins a thread that has ended or was told to, waiting until `deadline`
// (0 = no limit). A thread left behind keeps its pool. Caller holds
// dataThreadLock.
zx::Status joinDataThread(ZXAppLink *app, apr_time_t deadline = 0) {
  if (!app->data_thread_id) return zx::Ok;
  const zx::Status joined = zx::joinBy(app->data_thread_id, app->dataThreadDone, deadline);
  if (joined.ok())
    app->data_pool.reset();
  else
    (void)app->data_pool.release();
  return joined;
}

}  // namespace

int makeDataConnectionRequest(ZXAppLink *app, char *out, std::size_t cap) {
  const ZXBCISetting_t &bci = app->ZXBCISetting;
  int n = snprintf(out, cap,
                   "zx_data_msg_req:appName=%s;appID=%d;zxAppServerID=%d;zxAppServerHost=%s;"
                   "tierName=%s;tierID=%d;ZXCollectorIP=%s;ZXCollectorPort=%d;testIdx=%d;pid=%"
                   "lld;agentName=%s\n\n",
                   bci.appName.c_str(), bci.appID.load(), bci.serverID.load(),
                   bci.appServerName.c_str(), bci.tierName.c_str(), bci.tierID.load(),
                   app->control.dstIp, app->control.dstPort, app->Server.TestRunIDValue.load(),
                   app->processID, app->agentName.c_str());
  if (n < 0) return 0;
  if (static_cast<std::size_t>(n) >= cap) {
    // Cut identity values still leave a request line and its blank line.
    out[cap - 3] = '\n';
    out[cap - 2] = '\n';
    return static_cast<int>(cap - 1);
  }
  return n;
}

void check_data_thread(ZXAppLink *app) {
  // The request and the endpoint are taken now, on the control thread, for
  // this and every later reconnection of the thread.
  char request[4096];
  int len = makeDataConnectionRequest(app, request, sizeof request);
  char record[64];
  int rlen = snprintf(record, sizeof record, "\n%d,NewConnection,FPGVersion:%.*s\n", 99,
                      ZX_FPG_VERSION_SIZE, app->Server.fpgVID);
  {
    std::lock_guard lk(app->dataEndpointLock);
    app->dataRequestText.assign(request, static_cast<std::size_t>(len));
    app->newConnectionRecordText.assign(record, static_cast<std::size_t>(rlen));
    snprintf(app->dataSkt.dstIp, sizeof app->dataSkt.dstIp, "%s", app->control.dstIp);
    app->dataSkt.dstPort = app->control.dstPort;
    app->dataProtocol = app->linkProtocol();
    app->dataTls = app->tls;
  }
  std::lock_guard lk(app->dataThreadLock);
  if (app->data_thread_id && app->dataThreadRunning && !app->stopDataThread) {
    wakeDataThread(app);
    return;
  }
  (void)joinDataThread(app);
  app->stopDataThread = 0;
  app->data_pool = zx::make_pool();
  if (!app->data_pool) return;
  // Records of the run's first moments (method ids, BTs) wait in the buffers
  // for the connection instead of being dropped before it.
  buff_list_init(app);
  app->dataThreadRunning = true;
  app->dataThreadDone.reset();
  apr_threadattr_t *attr = nullptr;
  apr_status_t rv = apr_threadattr_create(&attr, app->data_pool.get());
  if (rv == APR_SUCCESS)
    rv =
        apr_thread_create(&app->data_thread_id, attr, data_thread_entry, app, app->data_pool.get());
  if (rv != APR_SUCCESS) {
    char err[kErrSize];
    apr_strerror(rv, err, sizeof err);
    ZX_CTRL_LOG(0, "Error", "Data thread not started: %s", err);
    app->data_thread_id = nullptr;
    app->dataThreadRunning = false;
    app->dataThreadDone.arrive();
    app->data_pool.reset();
    return;
  }
  app->ZXBCISetting.data_thread_running = 1;
}

void setToStopThread(ZXAppLink *app, int stop) {
  if (!app) return;
  app->stopDataThread = stop;
  if (stop) wakeDataThread(app);
}

void request_data_thread_stop(ZXAppLink *app) {
  app->stopDataThread = 1;
  wakeDataThread(app);
}

zx::Status stop_data_thread(ZXAppLink *app, apr_time_t deadline) {
  std::lock_guard lk(app->dataThreadLock);
  if (!app->data_thread_id) return zx::Ok;
  request_data_thread_stop(app);
  const zx::Status ended = joinDataThread(app, deadline);
  app->ZXBCISetting.data_thread_running = 0;
  return ended;
}

void closeDataConnectionByCollector(ZXAppLink *app) {
  wakeDataThread(app);
}

int processData(ZXAppLink *app) {
  ZXConnection *conn = app->zxcDataSocket.get();
  if (!conn) return -1;
  bool allSent = false;
  char err[kErrSize] = {};
  if (collectorHungUp(*conn, err, sizeof err) ||
      sendPass(app, *conn, allSent, err, sizeof err) < 0) {
    ZX_DATA_LINK_LOG(LinkState::Down, "Error", "Data connection lost: %s", err);
    return -1;
  }
  return allSent ? 1 : 0;
}

void flushCommonData(ZXAppLink *app) {
  // The connection is the data thread's alone; its last flush follows the
  // stop anyway.
  if (dataThreadApp != app) return;
  ZXConnection *conn = app->zxcDataSocket.get();
  if (!conn) return;
  movePartialToReadList(app->sendBuffers);
  char err[kErrSize] = {};
  for (int i = 0; i < kFlushPasses; ++i) {
    bool allSent = false;
    long n = sendPass(app, *conn, allSent, err, sizeof err);
    if (n <= 0 || allSent) break;
  }
}

zx::Status drainSendBuffersForExit(ZXAppLink *app, apr_time_t deadline) {
  if (!app) return zx::Errc::bad_input;
  ZXSendBufferPool &pool = app->sendBuffers;
  const unsigned long long lostBefore = pool.counters.lostAtExit.load();
  if (app->dataThreadRunning.load() && !pool.closedForExit.load()) {
    {
      std::lock_guard lk(pool.drainMutex);
      pool.drainDone = false;
    }
    pool.drainDeadline.store(deadline);
    wakeDataThread(app);
    // A steady-clock wait: a wall-clock step must not stretch the exit.
    const auto until =
        std::chrono::steady_clock::now() +
        std::chrono::microseconds(std::max<apr_time_t>(0, deadline - apr_time_now()));
    std::unique_lock lk(pool.drainMutex);
    pool.drainCond.wait_until(lk, until, [&pool] { return pool.drainDone; });
  }
  pool.closedForExit.store(true, std::memory_order_release);
  // A sender inside its last send (bounded by the deadline) discards the
  // rest itself when the send returns; the exit does not wait for it.
  bool senderBusy;
  {
    std::unique_lock send(pool.sendLock, std::try_to_lock);
    senderBusy = !send.owns_lock();
    if (!senderBusy) discardQueued(pool, ZXSendLoss::AtExit);
  }
  const ZXSendCounts c = readSendCounts(pool);
  // With the sender busy, what is queued now is about to be discarded too.
  const unsigned long long lost = c.lostAtExit - lostBefore + (senderBusy ? c.queued : 0);
  if (lost > 0 || senderBusy)
    ZX_LOG_IF(true, "CONTROL_THREAD", "Warning",
              "Exit: %llu records still queued at the deadline are dropped; in all %llu of %llu "
              "records lost, %llu sent",
              lost, c.lost() + (senderBusy ? c.queued : 0), c.records, c.sent);
  return lost > 0 || senderBusy ? zx::Status(zx::Errc::timed_out) : zx::Ok;
}

void handleHeartBeat(ZXAppLink *app, int &ticksLeft, int &written) {
  const int period = app->ZXSys.zxcBciDataConnectionHeartBeat;
  if (period <= 0) return;
  if (ticksLeft <= 0 || ticksLeft > period) ticksLeft = period;
  if (--ticksLeft >= 1) return;
  if (app->sendBuffers.closedForExit.load(std::memory_order_relaxed)) return;
  dumpData(app, "\n", 1);
  if (++written >= kHeartbeatLogEvery) {
    ZX_CTRL_LOG(1, "Info", "Heartbeat written on the data connection %d times", written);
    written = 0;
  }
  ticksLeft = period;
}

bool checkAndStopThread(ZXAppLink *app) {
  if (!app->stopDataThread) return false;
  ZX_CTRL_LOG(0, "Info", "BCI Data thread is to be stopped. Server.isTenRecordDump = %d.",
              app->Server.isTenRecordDump.load());
  return true;
}

void close_data_connection(ZXAppLink *app) {
  std::unique_ptr<ZXConnection> old;
  {
    std::lock_guard lk(app->dataConnLock);
    old = std::move(app->zxcDataSocket);
  }
  if (old) ZX_CTRL_LOG(0, "Info", "Data connection closed.");
}

namespace {

// Sends one of the texts prepared by check_data_thread on the data
// connection; true when sent.
bool sendPreparedText(ZXAppLink *app, std::string ZXAppLink::*text, const char *what) {
  std::string copy;
  {
    std::lock_guard lk(app->dataEndpointLock);
    copy = app->*text;
  }
  ZX_CTRL_LOG(0, "Info", "Sending the %s '%s'", what, copy.c_str());
  char err[kErrSize] = {};
  if (!app->zxcDataSocket ||
      app->zxcDataSocket->send_all(copy.data(), copy.size(), err, sizeof err) != 0) {
    ZX_CTRL_LOG(0, "Error", "Unable to send the %s: %s", what, err);
    return false;
  }
  return true;
}

}  // namespace

bool send_data_con_req_msg_to_zxc(ZXAppLink *app) {
  return !sendPreparedText(app, &ZXAppLink::dataRequestText, "data connection request");
}

bool dumpNewConnectionRecord(ZXAppLink *app) {
  return sendPreparedText(app, &ZXAppLink::newConnectionRecordText, "new-connection record");
}

int sendBufferDataCon(ZXAppLink *app, const char *data, int len) {
  if (!data || len <= 0) return 0;
  // Event frames come from application threads, which must never wait on
  // the proxy, and from several at once, whose frames must not interleave:
  // each goes whole into the send buffers (or is dropped and counted).
  if (app && app->sendsEventsToProxy()) return dumpFrame(app, data, len);
  if (!app || dataThreadApp != app || !app->zxcDataSocket || app->lws_active)
    return dumpData(app, data, len);
  char err[kErrSize] = {};
  long n = app->zxcDataSocket->send_some(data, static_cast<std::size_t>(len), err, sizeof err);
  return n < 0 ? -1 : static_cast<int>(n);
}
