// SPDX-License-Identifier: Apache-2.0
// Goal: a grants file grants what its lines say, and nothing else; what is no grants file is
// refused with the line's number. Method: texts, and the questions that the target asks.
#include "replicator/grants.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/replicator/rig.h"

namespace penstock {
namespace {

class GrantsFile : public testing::Test {
 protected:
  std::string Take(const std::string& text) { return Grants::Parse(text, m_grants); }

  // The rights on a volume as letters: r, v, s.
  std::string Rights(const char* identity, const char* group, const char* volume) const {
    std::string text;
    if (m_grants.Allows(identity, group, volume, Right::kReplicate)) text += 'r';
    if (m_grants.Allows(identity, group, volume, Right::kVerify)) text += 'v';
    if (m_grants.Allows(identity, group, volume, Right::kStatus)) text += 's';
    return text;
  }

  TempFolder m_folder;
  Grants m_grants;
};

TEST_F(GrantsFile, AnEmptyOneDeniesEverything) {
  ASSERT_EQ(Take(""), "");
  EXPECT_EQ(Rights("alice", "g", "v"), "");
  EXPECT_EQ(m_grants.Size(), 0U);
}

TEST_F(GrantsFile, ALineGrantsItsRightsOnItsVolume) {
  ASSERT_EQ(Take("alice g/v replicate,status\n"), "");
  EXPECT_EQ(Rights("alice", "g", "v"), "rs");
  EXPECT_EQ(Rights("alice", "g", "w"), "");
  EXPECT_EQ(Rights("alice", "h", "v"), "");
  EXPECT_EQ(Rights("bob", "g", "v"), "");
}

TEST_F(GrantsFile, AGroupStandsForItsVolumes) {
  ASSERT_EQ(Take("alice g verify"), "");
  EXPECT_EQ(Rights("alice", "g", "v"), "v");
  EXPECT_EQ(Rights("alice", "g", ""), "v");
  EXPECT_EQ(Rights("alice", "gg", "v"), "");
}

TEST_F(GrantsFile, AVolumeIsNotTheWholeGroup) {
  ASSERT_EQ(Take("alice g/v status"), "");
  EXPECT_EQ(Rights("alice", "g", ""), "");
}

TEST_F(GrantsFile, LinesAddUp) {
  ASSERT_EQ(Take("alice g/v replicate\nalice g status\n"), "");
  EXPECT_EQ(Rights("alice", "g", "v"), "rs");
}

TEST_F(GrantsFile, WildcardsStandForWholeWords) {
  ASSERT_EQ(Take("* g status\nalice * verify\nbob */v replicate\ncarol h/* status"), "");
  EXPECT_EQ(Rights("anybody", "g", "v"), "s");
  EXPECT_EQ(Rights("alice", "any", "any"), "v");
  EXPECT_EQ(Rights("bob", "any", "v"), "r");
  EXPECT_EQ(Rights("bob", "any", "w"), "");
  EXPECT_EQ(Rights("carol", "h", ""), "s");
}

TEST_F(GrantsFile, APeersOwnStarIsNoWildcard) {
  ASSERT_EQ(Take("alice g/v status"), "");
  EXPECT_EQ(Rights("*", "g", "v"), "");
  EXPECT_EQ(Rights("alice", "*", "*"), "");
}

TEST_F(GrantsFile, NobodyIsNobodyEvenForAWildcard) {
  ASSERT_EQ(Take("* * replicate,verify,status"), "");
  EXPECT_EQ(Rights("", "g", "v"), "");
  EXPECT_EQ(Rights("alice", "", "v"), "");
}

TEST_F(GrantsFile, TheIdentityWithoutTlsCanBeGranted) {
  ASSERT_EQ(Take("plaintext g status"), "");
  EXPECT_EQ(Rights("plaintext", "g", "v"), "s");
}

TEST_F(GrantsFile, IdentitiesMayBeUris) {
  ASSERT_EQ(Take("spiffe://site/a:b g status"), "");
  EXPECT_EQ(Rights("spiffe://site/a:b", "g", "v"), "s");
}

TEST_F(GrantsFile, CommentsBlanksAndLineEndsDontMatter) {
  ASSERT_EQ(Take("# who\r\n\n  \t alice\tg   status \r\n# bob g status\nbob h verify # no\n"), "");
  EXPECT_EQ(m_grants.Size(), 2U);
  EXPECT_EQ(Rights("alice", "g", "v"), "s");
  EXPECT_EQ(Rights("bob", "g", "v"), "");
  EXPECT_EQ(Rights("bob", "h", "v"), "v");
}

TEST_F(GrantsFile, AllIsForEverybody) {
  m_grants = Grants::All();
  EXPECT_EQ(Rights("anybody", "g", "v"), "rvs");
  EXPECT_EQ(Rights("anybody", "g", ""), "rvs");
}

TEST_F(GrantsFile, ErrorsNameTheLine) {
  EXPECT_EQ(Take("\nalice g\n"),
            "line 2: needs three words: IDENTITY GROUP[/VOLUME] RIGHT[,RIGHT]");
  EXPECT_EQ(Take("alice g write"),
            "line 1: unknown right 'write' (use replicate, verify or status)");
  EXPECT_EQ(Take("alice g status,"), "line 1: unknown right '' (use replicate, verify or status)");
  EXPECT_EQ(Take("alice g status verify"),
            "line 1: unexpected 'verify' after the rights (separate rights by ',' only)");
}

TEST_F(GrantsFile, PartialWildcardsAreRefused) {
  EXPECT_NE(Take("ali* g status"), "");
  EXPECT_NE(Take("alice g* status"), "");
  EXPECT_NE(Take("alice g/v* status"), "");
  EXPECT_NE(Take("alice ** status"), "");
}

TEST_F(GrantsFile, NamesThatAreNoneAreRefused) {
  EXPECT_NE(Take("alice ../g status"), "");
  EXPECT_NE(Take("alice g/ status"), "");
  EXPECT_NE(Take("alice /v status"), "");
  EXPECT_NE(Take("alice g/v/w status"), "");
}

TEST_F(GrantsFile, BytesOfAHostileFileAreEscaped) {
  EXPECT_EQ(Take("alice g \x1b[2J"),
            "line 1: unknown right '\\x1b[2J' (use replicate, verify or status)");
}

TEST_F(GrantsFile, ABadFileChangesNothing) {
  ASSERT_EQ(Take("alice g status"), "");
  EXPECT_NE(Take("bob g status\nbob g nonsense"), "");
  EXPECT_EQ(Rights("alice", "g", "v"), "s");
  EXPECT_EQ(Rights("bob", "g", "v"), "");
}

TEST_F(GrantsFile, ItsSizeIsBounded) {
  EXPECT_NE(Take(std::string(kMaxGrantsBytes + 1, '#')), "");
  std::string text;
  for (std::size_t i = 0; i < kMaxGrants; ++i) text += "a g status\n";
  EXPECT_EQ(Take(text), "");
  EXPECT_EQ(Take(text + "a g status\n"), "line 10001: too many grants: at most 10000");
}

TEST_F(GrantsFile, IsReadFromAFile) {
  const auto path = WriteText(m_folder / "grants", "alice g status\n", 0644);
  ASSERT_EQ(Grants::ReadFile(path, m_grants), "");
  EXPECT_EQ(Rights("alice", "g", "v"), "s");
}

TEST_F(GrantsFile, AFileThatOthersMayWriteIsRefused) {
  const auto path = WriteText(m_folder / "grants", "alice g status\n", 0646);
  EXPECT_EQ(Grants::ReadFile(path, m_grants),
            path + " is writable by others; run: chmod o-w " + path);
}

TEST_F(GrantsFile, ErrorsOfAFileNameIt) {
  const auto path = WriteText(m_folder / "grants", "alice\n");
  EXPECT_EQ(Grants::ReadFile(path, m_grants),
            path + ": line 1: needs three words: IDENTITY GROUP[/VOLUME] RIGHT[,RIGHT]");
  EXPECT_EQ(Grants::ReadFile(m_folder / "none", m_grants),
            "can't open " + (m_folder / "none") + ": No such file or directory");
}

}  // namespace
}  // namespace penstock
