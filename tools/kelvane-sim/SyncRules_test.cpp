#include "kelvane-sim/SyncRules.hpp"

#include <gtest/gtest.h>

#include <string>

namespace vornet::sim {
namespace {

TEST(SyncRules, OrdinaryNamesCanBeSynced) {
  for (const char* name : {"a", "report.txt", "with blank.txt", ".hidden", "~tilde", "a.tmpx", "tmp", "100% & [x] 'y'",
                           "\xC3\xA9t\xC3\xA9", "e\xCC\x81t\xC3\xA9", "\xF0\x9F\x98\x80"}) {
    EXPECT_TRUE(isSyncableName(name)) << name;
  }
}

TEST(SyncRules, NamesWithForbiddenCharactersCannotBeSynced) {
  for (const char c : std::string("\\:*?\"<>|\x01\x1F\x7F\n\t"))
    EXPECT_FALSE(isSyncableName(std::string("a") + c + "b")) << static_cast<int>(c);
}

TEST(SyncRules, TemporaryNamesAndBadEndingsCannotBeSynced) {
  for (const char* name : {"", "a.", "a ", ".", "~$doc.docx", "~$", "x.tmp", ".tmp"})
    EXPECT_FALSE(isSyncableName(name)) << name;
}

TEST(SyncRules, NamesAreLimitedTo255BytesNotCharacters) {
  EXPECT_TRUE(isSyncableName(std::string(255, 'a')));
  EXPECT_FALSE(isSyncableName(std::string(256, 'a')));
  std::string accented;
  for (int i = 0; i < 128; ++i) accented += "\xC3\xA9";
  EXPECT_FALSE(isSyncableName(accented));
}

TEST(SyncRules, NothingBelowAFolderThatCannotBeSyncedCanBe) {
  EXPECT_TRUE(isSyncablePath("/"));
  EXPECT_TRUE(isSyncablePath("/a/b"));
  EXPECT_TRUE(isSyncablePath("/a/b/"));
  EXPECT_FALSE(isSyncablePath("/a?/b"));
  EXPECT_FALSE(isSyncablePath("/a/b?"));
  EXPECT_FALSE(isSyncablePath("/x.tmp/a/b"));
}

TEST(SyncRules, TellsUtf8FromOtherBytes) {
  for (const char* good :
       {"", "abc", "\xC2\x80", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_TRUE(isUtf8(good));
  }
  for (const char* bad : {"\x80", "\xC0\xAF", "\xC1\xBF", "\xC3", "a\xC3", "\xC3(", "\xE0\x80\x80", "\xE2\x82",
                          "\xED\xA0\x80", "\xF0\x80\x80\x80", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF"}) {
    EXPECT_FALSE(isUtf8(bad));
  }
}

}  // namespace
}  // namespace vornet::sim
