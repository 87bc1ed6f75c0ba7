// The application object, transport layer: the send buffers, the data
// connection with its thread, and the auto-sensor link.
#pragma once

#include <apr_thread_proc.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "ZXAppSettings.h"
#include "ZXAutoSensorData.h"
#include "ZXDataDispatcher.h"
#include "ZXSocketManager.h"
#include "zxlb_thread_done.h"

inline constexpr int ZX_HOST_TEXT_SIZE = 256;

// Both ends of one connection to the collector (or the proxy).
struct socketInfo_t {
  char sourceIp[ZX_IP_TEXT_SIZE] = {};
  int srcPort = 0;
  char dstIp[ZX_HOST_TEXT_SIZE] = {};
  int dstPort = 0;
};

struct ZXAppLink : ZXAppSettings {
  ZXAppLink();
  ~ZXAppLink() override;  // stops the auto-sensor sender, then the data thread

  // Send buffers between producers and the data thread; the pool documents
  // its two locks.
  ZXSendBufferPool sendBuffers;

  // An application process of proxy mode reaches the proxy by proxyConType:
  // 1 TCP, 2 WS, 3 WSS (judged by the `tls` settings) at proxyIP:proxyPort;
  // any other value the unix-domain socket at proxySocketPath when one is
  // set, else TCP.
  bool proxyOverUnixSocket() const noexcept {
    return sendsEventsToProxy() && !ZXSys.socketPath.empty() && !proxyOverWebSocket() &&
           ZXSys.proxyConType != ZX_PROTO_TCP;
  }
  bool proxyOverWebSocket() const noexcept {
    return sendsEventsToProxy() &&
           (ZXSys.proxyConType == ZX_PROTO_WS || ZXSys.proxyConType == ZX_PROTO_WSS);
  }
  // The transport of the control and data connections.
  int linkProtocol() const noexcept {
    if (proxyOverWebSocket()) return ZXSys.proxyConType;
    if (lws_active) return ActiveAgentProtocolIndex;
    return proxyOverUnixSocket() ? ZX_PROTO_UNIX : ZX_PROTO_TCP;
  }

  // The control connection's ends, which the data connection reuses.
  socketInfo_t control;
  int ActiveAgentProtocolIndex = 0;
  int lws_active = 0;
  int proxy_lws_active = 0;

  // Data connection and its thread. The data thread alone uses the
  // connection; dataConnLock guards replacing `zxcDataSocket` against
  // wakeup() from other threads. dataThreadLock serialises starting and
  // stopping the thread (control thread, shutdown).
  socketInfo_t dataSkt;
  // dataEndpointLock guards dataSkt's destination and the fields below,
  // prepared by the control thread (identity strings may change under
  // keywords, so the data thread never reads them itself).
  std::mutex dataEndpointLock;
  std::string dataRequestText;
  std::string newConnectionRecordText;
  int dataProtocol = ZX_PROTO_TCP;
  ZXTlsSettings dataTls;
  std::mutex dataConnLock;
  std::unique_ptr<ZXConnection> zxcDataSocket;
  std::mutex dataThreadLock;
  zx::PoolPtr data_pool;
  apr_thread_t *data_thread_id = nullptr;
  zx::ThreadDone dataThreadDone;
  std::atomic<bool> dataThreadRunning{false};
  std::atomic<int> stopDataThread{0};  // setToStopThread
  std::mutex dataWakeMutex;            // guards dataWakeRequested; with dataWakeCond
  std::condition_variable dataWakeCond;
  bool dataWakeRequested = false;

  // The auto-sensor data connection that carries record 96; documents its
  // own locks.
  int maxBuffersAS = 8;
  int dataBufferSizeAS = 0x40000;
  ZXASDataLink asData;
};
