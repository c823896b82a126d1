// Beginning and ending to observe folders, in the built extension process.
#include <gmock/gmock.h>

#include <memory>
#include <optional>

#include "support/ExtensionTest.hpp"
#include "support/SyncApplication.hpp"

namespace vornet::test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using testing::Each;
using testing::IsEmpty;

class ExtensionObserving : public ExtensionTest {
 protected:
  std::size_t timesEntered(const std::string& name = "") const { return logged("enter: " + pathOf(name) + "\n"); }
  std::size_t timesLeft(const std::string& name = "") const { return logged("exit: " + pathOf(name) + "\n"); }

 private:
  std::string pathOf(const std::string& name) const { return root + (name.empty() ? "" : "/" + name); }
};

TEST_F(ExtensionObserving, ObservesFoldersWithinTheSyncedFolderAndRefusesEverythingElse) {
  startConfigured();
  EXPECT_TRUE(client->beginObserving(url()));
  EXPECT_TRUE(client->beginObserving(url("d") + "/"));
  for (const auto& item : urls({"x", "gone"})) EXPECT_EQ(client->beginObserving(item).error, "NotAFolder") << item;
  for (const auto& item : {"file:///etc"s, "file://" + root + "x"})
    EXPECT_EQ(client->beginObserving(item).error, "OutsideObservedFolders") << item;
  for (const auto& item : {url("../root"), root, url("%FF")})
    EXPECT_EQ(client->beginObserving(item).error, "InvalidURL") << item;
  EXPECT_EQ(client->endObserving(url("x")).error, "NotObserving");
  EXPECT_EQ(client->endObserving("nonsense").error, "InvalidURL");
  EXPECT_EQ(logged("ObservingDirectoryAtURL: "), 2u) << "a refused call changes nothing";
}

TEST_F(ExtensionObserving, TwoClientsThatShowTheSameFolderShareOneObservation) {
  startObserving();
  BusClient second(bus->address());
  ASSERT_TRUE(client->beginObserving(url()));
  ASSERT_TRUE(second.beginObserving(url()));
  EXPECT_EQ(timesEntered(), 3u) << "each beginning reaches the poller";
  ASSERT_TRUE(client->endObserving(url()));
  ASSERT_TRUE(second.endObserving(url()));
  EXPECT_EQ(second.endObserving(url()).error, "NotObserving");
  EXPECT_EQ(timesLeft(), 0u);
  ASSERT_TRUE(client->endObserving(url()));
  EXPECT_EQ(client->endObserving(url()).error, "NotObserving");
  EXPECT_EQ(timesLeft(), 1u);
}

TEST_F(ExtensionObserving, AClientThatVanishesFromTheBusIsCleanedUp) {
  startObserving();
  std::optional<BusClient> second(bus->address());
  for (const auto& folder : urls({"d", "d", ""})) ASSERT_TRUE(second->beginObserving(folder));
  second.reset();
  EXPECT_TRUE(client->waitUntil([&] { return timesLeft("d") == 1; }));
  EXPECT_EQ(timesLeft(), 0u);
}

TEST_F(ExtensionObserving, ClientsThatLeftAreNoLongerWatched) {
  startConfigured();
  process();
  const auto before = client->extensionsMatchRules();
  ASSERT_TRUE(before);
  std::vector<std::unique_ptr<BusClient>> others;
  for (int i = 0; i < 10; ++i) {
    others.push_back(std::make_unique<BusClient>(bus->address()));
    ASSERT_TRUE(others.back()->beginObserving(url("d")));
  }
  ASSERT_TRUE(client->waitUntil([&] { return client->extensionsMatchRules() >= *before + 10; }));
  others.clear();
  EXPECT_TRUE(client->waitUntil([&] { return client->extensionsMatchRules() == before; }));
}

TEST_F(ExtensionObserving, AFolderThatTheSyncApplicationDidNotKnowIsPolledAgainWhenAnotherWindowShowsIt) {
  SyncApplication application;
  application.setAnswer("/d/", [](const WireRequest&) { return WireReply{.status = 404}; });
  startObserving({}, "d");
  ASSERT_TRUE(
      waitForLog("[RESTPollingManager] poll: Directory " + root + "/d does not exist (404), ignoring subscription\n"));
  application.setBody("/d/", R"({"/d/x":2})");
  BusClient second(bus->address());
  ASSERT_TRUE(second.beginObserving(url("d")));
  EXPECT_TRUE(application.waitForRequests(2));
  EXPECT_TRUE(waitForBadge("d/x", "SYNCED"));
}

