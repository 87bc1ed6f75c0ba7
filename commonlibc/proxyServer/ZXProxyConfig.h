// The proxy process's own settings: where it listens, and the collector its
// applications report to. Both come from the environment (MOR_APP_AGENT_*)
// and $ZXHOME/config/zxsettings.conf, read as an agent reads them; each
// application the proxy serves reads the same sources again for its own link
// (ZXProxyServer), so the two never disagree.
//
//   proxySocketPath=/run/zx/proxy.sock   unix-domain socket; wins when set
//   proxyIP=127.0.0.1  proxyPort=7892    TCP otherwise (these defaults)
//   proxyConType=2 (WS) or 3 (WSS)       WebSocket at proxyIP:proxyPort
//   proxyWsCert=... proxyWsKey=...       WSS's certificate and key
//   zxcHost=... zxcPort=... ZXC_COMM_PROTOCOL=... backupZxcHostName=...
#pragma once

struct ZXAppSettings;

// Reads the environment and the settings file into `settings` (the proxy
// process's application object) and copies the listening endpoint into the
// proxy record. 0 when a collector is configured; 1 when none is (the proxy
// serves processes all the same, and their applications keep looking for
// one).
int readZXProxyConfig(ZXAppSettings &settings);
