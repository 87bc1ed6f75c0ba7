// The reference collector over WebSocket and TLS-wrapped WebSocket: the same protocol
// handling as over TCP, reached through a plain libwebsockets client.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "test_support.h"

namespace {

using zxtest::TestPki;

bool verifies(const TestPki &pki, const std::string &cert, const std::string &host) {
  const std::string cmd = "openssl verify -CAfile '" + pki.ca_file + "' -verify_ip " + host + " '" +
                          cert + "' >/dev/null 2>&1";
  return std::system(cmd.c_str()) == 0;
}

// The certificates the agent's TLS tests rely on fail for the reason their names give.
TEST(TestPkiTest, CertificatesVerifyOnlyWhereTheyShould) {
  TestPki pki;
  EXPECT_TRUE(verifies(pki, pki.cert_file, "127.0.0.1"));
  EXPECT_FALSE(verifies(pki, pki.unknown_ca().cert_file, "127.0.0.1"));
  EXPECT_FALSE(verifies(pki, pki.wrong_host().cert_file, "127.0.0.1"));
  EXPECT_TRUE(verifies(pki, pki.wrong_host().cert_file, "192.0.2.1"));
  EXPECT_FALSE(verifies(pki, pki.expired().cert_file, "127.0.0.1"));
}

}  // namespace
