// Fixed locations and ports of the agent's installation.
#pragma once

inline constexpr const char ZX_DEFAULT_HOME[] = "/opt/morvane/corvista/";
inline constexpr int ZX_DEFAULT_COLLECTOR_PORT = 7892;
inline constexpr int ZX_DEFAULT_WSS_PORT = 443;
