#include "cache/DirNode.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/Entries.hpp"
#include "support/LogRecorder.hpp"

namespace vornet::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

TEST(DirNodeTest, aNewNodeIsEmptyUnpopulatedAndAlone) {
  const DirNode node("/a/");
  EXPECT_EQ(node.dir(), "/a/");
  EXPECT_TRUE(node.items().empty());
  EXPECT_FALSE(node.populated());
  EXPECT_TRUE(node.pre.expired());
  EXPECT_TRUE(node.suc.expired());
}

TEST(DirNodeTest, theFolderIsKeptAsItIsGiven) {
  EXPECT_EQ(DirNode("a//b").dir(), "a//b");
  EXPECT_EQ(DirNode("").dir(), "");
}

TEST(DirNodeTest, itsLinksKeepNoNeighbourAlive) {
  DirNode node("/a/");
  auto neighbour = std::make_shared<DirNode>("/b/");
  node.pre = neighbour;
  node.suc = neighbour;
  EXPECT_EQ(node.pre.lock(), neighbour);
  neighbour.reset();
  EXPECT_TRUE(node.pre.expired());
  EXPECT_TRUE(node.suc.expired());
}

TEST(DirNodeTest, theFirstFillReportsAndLogsNothing) {
  const LogRecorder log;
  DirNode node("/a/");
  EXPECT_TRUE(node.update({{"/a/x", 1}, {"/a/y", 2}}).empty());
  EXPECT_TRUE(node.populated());
  EXPECT_THAT(entriesOf(node.items()), UnorderedElementsAre(Pair("/a/x", 1), Pair("/a/y", 2)));
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(DirNodeTest, aFirstFillWithNothingPopulatesTheNode) {
  const LogRecorder log;
  DirNode node("/a/");
  EXPECT_TRUE(node.update({}).empty());
  EXPECT_TRUE(node.populated());
  EXPECT_TRUE(node.items().empty());
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(DirNodeTest, whatComesAfterAnEmptyFirstFillIsAdded) {
  const LogRecorder log;
  DirNode node("/a/");
  node.update({});
  EXPECT_THAT(entriesOf(node.update({{"/a/x", 0}})), UnorderedElementsAre(Pair("/a/x", 0)));
  EXPECT_THAT(log.messages(LogLevel::Debug), ElementsAre("Cache path added: /a/x 0"));
}

TEST(DirNodeTest, theSameContentAgainReportsAndLogsNothing) {
  const LogRecorder log;
  DirNode node("/a/");
  node.update({{"/a/x", 1}, {"/a/y", 2}});
  EXPECT_TRUE(node.update({{"/a/y", 2}, {"/a/x", 1}}).empty());
  EXPECT_THAT(log.messages(), IsEmpty());
  EXPECT_THAT(entriesOf(node.items()), UnorderedElementsAre(Pair("/a/x", 1), Pair("/a/y", 2)));
}

TEST(DirNodeTest, aChangedStatusIsReportedAndLogged) {
  const LogRecorder log;
  DirNode node("/a/");
  node.update({{"/a/x", 1}, {"/a/y", 2}});
  EXPECT_THAT(entriesOf(node.update({{"/a/x", 2}, {"/a/y", 2}})), UnorderedElementsAre(Pair("/a/x", 2)));
  EXPECT_THAT(log.messages(), ElementsAre("Cached path changed: /a/x 1 -> Optional(2)"));
  EXPECT_EQ(log.records().front().logLevel, LogLevel::Debug);
  EXPECT_EQ(log.records().front().functionName, "update");
  EXPECT_EQ(log.records().front().fileName, "src/cache/DirNode");
}

TEST(DirNodeTest, statusesAreWrittenInDecimalWithTheirSign) {
  const LogRecorder log;
  DirNode node("/a/");
  node.update({{"/a/x", 0}});
  node.update({{"/a/x", -1}});
  node.update({{"/a/x", 1234567890123}});
  node.update({});
  EXPECT_THAT(log.messages(LogLevel::Debug), ElementsAre("Cached path changed: /a/x 0 -> Optional(-1)",
                                                         "Cached path changed: /a/x -1 -> Optional(1234567890123)",
                                                         "Cached path changed: /a/x 1234567890123 -> nil"));
}

TEST(DirNodeTest, aVanishedPathIsLoggedAndNotReported) {
  const LogRecorder log;
  DirNode node("/a/");
  node.update({{"/a/x", 1}, {"/a/y", 2}});
  EXPECT_TRUE(node.update({{"/a/y", 2}}).empty());
  EXPECT_THAT(log.messages(LogLevel::Debug), ElementsAre("Cached path changed: /a/x 1 -> nil"));
  EXPECT_EQ(node.statusForPath("/a/x"), std::nullopt);
}

TEST(DirNodeTest, aNewPathIsReportedAndLogged) {
  const LogRecorder log;
  DirNode node("/a/");
  node.update({{"/a/x", 1}});
  EXPECT_THAT(entriesOf(node.update({{"/a/x", 1}, {"/a/new", 0}})), UnorderedElementsAre(Pair("/a/new", 0)));
  EXPECT_THAT(log.messages(), ElementsAre("Cache path added: /a/new 0"));
  EXPECT_EQ(log.records().front().logLevel, LogLevel::Debug);
}

TEST(DirNodeTest, changesAreLoggedBeforeAdditions) {
  const LogRecorder log;
  DirNode node("/a/");
  node.update({{"/a/x", 1}, {"/a/gone", 2}, {"/a/same", 0}});
  EXPECT_THAT(entriesOf(node.update({{"/a/x", 2}, {"/a/same", 0}, {"/a/new", -1}, {"/a/c/", 1}})),
              UnorderedElementsAre(Pair("/a/x", 2), Pair("/a/new", -1), Pair("/a/c/", 1)));
  const auto messages = log.messages(LogLevel::Debug);
  ASSERT_EQ(messages.size(), 4U);
  EXPECT_THAT(
      std::vector(messages.begin(), messages.begin() + 2),
      UnorderedElementsAre("Cached path changed: /a/x 1 -> Optional(2)", "Cached path changed: /a/gone 2 -> nil"));
  EXPECT_THAT(std::vector(messages.begin() + 2, messages.end()),
              UnorderedElementsAre("Cache path added: /a/new -1", "Cache path added: /a/c/ 1"));
}

TEST(DirNodeTest, anUpdateReplacesTheStatusesAsAWhole) {
  DirNode node("/a/");
  node.update({{"/a/x", 1}, {"/a/y", 2}});
  node.update({{"/a/z", 0}});
  EXPECT_THAT(entriesOf(node.items()), UnorderedElementsAre(Pair("/a/z", 0)));
}

TEST(DirNodeTest, anUpdateWithNothingEmptiesAPopulatedNode) {
  DirNode node("/a/");
  node.update({{"/a/x", 1}});
  EXPECT_TRUE(node.update({}).empty());
  EXPECT_TRUE(node.items().empty());
  EXPECT_TRUE(node.populated());
}

TEST(DirNodeTest, theReportOutlivesTheNode) {
  StatusTable changes;
  {
    DirNode node("/a/");
    node.update({{"/a/a path that is longer than a short text", 1}});
    changes = node.update({{"/a/a path that is longer than a short text", 2}});
  }
  EXPECT_THAT(entriesOf(changes), UnorderedElementsAre(Pair("/a/a path that is longer than a short text", 2)));
}

TEST(DirNodeTest, thePathIsLookedUpExactlyAndWithoutAMessage) {
  DirNode node("/a/");
  node.update({{"/a/c/", 2}, {"/a/x", 1}});
  const LogRecorder log;
  EXPECT_EQ(node.statusForPath("/a/c/"), 2);
  EXPECT_EQ(node.statusForPath("/a/c"), std::nullopt);
  EXPECT_EQ(node.statusForPath("/a/x"), 1);
  EXPECT_EQ(node.statusForPath("/a/x/"), std::nullopt);
  EXPECT_EQ(node.statusForPath("/a//x"), std::nullopt);
  EXPECT_EQ(node.statusForPath("/A/x"), std::nullopt);
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(DirNodeTest, aStoredMinusOneIsAValue) {
  DirNode node("/a/");
  node.update({{"/a/x", -1}});
  EXPECT_EQ(node.statusForPath("/a/x"), -1);
}

TEST(DirNodeTest, anUnpopulatedNodeKnowsNoPath) {
  EXPECT_EQ(DirNode("/a/").statusForPath("/a/x"), std::nullopt);
}

TEST(DirNodeTest, clearingMakesTheNodeEmptyAndUnpopulated) {
  DirNode node("/a/");
  node.update({{"/a/x", 1}});
  node.clear();
  EXPECT_FALSE(node.populated());
  EXPECT_TRUE(node.items().empty());
  EXPECT_EQ(node.dir(), "/a/");
}

TEST(DirNodeTest, clearingAnEmptyPopulatedNodeMakesItUnpopulated) {
  DirNode node("/a/");
  node.update({});
  node.clear();
  EXPECT_FALSE(node.populated());
}

TEST(DirNodeTest, clearingAnUnpopulatedNodeChangesNothing) {
  const LogRecorder log;
  DirNode node("/a/");
  node.clear();
  EXPECT_FALSE(node.populated());
  EXPECT_TRUE(node.items().empty());
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(DirNodeTest, theFirstFillAfterClearingReportsAndLogsNothing) {
  DirNode node("/a/");
  node.update({{"/a/x", 1}});
  node.clear();
  const LogRecorder log;
  EXPECT_TRUE(node.update({{"/a/x", 2}, {"/a/y", 1}}).empty());
  EXPECT_TRUE(node.populated());
  EXPECT_THAT(log.messages(), IsEmpty());
}

}  // namespace
}  // namespace vornet::test
