// SPDX-License-Identifier: Apache-2.0
// Goal: addresses are read as people write them; what would leave the machine is told from what
// would not. Method: texts.
#include "replicator/endpoint.h"

#include <gtest/gtest.h>

#include <string>

namespace penstock {
namespace {

std::string Again(const std::string& text) {
  Endpoint endpoint;
  const auto fault = Endpoint::Parse(text, endpoint);
  return fault.empty() ? endpoint.Text() : "refused";
}

TEST(Endpoint, GivesBackWhatItWasMadeOf) {
  for (const char* text : {"127.0.0.1:0", "[::1]:7000", "host.example:65535", "unix:/run/x.sock",
                           "unix:relative", "[fe80::1%lo]:1"}) {
    EXPECT_EQ(Again(text), text);
  }
}

TEST(Endpoint, PartsAreTold) {
  Endpoint endpoint;
  ASSERT_EQ(Endpoint::Parse("[2001:db8::2]:47", endpoint), "");
  EXPECT_FALSE(endpoint.isUnix);
  EXPECT_EQ(endpoint.host, "2001:db8::2");
  EXPECT_EQ(endpoint.port, 47);
}

TEST(Endpoint, WhatIsNoneIsRefused) {
  for (const char* text : {"", "host", "host:", ":1", "host:65536", "host:-1", "host:1x", "::1:80",
                           "[::1]", "[::1:80", "[host]:80", "ho st:80", "unix:", "[]:1"}) {
    EXPECT_EQ(Again(text), "refused") << text;
  }
  EXPECT_EQ(Again("unix:" + std::string(108, 'a')), "refused");
}

TEST(Endpoint, ErrorsSayWhatToWrite) {
  Endpoint endpoint;
  EXPECT_EQ(Endpoint::Parse("\x1bhost", endpoint),
            "no port in '\\x1bhost' (use ADDR:PORT, [ADDR]:PORT or unix:PATH)");
}

TEST(IsLoopback, IsTrueOfAddressesOfTheMachineItself) {
  for (const char* address :
       {"127.0.0.1", "127.255.255.254", "::1", "::ffff:127.0.0.1", "localhost"}) {
    EXPECT_TRUE(IsLoopback(address)) << address;
  }
}

TEST(IsLoopback, IsFalseOfEverythingElse) {
  for (const char* address : {"", "0.0.0.0", "::", "128.0.0.1", "126.0.0.1", "::2", "127.1",
                              "::ffff:10.0.0.1", "localhost.example", "127.0.0.1.example"}) {
    EXPECT_FALSE(IsLoopback(address)) << address;
  }
}

}  // namespace
}  // namespace penstock