TEST_F(ExtensionObserving, MoreFoldersThanCanBeKeptUpToDateAreRefusedAndNothingIsObserved) {
  startConfigured();
  for (int i = 0; i <= 50; ++i) fs::create_directory(root + "/" + std::to_string(i));
  BusClient second(bus->address());
  for (int i = 0; i < 50; ++i) ASSERT_TRUE((i % 2 ? second : *client).beginObserving(url(std::to_string(i)))) << i;
  EXPECT_EQ(logged("ObservingDirectoryAtURL: "), 50u);
  EXPECT_EQ(client->beginObserving(url("50")).error, "TooManyFolders");
  EXPECT_EQ(second.beginObserving(url("50")).error, "TooManyFolders");
  EXPECT_EQ(logged("ObservingDirectoryAtURL: "), 50u);
  EXPECT_EQ(client->endObserving(url("50")).error, "NotObserving");
  EXPECT_TRUE(client->beginObserving(url("1"))) << "it is observed already, by the other client";
  EXPECT_TRUE(second.endObserving(url("3")));
  EXPECT_TRUE(client->beginObserving(url("50")));
}

TEST_F(ExtensionObserving, AFolderOnScreenStaysUpToDateHoweverManyOthersWereShownSince) {
  SyncApplication application;
  application.setStatus("/d/x", 1);
  startObserving({}, "d");
  ASSERT_TRUE(waitForBadge("d/x", "PENDING"));
  for (int i = 0; i < 60; ++i) {
    const auto other = std::to_string(i);
    fs::create_directory(root + "/" + other);
    ASSERT_TRUE(client->beginObserving(url(other)));
    ASSERT_TRUE(client->endObserving(url(other)));
  }
  application.setStatus("/d/x", 2);
  EXPECT_TRUE(client->waitForChange(url("d/x"), "SYNCED"));
}

TEST_F(ExtensionObserving, AFolderCountsAsOneHoweverItIsSpelled) {
  SyncApplication application;
  application.setStatus("/d/x", 1);
  startConfigured();
  for (const char* spelling : {"d", "/d", "d/", "d//", "//d///"})
    ASSERT_TRUE(client->beginObserving(url(spelling))) << spelling;
  EXPECT_EQ(timesEntered("d"), 5u);
  ASSERT_TRUE(waitForBadge("d//x", "PENDING"));
  application.setStatus("/d/x", 2);
  EXPECT_TRUE(client->waitForChange(url("d/x"), "SYNCED"));
  for (const char* spelling : {"d//", "d", "///d", "d", "d"})
    ASSERT_TRUE(client->endObserving(url(spelling))) << spelling;
  EXPECT_EQ(timesLeft("d"), 1u);
}

TEST_F(ExtensionObserving, AClientMayBeginAThousandObservations) {
  startConfigured();
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(client->beginObserving(url(i % 2 ? "d" : ""))) << i;
  EXPECT_EQ(client->beginObserving(url("d")).error, "TooManyFolders");
  EXPECT_EQ(logged("ObservingDirectoryAtURL: "), 1000u);
  EXPECT_TRUE(BusClient(bus->address()).beginObserving(url("d"))) << "another client's are counted apart";
  EXPECT_TRUE(client->endObserving(url("d")));
  EXPECT_TRUE(client->beginObserving(url()));
}

TEST_F(ExtensionObserving, APathThatHoldsTheRootsTextTwiceHasNoBadgeNoMenuNoActionAndIsNotObserved) {
  const std::string outer = "a" + fs::path(root).parent_path().string();  // the root's text fits in below it
  const std::string inner = outer + "/root";
  writeFile(root + "/" + inner + "/x", "");
  SyncApplication application;
  for (const char* name : {"/root", "/other"}) application.setStatus("/" + outer + name, 1);
  startConfigured({{"/a/x", 2}, {"/a/", 2}, {"/a", 2}});
  EXPECT_THAT(badges({inner + "/x", inner, inner + "x"}), Each(""));
  EXPECT_THAT(menu({"x", inner + "/x"}), IsEmpty());
  EXPECT_EQ(client->performAction("share:", {url(inner + "/x")}).error, "OutsideObservedFolders");
  EXPECT_EQ(client->beginObserving(url(inner)).error, "OutsideObservedFolders");
  for (const char* command : {"mac_populate_menu", "select_context_menu", "get_icons_for_folder"})
    EXPECT_THAT(application.bodies(command), IsEmpty());

  ASSERT_TRUE(client->beginObserving(url(outer)));
  ASSERT_TRUE(waitForBadge(outer + "/other", "PENDING"));
  for (const char* name : {"/root", "/other"}) application.setStatus("/" + outer + name, 2);
  ASSERT_TRUE(client->waitForChange(url(outer + "/other"), "SYNCED"));
  EXPECT_EQ(client->changes().count(url(inner)), 0u);
  EXPECT_EQ(badge(inner), "");
}

TEST_F(ExtensionObserving, AFolderRemovedFromDiskCanStillBeLeft) {
  startObserving({}, "d");
  fs::remove_all(root + "/d");
  EXPECT_TRUE(client->endObserving(url("d")));
}

}  // namespace
}  // namespace vornet::test
