#include "DoubtfulAnswers.hpp"

#include <gmock/gmock.h>

namespace vornet::service {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using testing::UnorderedElementsAre;

std::vector<DoubtfulAnswers::Answer> manyAnswers(std::size_t count, const std::string& folder = "/") {
  std::vector<DoubtfulAnswers::Answer> answers;
  for (std::size_t i = 0; i < count; ++i) answers.emplace_back(folder + std::to_string(i), "");
  return answers;
}

TEST(DoubtfulAnswers, AreRememberedUntilTheyAreTaken) {
  DoubtfulAnswers answers;
  EXPECT_TRUE(answers.isEmpty());
  EXPECT_TRUE(answers.add(":1.1", {{"/a", "SYNCED"}, {"/b", ""}}));
  EXPECT_TRUE(answers.add(":1.2", {{"/a", "PENDING"}}));
  EXPECT_FALSE(answers.isEmpty());
  EXPECT_THAT(answers.items(10), UnorderedElementsAre("/a", "/b"));
  EXPECT_THAT(answers.items(1), SizeIs(1));
  EXPECT_THAT(answers.take("/a"), UnorderedElementsAre(Pair(":1.1", "SYNCED"), Pair(":1.2", "PENDING")));
  EXPECT_THAT(answers.take("/a"), IsEmpty());
  EXPECT_THAT(answers.items(10), ElementsAre("/b"));
}

TEST(DoubtfulAnswers, AreSettledByAnAnswerToTheSameClient) {
  DoubtfulAnswers answers;
  answers.add(":1.1", {{"/a", ""}, {"/b", ""}});
  answers.add(":1.2", {{"/a", ""}});
  answers.settle(":1.1", "/a");
  answers.settle(":1.3", "/a");
  answers.settle(":1.1", "/c");
  EXPECT_THAT(answers.take("/a"), ElementsAre(Pair(":1.2", "")));
  answers.settle(":1.1", "/b");
  EXPECT_TRUE(answers.isEmpty());
}

TEST(DoubtfulAnswers, AreForgottenWithTheirClient) {
  DoubtfulAnswers answers;
  answers.add(":1.1", {{"/a", ""}, {"/b", ""}});
  answers.add(":1.2", {{"/a", ""}});
  answers.forget(":1.1");
  answers.forget(":1.3");
  EXPECT_THAT(answers.items(10), ElementsAre("/a"));
  EXPECT_THAT(answers.take("/a"), ElementsAre(Pair(":1.2", "")));
}

TEST(DoubtfulAnswers, AreBoundedForAClientAndForAllTogether) {
  DoubtfulAnswers answers;
  const auto full = manyAnswers(DoubtfulAnswers::MAX_ITEMS_OF_A_CLIENT);
  EXPECT_TRUE(answers.add(":1.1", full));
  EXPECT_FALSE(answers.add(":1.1", {{"/other", ""}}));
  EXPECT_THAT(answers.take("/other"), IsEmpty());
  EXPECT_TRUE(answers.add(":1.2", full)) << "another client has its own share";
  EXPECT_TRUE(answers.add(":1.3", full));
  EXPECT_FALSE(answers.add(":1.4", {{"/other", ""}})) << "all together";
  answers.settle(":1.2", "/0");
  EXPECT_TRUE(answers.add(":1.4", {{"/other", ""}}));
  answers.forget(":1.1");
  EXPECT_TRUE(answers.add(":1.1", manyAnswers(DoubtfulAnswers::MAX_ITEMS_OF_A_CLIENT - 1)));
}

TEST(DoubtfulAnswers, KnowTheLastItemsThatWereLookedUp) {
  DoubtfulAnswers answers;
  EXPECT_EQ(answers.lastKnown("/a"), "");
  answers.setKnown("/a", "SYNCED");
  answers.setKnown("/a", "PENDING");
  EXPECT_EQ(answers.lastKnown("/a"), "PENDING");
  const auto others = manyAnswers(3 * DoubtfulAnswers::MIN_KNOWN);
  for (std::size_t i = 0; i + 1 < DoubtfulAnswers::MIN_KNOWN; ++i) answers.setKnown(others[i].first, "SYNCED");
  EXPECT_EQ(answers.lastKnown("/a"), "PENDING");
  for (const auto& [path, none] : others) answers.setKnown(path, "SYNCED");
  EXPECT_EQ(answers.lastKnown("/a"), "") << "it is no store of everything";
  EXPECT_EQ(answers.lastKnown(others.back().first), "SYNCED");
}

}  // namespace
}  // namespace vornet::service
