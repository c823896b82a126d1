#include "kelvane-sim/ActionJournal.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kelvane-sim/TestFolder.hpp"

namespace vornet::sim {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using testing::TestFolder;

TEST(ActionJournal, GivesBackWhatWasAppended) {
  const TestFolder folder;
  const ActionJournal journal(folder.path());
  EXPECT_THAT(journal.read(), IsEmpty());
  journal.append({"2026-01-31T12:00:00.000Z", "2", "Copy Link", {"/a\nb", "/caf\xC3\xA9/", "/\"q\""}});
  journal.append({"2026-01-31T12:00:01.000Z", "1", "Share", {"/b", "/b"}});
  const auto actions = ActionJournal(folder.path()).read();
  ASSERT_EQ(actions.size(), 2U);
  EXPECT_EQ(actions[0].time, "2026-01-31T12:00:00.000Z");
  EXPECT_EQ(actions[0].uid, "2");
  EXPECT_EQ(actions[0].name, "Copy Link");
  EXPECT_THAT(actions[0].paths, ElementsAre("/a\nb", "/caf\xC3\xA9/", "/\"q\""));
  EXPECT_THAT(actions[1].paths, ElementsAre("/b", "/b"));
}

TEST(ActionJournal, ALineIsOneJsonObject) {
  const TestFolder folder;
  const ActionJournal journal(folder.path());
  journal.append({"T", "3", "View in Cloud", {"/a"}});
  std::ifstream file(journal.path());
  std::string line;
  std::getline(file, line);
  EXPECT_EQ(line, R"({"time":"T","uid":"3","action":"View in Cloud","paths":["/a"]})");
}

TEST(ActionJournal, LinesThatAreNoActionsArePassedOver) {
  const TestFolder folder;
  folder.write("/actions.jsonl", "half a li\n[1]\n");
  const ActionJournal journal(folder.path());
  journal.append({"T", "1", "Share", {"/a"}});
  EXPECT_EQ(journal.read().size(), 1U);
}

TEST(ActionJournal, AMissingFolderIsAnError) {
  const TestFolder folder;
  EXPECT_THROW(ActionJournal(folder.path("/missing")).append({"T", "1", "Share", {}}), std::runtime_error);
}

TEST(ActionJournal, TheTimeIsUtcWithMilliseconds) {
  const std::string day = "[0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9]";
  EXPECT_THAT(timeNow(), MatchesRegex(day + "T[0-9][0-9]:[0-9][0-9]:[0-9][0-9][.][0-9][0-9][0-9]Z"));
}

}  // namespace
}  // namespace vornet::sim
