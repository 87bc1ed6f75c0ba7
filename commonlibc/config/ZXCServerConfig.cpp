#include "ZXCServerConfig.h"

#include <cstdlib>
#include <cstring>

#include "ZXAppSettings.h"
#include "zxlb_mt_log.h"
#include "zxlb_utiles.h"

zxc_servers_t &ZXCServerList::at_growing(int index) {
  if (index < 0) index = 0;
  ensure();
  while (index >= capacity()) entries.resize(entries.size() + ZXC_SERVER_LIST_STEP);
  return entries[static_cast<size_t>(index)];
}

void ZXCServerList::ensure() {
  if (entries.empty()) entries.resize(ZXC_SERVER_LIST_STEP);
}

void init_zxc_server_config(ZXAppSettings &app) {
  retryPolicy_t &p = app.retry_policy;
  p.num_retry = 3;
  p.time_interval = app.linkTimings.retryInterval;
  p.health_check_request_interval = app.linkTimings.retryInterval;
  p.reply_unsuccessful_count = 10;
  p.heartbeat_reply_timeout_check = 6;
  p.count = 0;
}

void clear_zxc_server_setting(ZXAppSettings &app) {
  for (auto &e : app.zxc_server_arr.entries) e = zxc_servers_t{};
  app.zx_dr_state = 0;
  app.ZXBCISetting.num_zxc_config = 0;
  app.health_check_fail = 0;
}

zxc_servers_t &get_active_zxc(ZXAppSettings &app) {
  return app.zxc_server_arr.at_growing(app.active_zxc_idx);
}

void lookup_for_next_zxc(ZXAppSettings &app) {
  ZXCServerList &list = app.zxc_server_arr;
  int &active_zxc_idx = app.active_zxc_idx;
  list.ensure();
  if (app.zx_dr_state) {
    zxc_servers_t &cur = get_active_zxc(app);
    ZX_CTRL_LOG(0, "Info", " current ZXC info: host = %s, port = %d", cur.zxc_host.c_str(),
                static_cast<int>(cur.zxc_port));
    cur.state = 0;
    // The bound is the configured count, not the last configured index: with
    // two collectors the walk is 0, 1, 2 (an empty entry that fails), 0.
    if (active_zxc_idx < list.capacity() - 1 && active_zxc_idx < app.ZXBCISetting.num_zxc_config)
      ++active_zxc_idx;
    else
      active_zxc_idx = 0;
  } else {
    active_zxc_idx = 0;
  }
  zxc_servers_t &next = get_active_zxc(app);
  next.state = 1;
  ZX_CTRL_LOG(0, "Info", "[ZX DR Feature]; Got next ZXC info: [host | port] = [%s | %d]",
              next.zxc_host.c_str(), static_cast<int>(next.zxc_port));
}

void connection_retry_failed(ZXAppSettings &app) {
  if (app.zx_dr_state)
    ZX_CTRL_LOG(0, "Info",
                "[ZX DR Feature]; Retry for connection attempt failed DR is enabled, looking for "
                "backup");
  lookup_for_next_zxc(app);
}

zx::Status parse_zxc_host_port(const char *message, std::string &host, int &port) {
  std::string text(message ? message : "");
  char *fields[ZX_MAX_MESSAGE_TOKENS] = {};
  int n = zxlb_get_tokens_with_multi_delimiter(text.data(), fields, ZX_MAX_MESSAGE_TOKENS, ";");
  host.clear();
  port = 0;
  for (int i = 0; i < n; ++i) {
    char key[64];
    char *value = split_key_value(fields[i], key, sizeof key);
    if (!value) continue;
    if (strcmp(key, "zxcHost") == 0) host = value;
    if (strcmp(key, "zxcPort") == 0) port = atoi(value);
  }
  return !host.empty() && port > 0 && port <= 65535 ? zx::Ok : zx::Status(zx::Errc::bad_input);
}

void set_primary_zxc(ZXAppSettings &app, const char *host, int port) {
  zxc_servers_t &e = app.zxc_server_arr.at_growing(0);
  e.zxc_host.assign(host);
  e.zxc_port = static_cast<std::uint32_t>(port);
  e.saasServer = 0;
  e.state = 1;
  app.active_zxc_idx = 0;
}
