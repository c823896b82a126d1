#include "ObservationRegistry.hpp"

#include <gmock/gmock.h>

namespace vornet::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using Ended = ObservationRegistry::Ended;

TEST(ObservationRegistry, OnlyTheFirstObserverOfAFolderIsTheFirst) {
  ObservationRegistry registry;
  EXPECT_TRUE(registry.begin(":1.1", "/a"));
  EXPECT_FALSE(registry.begin(":1.1", "/a"));
  EXPECT_FALSE(registry.begin(":1.2", "/a"));
  EXPECT_TRUE(registry.begin(":1.2", "/b"));
}

TEST(ObservationRegistry, AFolderIsObservedUntilEachBeginningHasItsEnd) {
  ObservationRegistry registry;
  registry.begin(":1.1", "/a");
  registry.begin(":1.1", "/a");
  registry.begin(":1.2", "/a");
  EXPECT_EQ(registry.end(":1.1", "/a"), Ended::stillObserved);
  EXPECT_THAT(registry.observers("/a"), UnorderedElementsAre(":1.1", ":1.2"));
  EXPECT_EQ(registry.end(":1.1", "/a"), Ended::stillObserved);
  EXPECT_THAT(registry.observers("/a"), ElementsAre(":1.2"));
  EXPECT_EQ(registry.end(":1.2", "/a"), Ended::byNobody);
  EXPECT_THAT(registry.observers("/a"), IsEmpty());
  EXPECT_TRUE(registry.begin(":1.1", "/a")) << "it can be observed anew";
}

TEST(ObservationRegistry, EndingWhatWasNotBegunChangesNothing) {
  ObservationRegistry registry;
  EXPECT_EQ(registry.end(":1.1", "/a"), Ended::notObserving);
  registry.begin(":1.1", "/a");
  EXPECT_EQ(registry.end(":1.2", "/a"), Ended::notObserving);
  EXPECT_EQ(registry.end(":1.1", "/b"), Ended::notObserving);
  EXPECT_EQ(registry.end(":1.1", "/a"), Ended::byNobody);
  EXPECT_EQ(registry.end(":1.1", "/a"), Ended::notObserving);
}

TEST(ObservationRegistry, AClientThatLeavesGivesBackTheFoldersThatOnlyItObserved) {
  ObservationRegistry registry;
  for (const char* folder : {"/a", "/a", "/b", "/shared"}) registry.begin(":1.1", folder);
  registry.begin(":1.2", "/shared");
  EXPECT_THAT(registry.endAll(":1.1"), UnorderedElementsAre("/a", "/b"));
  EXPECT_THAT(registry.endAll(":1.1"), IsEmpty());
  EXPECT_THAT(registry.observers("/shared"), ElementsAre(":1.2"));
}

}  // namespace
}  // namespace vornet::host
