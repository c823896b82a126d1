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

std::vector<std::string> observers(const ObservationRegistry& registry, const std::string& folder) {
  std::vector<std::string> clients;
  for (const auto& observer : registry.observers(folder)) clients.push_back(observer.client);
  return clients;
}

TEST(ObservationRegistry, OnlyTheFirstObservationOfAFolderCountsAsTheFirst) {
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
  EXPECT_THAT(observers(registry, "/a"), UnorderedElementsAre(":1.1", ":1.2"));
  EXPECT_EQ(registry.end(":1.1", "/a"), Ended::stillObserved);
  EXPECT_THAT(observers(registry, "/a"), ElementsAre(":1.2"));
  EXPECT_EQ(registry.end(":1.2", "/a"), Ended::byNobody);
  EXPECT_THAT(observers(registry, "/a"), IsEmpty());
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

TEST(ObservationRegistry, AClientThatLeavesReleasesTheFoldersThatOnlyItObserved) {
  ObservationRegistry registry(50);
  for (const char* folder : {"/a", "/a", "/b", "/shared"}) registry.begin(":1.1", folder);
  registry.begin(":1.2", "/shared");
  EXPECT_THAT(registry.endAll(":1.1"), UnorderedElementsAre("/a", "/b"));
  EXPECT_THAT(registry.endAll(":1.1"), IsEmpty());
  EXPECT_THAT(observers(registry, "/shared"), ElementsAre(":1.2"));
}

TEST(ObservationRegistry, OneFolderTooManyIsNotObservedByAnybody) {
  ObservationRegistry registry(2);
  registry.begin(":1.1", "/a");
  registry.begin(":1.2", "/b");
  EXPECT_EQ(registry.begin(":1.1", "/c"), Begun::tooManyFolders);
  EXPECT_THAT(observers(registry, "/c"), IsEmpty());
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

TEST(ObservationRegistry, TheEndOfAStreamLeavesTheOneThatTookItsPlace) {
  ObservationRegistry registry(1);
  registry.begin(":1.1", "/a");
  registry.setStream(":1.1", "/a", 1);
  registry.setStream(":1.1", "/a", 2);
  EXPECT_FALSE(registry.endStream(":1.1", "/a", 1));
  EXPECT_EQ(registry.stream(":1.1", "/a"), 2u);
  EXPECT_TRUE(registry.endStream(":1.1", "/a", 2));
  EXPECT_EQ(registry.stream(":1.1", "/a"), std::nullopt);
  EXPECT_FALSE(registry.endStream(":1.1", "/b", 2));
}

TEST(ObservationRegistry, AStreamLastsAsLongAsItsClientObservesTheFolder) {
  ObservationRegistry registry(50);
  EXPECT_FALSE(registry.setStream(":1.1", "/a", 7)) << "it does not observe it";
  registry.begin(":1.1", "/a");
  registry.begin(":1.1", "/a");
  registry.begin(":1.2", "/a");
  EXPECT_EQ(registry.stream(":1.1", "/a"), std::nullopt);
  EXPECT_TRUE(registry.setStream(":1.1", "/a", 7));
  EXPECT_EQ(registry.stream(":1.1", "/a"), 7u);
  EXPECT_EQ(registry.stream(":1.2", "/a"), std::nullopt);
  registry.end(":1.1", "/a");
  EXPECT_EQ(registry.observers("/a").front().stream, 7u) << "another window shows it";
  registry.end(":1.1", "/a");
  EXPECT_EQ(registry.stream(":1.1", "/a"), std::nullopt);
  registry.begin(":1.1", "/a");
  EXPECT_EQ(registry.stream(":1.1", "/a"), std::nullopt);
}

}  // namespace
}  // namespace vornet::service
