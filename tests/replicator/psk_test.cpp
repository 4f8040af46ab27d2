// SPDX-License-Identifier: Apache-2.0
// Goal: key files are made private, read back as they were made, and refused when anybody else
// could have read them. Method: files in a folder of the test.
#include "replicator/psk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "replicator/identity.h"
#include "tests/replicator/rig.h"

namespace penstock {
namespace {

const std::string kHex = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1E1F";

class PskFile : public testing::Test {
 protected:
  std::string Parse(const std::string& text) { return ParsePsk(text, m_keys); }

  TempFolder m_folder;
  std::vector<PskKey> m_keys;
};

TEST_F(PskFile, IsReadAsItWasMade) {
  const auto path = m_folder / "key";
  ASSERT_EQ(WritePskFile(path, "site-a"), "");
  EXPECT_EQ(ModeOf(path), 0600U);
  ASSERT_EQ(ReadPskFile(path, m_keys), "");
  ASSERT_EQ(m_keys.size(), 1U);
  EXPECT_EQ(m_keys[0].identity, "site-a");
  EXPECT_TRUE(std::any_of(m_keys[0].key.begin(), m_keys[0].key.end(), [](auto b) { return b; }));
}

TEST_F(PskFile, NoTwoAreAlike) {
  ASSERT_EQ(WritePskFile(m_folder / "a", "x"), "");
  ASSERT_EQ(WritePskFile(m_folder / "b", "x"), "");
  EXPECT_NE(ReadText(m_folder / "a"), ReadText(m_folder / "b"));
}

TEST_F(PskFile, OneThatExistsIsLeftAlone) {
  const auto path = WriteText(m_folder / "key", "precious");
  EXPECT_EQ(WritePskFile(path, "x"), path + " exists already; it is left as it is");
  EXPECT_EQ(ReadText(path), "precious");
}

TEST_F(PskFile, NeedsAnIdentity) {
  for (const char* identity : {"", "a b", "a*", "a#b", "plaintext", "\x7f"}) {
    EXPECT_NE(WritePskFile(m_folder / "key", identity), "") << identity;
  }
  EXPECT_FALSE(std::filesystem::exists(m_folder / "key"));
}

TEST_F(PskFile, BytesAreInTheOrderOfTheDigits) {
  ASSERT_EQ(Parse("a:b:" + kHex + "\n"), "");
  ASSERT_EQ(m_keys.size(), 1U);
  EXPECT_EQ(m_keys[0].identity, "a:b");
  for (std::size_t i = 0; i < kPskBytes; ++i) EXPECT_EQ(m_keys[0].key.at(i), i);
}

TEST_F(PskFile, ALineAKeyWithCommentsBetween) {
  ASSERT_EQ(Parse("# two\na:" + kHex + "\r\n\n b:" + kHex + " # second\n"), "");
  ASSERT_EQ(m_keys.size(), 2U);
  EXPECT_EQ(m_keys[1].identity, "b");
}

TEST_F(PskFile, WhatIsNoKeyIsRefusedWithoutBeingRepeated) {
  EXPECT_EQ(Parse("\nabc"), "line 2: needs IDENTITY:KEY");
  EXPECT_EQ(Parse(":" + kHex), "line 1: no valid identity before the ':'");
  EXPECT_EQ(Parse("a:" + kHex.substr(2)), "line 1: the key must be 64 hexadecimal digits");
  EXPECT_EQ(Parse("a:" + kHex + "00"), "line 1: the key must be 64 hexadecimal digits");
  EXPECT_EQ(Parse("a:g" + kHex.substr(1)), "line 1: the key must be 64 hexadecimal digits");
  EXPECT_EQ(Parse("a:" + kHex + "\na:" + kHex), "line 2: the identity was given before");
}

TEST_F(PskFile, TheirNumberIsBounded) {
  const auto ending = ":" + kHex + "\n";
  std::string text;
  for (std::size_t i = 0; i < kMaxPskKeys; ++i) text.append(std::to_string(i)).append(ending);
  EXPECT_EQ(Parse(text), "");
  EXPECT_EQ(Parse(text + "x:" + kHex), "line 1025: too many keys: at most 1024");
}

TEST_F(PskFile, OneThatOthersMayReadIsRefused) {
  for (const mode_t mode : {0640U, 0604U, 0660U, 0610U}) {
    const auto path = WriteText(m_folder / "key", "a:" + kHex, mode);
    EXPECT_EQ(ReadPskFile(path, m_keys),
              std::string(path).append(" is readable by others; run: chmod 600 ").append(path));
  }
}

TEST_F(PskFile, AnEmptyOneIsRefused) {
  const auto path = WriteText(m_folder / "key", "# nothing\n");
  EXPECT_EQ(ReadPskFile(path, m_keys),
            path + " holds no key; make one with: penstock keygen --psk NEWFILE");
}

TEST_F(PskFile, ADirectoryInItsPlaceIsRefused) {
  EXPECT_EQ(ReadPskFile(m_folder.Path(), m_keys), m_folder.Path() + " is a directory, not a file");
}

TEST(Identity, IsAPrintableWordAndNoWildcard) {
  EXPECT_TRUE(IsValidIdentity("a"));
  EXPECT_TRUE(IsValidIdentity("urn:uuid:1-2"));
  EXPECT_TRUE(IsValidIdentity(std::string(kMaxIdentityBytes, 'a')));
  EXPECT_FALSE(IsValidIdentity(std::string(kMaxIdentityBytes + 1, 'a')));
  EXPECT_FALSE(IsValidIdentity(std::string_view("a\0b", 3)));
  EXPECT_FALSE(IsValidIdentity("*"));
}

}  // namespace
}  // namespace penstock
