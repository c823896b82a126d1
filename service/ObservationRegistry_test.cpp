#include "ObservationRegistry.hpp"

#include "dbus/Interface.hpp"

#include <gmock/gmock.h>

namespace vornet::service {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using Begun = ObservationRegistry::Begun;
using Ended = ObservationRegistry::Ended;

TEST(ObservationRegistry, OnlyTheFirstObserverOfAFolderIsTheFirst) {
  ObservationRegistry registry(50);
  EXPECT_EQ(registry.begin(":1.1", "/a"), Begun::byTheFirst);
  EXPECT_EQ(registry.begin(":1.1", "/a"), Begun::byAnother);
  EXPECT_EQ(registry.begin(":1.2", "/a"), Begun::byAnother);
  EXPECT_EQ(registry.begin(":1.2", "/b"), Begun::byTheFirst);
  EXPECT_THAT(registry.folders(), ElementsAre("/a", "/b"));
}

TEST(ObservationRegistry, AFolderIsObservedUntilEachBeginningHasItsEnd) {
  ObservationRegistry registry(50);
  registry.begin(":1.1", "/a");
  registry.begin(":1.1", "/a");
  registry.begin(":1.2", "/a");
  EXPECT_EQ(registry.end(":1.1", "/a"), Ended::stillObserved);
  EXPECT_THAT(registry.observers("/a"), UnorderedElementsAre(":1.1", ":1.2"));
  EXPECT_EQ(registry.end(":1.1", "/a"), Ended::stillObserved);
  EXPECT_THAT(registry.observers("/a"), ElementsAre(":1.2"));
  EXPECT_EQ(registry.end(":1.2", "/a"), Ended::byNobody);
  EXPECT_THAT(registry.observers("/a"), IsEmpty());
  EXPECT_EQ(registry.begin(":1.1", "/a"), Begun::byTheFirst) << "it can be observed again";
}

TEST(ObservationRegistry, EndingWhatWasNotBegunChangesNothing) {
  ObservationRegistry registry(50);
  EXPECT_EQ(registry.end(":1.1", "/a"), Ended::notObserving);
  registry.begin(":1.1", "/a");
  EXPECT_EQ(registry.end(":1.2", "/a"), Ended::notObserving);
  EXPECT_EQ(registry.end(":1.1", "/b"), Ended::notObserving);
  EXPECT_EQ(registry.end(":1.1", "/a"), Ended::byNobody);
  EXPECT_EQ(registry.end(":1.1", "/a"), Ended::notObserving);
}

TEST(ObservationRegistry, AClientThatLeavesGivesBackTheFoldersThatOnlyItObserved) {
  ObservationRegistry registry(50);
  for (const char* folder : {"/a", "/a", "/b", "/shared"}) registry.begin(":1.1", folder);
  registry.begin(":1.2", "/shared");
  EXPECT_THAT(registry.endAll(":1.1"), UnorderedElementsAre("/a", "/b"));
  EXPECT_THAT(registry.endAll(":1.1"), IsEmpty());
  EXPECT_THAT(registry.observers("/shared"), ElementsAre(":1.2"));
}

TEST(ObservationRegistry, OneFolderTooManyIsNotObservedByAnybody) {
  ObservationRegistry registry(2);
  registry.begin(":1.1", "/a");
  registry.begin(":1.2", "/b");
  EXPECT_EQ(registry.begin(":1.1", "/c"), Begun::tooManyFolders);
  EXPECT_THAT(registry.observers("/c"), IsEmpty());
  EXPECT_EQ(registry.begin(":1.1", "/b"), Begun::byAnother) << "it is no further folder";
  EXPECT_EQ(registry.end(":1.1", "/a"), Ended::byNobody);
  EXPECT_EQ(registry.begin(":1.3", "/c"), Begun::byTheFirst);
}

TEST(ObservationRegistry, AClientsObservationsAreBounded) {
  ObservationRegistry registry(2);
  for (std::size_t i = 0; i < dbus::MAX_OBSERVATIONS_OF_A_CLIENT; ++i)
    ASSERT_NE(registry.begin(":1.1", i % 2 ? "/a" : "/b"), Begun::tooManyObservations);
  EXPECT_EQ(registry.begin(":1.1", "/a"), Begun::tooManyObservations);
  EXPECT_EQ(registry.begin(":1.2", "/a"), Begun::byAnother);
  registry.end(":1.1", "/b");
  EXPECT_EQ(registry.begin(":1.1", "/a"), Begun::byAnother);
  EXPECT_EQ(registry.begin(":1.1", "/a"), Begun::tooManyObservations);
  registry.endAll(":1.1");
  EXPECT_EQ(registry.begin(":1.1", "/a"), Begun::byAnother);
}

}  // namespace
}  // namespace vornet::service
