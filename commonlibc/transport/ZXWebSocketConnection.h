// The WebSocket variants (WS, WSS) of the collector link, behind the same
// ZXConnection seam as TCP. The control, data and auto-sensor connections
// each get one, opened and used by the thread that owns the connection.
//
//   owner thread ── send_some/receive/wait_readable ──> lws_service(ctx)
//                                                        │ callbacks
//   any thread ──── wakeup() ── lws_cancel_service ──────┘
//
// Each connection has a client context of its own, serviced only by its
// owner thread inside the calls it makes: no application thread ever runs
// the library or waits for it. Only the TLS client context (the parsed CA
// store) is shared, between WSS connections that trust the same CAs. The
// stream is bytes, as over TCP: each send goes as one binary message, and
// received messages (text or binary) are joined into one byte stream. WSS
// verifies the server's certificate and host name unless the settings turn
// that off; a failed verification fails the connect like an unreachable
// collector, with the reason in `err`.
#pragma once

#include <memory>

#include "ZXSocketManager.h"
#include "ZXTlsSettings.h"

// Opens a WS (`tls` false) or WSS connection to host:port, as
// zx_open_connection does.
std::unique_ptr<ZXConnection> zx_open_websocket(bool tls, const char *host, int port,
                                                apr_interval_time_t timeout,
                                                apr_interval_time_t io_timeout,
                                                const ZXTlsSettings &settings, char *err,
                                                int err_len, const std::function<bool()> &abandon);

// The library's log sink: its lines go to the trace log under "WS" at the
// calling thread's control trace level (errors always).
void lws_log(int level, const char *line);
// Sends the library's log there, once per process; before any context.
void zx_lws_install_log();
