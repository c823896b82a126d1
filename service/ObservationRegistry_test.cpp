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

class ObservationRegistryTest : public testing::Test {
 protected:
  std::vector<std::string> observers(const std::string& folder) const {
    std::vector<std::string> clients;
    for (const auto& observer : registry.observers(folder)) clients.push_back(observer.client);
    return clients;
  }

  ObservationRegistry registry{50};
};

TEST_F(ObservationRegistryTest, AFolderIsObservedFromItsFirstBeginningUntilEachHasItsEnd) {
  EXPECT_EQ(registry.begin(":1.1", "/a"), Begun::byTheFirst);
  EXPECT_EQ(registry.begin(":1.1", "/a"), Begun::byAnother);
  EXPECT_EQ(registry.begin(":1.2", "/a"), Begun::byAnother);
  EXPECT_EQ(registry.begin(":1.2", "/b"), Begun::byTheFirst);
  EXPECT_THAT(registry.folders(), ElementsAre("/a", "/b"));
  EXPECT_EQ(registry.end(":1.1", "/a"), Ended::stillObserved);
  EXPECT_THAT(observers("/a"), UnorderedElementsAre(":1.1", ":1.2"));
  EXPECT_EQ(registry.end(":1.1", "/a"), Ended::stillObserved);
  EXPECT_THAT(observers("/a"), ElementsAre(":1.2"));
  EXPECT_EQ(registry.end(":1.2", "/a"), Ended::byNobody);
  EXPECT_THAT(observers("/a"), IsEmpty());
  EXPECT_EQ(registry.begin(":1.1", "/a"), Begun::byTheFirst) << "it can be observed again";
}

TEST_F(ObservationRegistryTest, AClientThatLeavesReleasesTheFoldersThatOnlyItObserved) {
  for (const char* folder : {"/a", "/a", "/b", "/shared"}) registry.begin(":1.1", folder);
  registry.begin(":1.2", "/shared");
  EXPECT_THAT(registry.endAll(":1.1"), UnorderedElementsAre("/a", "/b"));
  EXPECT_THAT(registry.endAll(":1.1"), IsEmpty());
  EXPECT_THAT(observers("/shared"), ElementsAre(":1.2"));
}

TEST_F(ObservationRegistryTest, AClientsObservationsAreBounded) {
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

TEST_F(ObservationRegistryTest, TheEndOfAStreamLeavesTheOneThatTookItsPlace) {
  registry.begin(":1.1", "/a");
  registry.setStream(":1.1", "/a", 1);
  registry.setStream(":1.1", "/a", 2);
  EXPECT_FALSE(registry.endStream(":1.1", "/a", 1));
  EXPECT_EQ(registry.stream(":1.1", "/a"), 2u);
  EXPECT_TRUE(registry.endStream(":1.1", "/a", 2));
  EXPECT_EQ(registry.stream(":1.1", "/a"), std::nullopt);
  EXPECT_FALSE(registry.endStream(":1.1", "/b", 2));
}

TEST_F(ObservationRegistryTest, AStreamLastsAsLongAsItsClientObservesTheFolder) {
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
