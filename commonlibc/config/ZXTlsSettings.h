// How a WSS connection judges the collector's certificate. Read from the
// settings file and the environment by the control thread; the data and
// auto-sensor links take copies when the control thread prepares them.
#pragma once

#include <string>

struct ZXTlsSettings {
  // A CA file trusted besides the system's store (a collector with a CA of
  // its own); empty for the store alone.
  std::string caFile;
  // Off only when a setting says so explicitly; every connect then warns.
  bool verifyPeer = true;
};
