// SPDX-License-Identifier: Apache-2.0
// Goal: every key of the plugin ends where it belongs; a value that makes no sense and a key that
// is missing are refused in words. Method: texts.
#include "capture/plugin_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "replicator/log.h"

namespace penstock {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

using Keys = std::vector<std::pair<std::string, std::string>>;

class PluginKeys : public testing::Test {
 protected:
  void TearDown() override { SetUpLog({}); }

  // What a configuration has at least.
  static Keys Least() {
    return {{"group", "shop"},
            {"to", "unix:/run/target.sock"},
            {"state", "/var/state"},
            {"plaintext", "true"},
            {"disk", "/images/disk.img"}};
  }
  // What is wrong with a configuration; empty: it is taken.
  std::string Finish(const Keys& keys) {
    PluginConfig config;
    for (const auto& [key, value] : keys) {
      if (auto fault = config.Take(key, value); !fault.empty()) return "take: " + fault;
    }
    return config.Finish(m_options);
  }
  // The least, and these.
  std::string FinishWith(const Keys& more) {
    Keys keys = Least();
    keys.insert(keys.end(), more.begin(), more.end());
    return Finish(keys);
  }
  std::string FinishWithout(const std::string& key) {
    Keys keys = Least();
    std::erase_if(keys, [&](const auto& each) { return each.first == key; });
    return Finish(keys);
  }

