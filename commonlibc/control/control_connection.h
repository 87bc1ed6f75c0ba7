// One control connection to the collector (or to the proxy): opening it, the
// connection request and the judgement of the reply, protocol negotiation,
// the poll loop with liveness and heartbeats, and line framing. Everything
// here runs on the control thread of the application it is given.
#pragma once

#include <cstddef>

#include "zxlb_status.h"

struct controlSocketBuffer_t;
struct ZXAppControl;

// Results of rec_control_con_rep_msg_from_zxc / handle_zxc_con_res_msg.
enum ZXReplyResult : int { ZX_REPLY_ACCEPTED = 0, ZX_REPLY_REJECTED = 1, ZX_REPLY_SWITCH = 2 };

// Opens the connection with the active transport and records both ends in
// `control`. 0 on success; -1 with the reason in `err`.
int create_control_conn(ZXAppControl *app, const char *host, int port, char *err, int err_len);
// Closes the connection, if any, and logs "Control connection closed.".
void control_connection_cleanup(ZXAppControl *app);

// Builds the request (SaaS or ordinary form) into ZXBCISetting.
void setControlConnectionReqMessage(ZXAppControl *app);
// false on success, true on failure.
bool send_control_con_req_msg_to_zxc(ZXAppControl *app);
// Waits for the first complete reply line (bounded by the I/O timeout) and
// judges it; later lines stay in the buffer for the poll loop.
int rec_control_con_rep_msg_from_zxc(ZXAppControl *app, controlSocketBuffer_t *buf);
// Judges one reply line (changed in place by the parsers).
int handle_zxc_con_res_msg(ZXAppControl *app, char *reply);
// 1 when the connection must change (protocol or port), 0 to keep it.
int setProtocolFromResponseMessage(ZXAppControl *app, const char *reply);
// Makes `protocol` the active transport.
void setConnectionChannel(ZXAppControl *app, int protocol);

// The poll loop of a live connection; returns 1 when it must be dropped.
int handle_msg_from_zxc(ZXAppControl *app, controlSocketBuffer_t *buf);
// One read and the framing of what arrived; 1 when the connection must go.
int read_msg_from_zxc(ZXAppControl *app, controlSocketBuffer_t *buf);
// Hands every complete line to the dispatcher and keeps a partial one.
void processControlConnectionMessage(ZXAppControl *app, controlSocketBuffer_t *buf);
// Where the next read goes and how much fits; a buffer filled by one
// over-long line is emptied first and the rest of that line skipped.
char *control_buffer_space(controlSocketBuffer_t *buf, int *cap);
// Accounts `n` bytes just written at control_buffer_space.
void control_buffer_commit(controlSocketBuffer_t *buf, int n);
// Empties the buffer (allocating it on first use).
zx::Status reset_control_buffer(controlSocketBuffer_t *buf);

void make_control_conn_heartbeat_msg(ZXAppControl *app);
// 0 sent; 1 failed (the connection is then cleaned up).
int send_control_conn_heartbeat_to_zxc(ZXAppControl *app);
// 1 when the collector has been silent for zxcHeartBeatThreshold (the
// connection is then closed), else 0.
int checkZXCAlive(ZXAppControl *app);

// Sends text on the control connection: 0, or 1 when there is no connection
// or the send failed.
int controlConnectionSendBuffer(ZXAppControl *app, const char *text, std::size_t len);
// The same over a WebSocket control connection (as one message), logged
// under the transport's module.
int send_control_data_via_lws_socket(ZXAppControl *app, const char *data, std::size_t length);

// The "dataConnState" / "AutosensorConnState" fields of a heartbeat echo.
// bad_input when it has fewer than three fields.
zx::Status applyHeartbeatEchoStates(ZXAppControl *app, const char *message);
