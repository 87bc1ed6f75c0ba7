// The collector server list and the choice of the collector to connect to.
//
// Entry 0 is the primary collector (or the SaaS endpoint), entries 1.. the
// backups in settings-file order. Capacity starts at 5 and grows by 5 with
// zeroed entries. Only the control thread (and start-up before it) touches
// the list.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zxlb_owned_string.h"
#include "zxlb_status.h"

struct ZXAppSettings;

struct zxc_servers_t {
  char state = 0;  // 1 = configured / chosen
  std::uint32_t zxc_port = 0;
  zx::OwnedString zxc_host;
  int saasServer = 0;  // 1 = the SaaS endpoint
};

inline constexpr int ZXC_SERVER_LIST_STEP = 5;

struct ZXCServerList {
  std::vector<zxc_servers_t> entries;  // size() is the capacity

  int capacity() const { return static_cast<int>(entries.size()); }
  // Creates the list (capacity 5) or grows it by 5 until `index` fits.
  zxc_servers_t &at_growing(int index);
  // Ensures the list exists: capacity 5 when absent.
  void ensure();
};

// Retry-policy defaults and attempt count.
void init_zxc_server_config(ZXAppSettings &app);
// Zeroes all entries, failover off, no configured host.
void clear_zxc_server_setting(ZXAppSettings &app);
// Entry `active_zxc_idx` (created on demand).
zxc_servers_t &get_active_zxc(ZXAppSettings &app);
// Failover: next configured collector (0, 1, ..., wrap) or back to entry 0.
void lookup_for_next_zxc(ZXAppSettings &app);
void connection_retry_failed(ZXAppSettings &app);

// The "zxcHost=<host>;zxcPort=<port>" fields of a collector message (a
// re-route, a SaaS reply). bad_input unless both are present and the port
// valid.
zx::Status parse_zxc_host_port(const char *message, std::string &host, int &port);
// Makes host:port entry 0 and the collector in use.
void set_primary_zxc(ZXAppSettings &app, const char *host, int port);