  LiveOptions m_options;
};

// --- Intervals. ---

TEST(Intervals, AreTakenInTheirUnits) {
  for (const auto& [text, ms] :
       std::vector<std::pair<std::string, std::uint64_t>>{{"10ms", 10},
                                                          {"500ms", 500},
                                                          {"1s", 1'000},
                                                          {"2m", 120'000},
                                                          {"60m", 3'600'000},
                                                          {"3600s", 3'600'000},
                                                          {"3600000ms", 3'600'000}}) {
    std::uint64_t value = 0;
    EXPECT_EQ(ParseInterval(text, value), "") << text;
    EXPECT_EQ(value, ms) << text;
  }
}

TEST(Intervals, WhatIsNoneIsRefusedAndChangesNothing) {
  for (const char* text : {"", "s", "1", "0s", "9ms", "-1s", "1h", "1 s", "1.5s", "61m", "3601s",
                           "3600001ms", "18446744073709551616s", "18446744073709551615m", "1sx"}) {
    std::uint64_t value = 77;
    EXPECT_THAT(ParseInterval(text, value), HasSubstr("is no interval (as 500ms, 1s or 2m"))
        << text;
    EXPECT_EQ(value, 77U) << text;
  }
}

// --- Keys. ---

TEST_F(PluginKeys, TheLeastIsEnoughAndTheRestHasDefaults) {
  ASSERT_EQ(Finish(Least()), "");
  EXPECT_EQ(m_options.group, "shop");
  EXPECT_EQ(m_options.endpoint.Text(), "unix:/run/target.sock");
  EXPECT_EQ(m_options.stateDirectory, "/var/state");
  EXPECT_EQ(m_options.spoolDirectory, "");
  EXPECT_THAT(m_options.volumes, ElementsAre(Pair("disk", "/images/disk.img")));
  EXPECT_TRUE(m_options.connect.allowPlaintext);
  EXPECT_EQ(m_options.connect.tls, nullptr);
  EXPECT_FALSE(m_options.takeOver);
  // As the help says.
  EXPECT_EQ(m_options.intervalMs, 1'000U);
  EXPECT_EQ(m_options.datasetBytes, 64U << 20U);
  EXPECT_EQ(m_options.memory, 256U << 20U);
  EXPECT_EQ(m_options.spoolBytes, 10ULL << 30U);
  EXPECT_EQ(m_options.compress.Text(), CompressSpec::Parse("auto")->Text());
  EXPECT_EQ(m_options.connect.connection.rateLimit, 0U);
  EXPECT_EQ(m_options.jobs, JobsOf(0));
  EXPECT_EQ(m_options.metrics, std::nullopt);
}

TEST_F(PluginKeys, EveryKeyEndsWhereItBelongs) {
  ASSERT_EQ(FinishWith({{"interval", "250ms"},
                        {"max-dataset", "8M"},
                        {"memory", "32M"},
                        {"spool", "/var/spool"},
                        {"spool-max", "3G"},
                        {"compress", "zstd:3"},
                        {"limit-rate", "5M"},
                        {"jobs", "3"},
                        {"metrics", "127.0.0.1:9101"},
                        {"take-over", "true"},
                        {"tls-name", "target.example"},
                        {"log-level", "error"},
                        {"log-format", "json"}}),
            "");
  EXPECT_EQ(m_options.intervalMs, 250U);
  EXPECT_EQ(m_options.datasetBytes, 8U << 20U);
  EXPECT_EQ(m_options.memory, 32U << 20U);
  EXPECT_EQ(m_options.spoolDirectory, "/var/spool");
  EXPECT_EQ(m_options.spoolBytes, 3ULL << 30U);
  EXPECT_EQ(m_options.compress.Text(), "zstd:3");
  EXPECT_EQ(m_options.connect.connection.rateLimit, 5U << 20U);
  EXPECT_EQ(m_options.jobs, 3U);
  ASSERT_TRUE(m_options.metrics.has_value());
  EXPECT_EQ(m_options.metrics->Text(), "127.0.0.1:9101");
  EXPECT_TRUE(m_options.takeOver);
  EXPECT_EQ(m_options.connect.peerName, "target.example");
  EXPECT_FALSE(IsLogged(Severity::kWarning));
  EXPECT_TRUE(IsLogged(Severity::kError));
}

TEST_F(PluginKeys, TlsFilesAreReadWhenTheyAreNeeded) {
  Keys keys = Least();
  std::erase_if(keys, [](const auto& each) { return each.first == "plaintext"; });
  keys.emplace_back("tls-psk", "/nowhere/psk.key");
  EXPECT_THAT(Finish(keys), HasSubstr("/nowhere/psk.key"));
  keys.back() = {"tls-certs", "/nowhere/certs"};
  EXPECT_THAT(Finish(keys), HasSubstr("/nowhere/certs"));
  keys.emplace_back("plaintext", "true");
  EXPECT_THAT(Finish(keys), HasSubstr("not several"));
}

// A spool of no bytes is documented as none.
TEST_F(PluginKeys, ASpoolOfNothingIsNone) {
  ASSERT_EQ(FinishWith({{"spool-max", "0"}}), "");
  EXPECT_EQ(m_options.spoolBytes, 0U);
}

TEST_F(PluginKeys, FalseIsTheDefault) {
  ASSERT_EQ(FinishWith({{"take-over", "true"}, {"take-over", "false"}}), "");
  EXPECT_FALSE(m_options.takeOver);
  EXPECT_THAT(FinishWith({{"plaintext", "false"}}), HasSubstr("nothing would prove who we are"));
}

// --- Volumes. ---

TEST_F(PluginKeys, EveryOtherKeyIsAVolume) {
  ASSERT_EQ(FinishWith({{"b", "/images/b=1.img"}, {"Disk", "/images/c.img"}}), "");
  EXPECT_THAT(m_options.volumes,
              ElementsAre(Pair("disk", "/images/disk.img"), Pair("b", "/images/b=1.img"),
                          Pair("Disk", "/images/c.img")));
}

TEST_F(PluginKeys, AVolumeMayHaveTheNameOfAKey) {
  ASSERT_EQ(FinishWith({{"volume", "memory=/images/m.img"}, {"volume", "volume=/images/v.img"}}),
            "");
  EXPECT_THAT(m_options.volumes,
              ElementsAre(Pair("disk", "/images/disk.img"), Pair("memory", "/images/m.img"),
                          Pair("volume", "/images/v.img")));
  EXPECT_EQ(m_options.memory, 256U << 20U);
}

TEST_F(PluginKeys, AVolumeThatIsGivenTwiceIsRefused) {
  EXPECT_EQ(FinishWith({{"disk", "/other"}}), "take: volume disk is given twice");
  EXPECT_EQ(FinishWith({{"volume", "disk=/other"}}), "take: volume disk is given twice");
}

TEST_F(PluginKeys, WhatIsNoVolumeIsRefused) {
  EXPECT_THAT(FinishWith({{"b", ""}}), HasSubstr("is not VOL=PATH"));
  EXPECT_THAT(FinishWith({{"volume", "b"}}), HasSubstr("is not VOL=PATH"));
  EXPECT_THAT(FinishWith({{"volume", ""}}), HasSubstr("is not VOL=PATH"));
  EXPECT_THAT(FinishWith({{"a/b", "/x"}}), HasSubstr("is no name of a volume"));
  EXPECT_THAT(FinishWith({{"..", "/x"}}), HasSubstr("is no name of a volume"));
  EXPECT_THAT(FinishWith({{std::string(65, 'a'), "/x"}}), HasSubstr("is no name of a volume"));
}

TEST_F(PluginKeys, AGroupHasAtMost256Volumes) {
  Keys more;
  for (int i = 1; i < 256; ++i) more.emplace_back("v" + std::to_string(i), "/x");
  EXPECT_EQ(FinishWith(more), "");
  EXPECT_EQ(m_options.volumes.size(), 256U);
  more.emplace_back("one-more", "/x");
  EXPECT_EQ(FinishWith(more), "a group has at most 256 volumes");
}

// --- What is wrong. ---

TEST_F(PluginKeys, WhatIsMissingIsAskedFor) {
  EXPECT_EQ(FinishWithout("to"), "where is the target? give to=ADDR:PORT");
  EXPECT_EQ(FinishWithout("state"), "give state=DIR: a directory for maps and spool");
  EXPECT_EQ(FinishWithout("disk"), "there is nothing to serve; give VOL=PATH");
  EXPECT_THAT(FinishWithout("group"), HasSubstr("group: "));
  EXPECT_THAT(FinishWithout("plaintext"), HasSubstr("nothing would prove who we are"));
}

TEST_F(PluginKeys, WrongValuesAreRefusedUnderTheirKey) {
  for (const char* key : {"memory", "spool-max", "max-dataset", "limit-rate"}) {
    for (const char* value : {"", "x", "-1", "1Q"}) {
      EXPECT_THAT(FinishWith({{key, value}}), HasSubstr(std::string("take: ") + key + ": "))
          << value;
    }
  }
  EXPECT_THAT(FinishWith({{"interval", "soon"}}), HasSubstr("take: interval: 'soon' is no"));
  for (const char* value : {"", "x", "-1", "3x", "4294967296"}) {
    EXPECT_EQ(FinishWith({{"jobs", value}}), "take: jobs: not a number") << value;
  }
  EXPECT_EQ(FinishWith({{"plaintext", "yes"}}), "take: plaintext=yes: true or false");
  EXPECT_EQ(FinishWith({{"take-over", "\x1b"}}), "take: take-over=\\x1b: true or false");
  EXPECT_THAT(FinishWith({{"group", "a b"}}), HasSubstr("is no name of a group"));
  EXPECT_THAT(FinishWith({{"to", "nowhere"}}), HasSubstr("no port in 'nowhere'"));
  EXPECT_THAT(FinishWith({{"metrics", "9101"}}), HasSubstr("metrics: no port in '9101'"));
  EXPECT_THAT(FinishWith({{"metrics", "unix:/m.sock"}}), HasSubstr("metrics: give ADDR:PORT"));
  EXPECT_THAT(FinishWith({{"compress", "best"}}), HasSubstr("'best'"));
  EXPECT_THAT(FinishWith({{"log-level", "loud"}}), HasSubstr("loud"));
  EXPECT_THAT(FinishWith({{"log-format", "xml"}}), HasSubstr("xml"));
}

TEST_F(PluginKeys, PlaintextIsForThisMachineOnly) {
  EXPECT_EQ(FinishWith({{"to", "127.0.0.1:7000"}}), "");
  EXPECT_THAT(FinishWith({{"to", "10.0.0.1:7000"}}), HasSubstr("loopback"));
}

TEST_F(PluginKeys, SizesThatDoNotGoTogetherAreRefused) {
  EXPECT_EQ(FinishWith({{"memory", "16M"}, {"max-dataset", "8M"}}), "");
  EXPECT_EQ(FinishWith({{"memory", "16777215"}, {"max-dataset", "1M"}}), "memory: at least 16M");
  const std::string fault = "max-dataset: at least 1M, and at most half of the memory";
  EXPECT_EQ(FinishWith({{"memory", "16M"}, {"max-dataset", "8388609"}}), fault);
  EXPECT_EQ(FinishWith({{"max-dataset", "1M"}}), "");
  EXPECT_EQ(FinishWith({{"max-dataset", "1048575"}}), fault);
}

TEST_F(PluginKeys, TheHelpNamesEveryKey) {
  const std::string help = PluginConfig::Help();
  for (const char* key :
       {"group",      "to",       "state",       "volume",    "tls-certs", "tls-psk",   "plaintext",
        "tls-name",   "interval", "max-dataset", "memory",    "spool",     "spool-max", "compress",
        "limit-rate", "jobs",     "metrics",     "take-over", "log-level", "log-format"}) {
    EXPECT_THAT(help, HasSubstr(std::string(key) + "="));
  }
}

}  // namespace
}  // namespace penstock
