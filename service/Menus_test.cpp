// Menus and actions, in the built extension process.
#include <gmock/gmock.h>

#include <signal.h>

#include "support/ExtensionTest.hpp"
#include "support/SyncApplication.hpp"

namespace vornet::test {
namespace {

using testing::_;
using testing::ElementsAre;
using testing::Field;
using testing::FieldsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using ExtensionMenus = ExtensionTest;

TEST_F(ExtensionMenus, GivesTheFiveEntriesOfASelection) {
  SyncApplication application;
  application.setBody("mac_populate_menu", R"({"1":true,"3":true,"4":false})");
  startConfigured();
  constexpr bool ENABLED = true;
  EXPECT_THAT(menu({"x", "d"}), ElementsAre(FieldsAre("Share", "share:", ENABLED, "QMT"),
                                            FieldsAre("Copy Link", "copyLink:", !ENABLED, "QMT"),
                                            FieldsAre("Comments", "notes:", !ENABLED, "QMT"),
                                            FieldsAre("View versions", "viewVersions:", !ENABLED, "QMT"),
                                            FieldsAre("View in Cloud", "viewInCloud:", ENABLED, "QMT")));
  EXPECT_THAT(application.bodies("mac_populate_menu"), ElementsAre(R"({"paths":["/x","/d/"]})"));
}

TEST_F(ExtensionMenus, GivesNoEntriesForASelectionOutsideTheSyncedFolder) {
  SyncApplication application;
  startConfigured();
  std::vector<MenuEntry> entries;
  for (const auto& selection : {std::vector<std::string>{"file:///etc"}, {url("x"), "file:///etc"}}) {
    EXPECT_TRUE(client->menu(selection, entries));
    EXPECT_THAT(entries, IsEmpty());
  }
  EXPECT_THAT(application.bodies("mac_populate_menu"), IsEmpty());
  EXPECT_EQ(client->menu({"nonsense"}, entries).error, "InvalidURL");
  EXPECT_EQ(client->menu({url("%FF")}, entries).error, "InvalidURL");
  EXPECT_EQ(client->menu(std::vector<std::string>(10'001, url("x")), entries).error, "TooManyURLs");
}

TEST_F(ExtensionMenus, PerformsAnActionOnASelection) {
  SyncApplication application;
  startConfigured();
  EXPECT_TRUE(client->performAction("copyLink:", {url("a%20b"), url("d")}));
  EXPECT_THAT(application.bodies("select_context_menu"), ElementsAre(R"({"uid":"2","paths":["/a b","/d/"]})"));
}

TEST_F(ExtensionMenus, RefusesUnknownActionsAndSelectionsThatItCannotServe) {
  SyncApplication application;
  startConfigured();
  for (const char* action : {"", "share", "enableVI:", "disableVI", "setFileSyncStatus:status:", "init"})
    EXPECT_EQ(client->performAction(action, {url("x")}).error, "UnknownAction") << action;
  EXPECT_EQ(client->performAction("share:", {"file:///etc"}).error, "OutsideObservedFolders");
  EXPECT_EQ(client->performAction("share:", {"nonsense"}).error, "InvalidURL");
  EXPECT_EQ(client->performAction("share:", std::vector<std::string>(10'001, url("x"))).error, "TooManyURLs");
  EXPECT_THAT(application.bodies("select_context_menu"), IsEmpty());
  EXPECT_EQ(client->property("ObservedFolders"), observed());
}

TEST_F(ExtensionMenus, AnActionWithoutSyncApplicationIsAnsweredAndLogged) {
  startConfigured();
  EXPECT_TRUE(client->performAction("share:", {url("x")}));
  EXPECT_THAT(logText(), HasSubstr("[Warning] [MenuActions] selectContextMenu: Unexpected error occured while fetching "
                                   "context menu: ResourceUnavailable\n"));
}

TEST_F(ExtensionMenus, SelectionsInFlightNeverMix) {
  SyncApplication application;
  application.setAnswer("mac_populate_menu", [](const WireRequest& request) {
    const bool first = request.body == R"({"paths":["/x"]})";
    return WireReply{.body = first ? R"({"1":true})" : R"({"3":true})"};
  });
  startConfigured();
  process();
  int answered = 0;
  for (int i = 0; i < 60; ++i) {
    const bool first = i % 2 == 0;
    askForMenu(first ? "x" : "y", [&, first](const BusReply& reply) {
      ++answered;
      const auto isEnabled = [](bool enabled) { return Field(&MenuEntry::enabled, enabled); };
      EXPECT_THAT(reply.entries(), ElementsAre(isEnabled(first), _, _, _, isEnabled(!first)));
    });
  }
  EXPECT_TRUE(client->waitUntil([&] { return answered == 60; }));
}

TEST_F(ExtensionMenus, AMenuThatWaitsForTheSyncApplicationDelaysNoBadge) {
  SyncApplication application;
  application.stall("mac_populate_menu");
  startConfigured({{"/x", 2}});
  int menus = 0;
  for (int i = 0; i < 12; ++i)  // more than there are threads
    askForMenu("x", [&menus](const BusReply&) { ++menus; });
  EXPECT_EQ(badge("x"), "SYNCED");
  EXPECT_TRUE(client->beginObserving(url()));
  EXPECT_TRUE(client->endObserving(url()));
  EXPECT_EQ(menus, 0);
  EXPECT_TRUE(client->waitUntil([&] { return menus == 12; }));
}

TEST_F(ExtensionMenus, TooManyMenusAtOnceAreRefusedAndBadgesGoOn) {
  SyncApplication application;
  application.stall("mac_populate_menu");
  startConfigured();
  process();
  int answered = 0;
  int busy = 0;
  for (int i = 0; i < 100; ++i) {
    askForMenu("x", [&](const BusReply& reply) {
      ++answered;
      if (reply.error == "Busy") ++busy;
    });
  }
  EXPECT_TRUE(client->waitUntil([&] { return busy == 100 - 64; }));
  EXPECT_TRUE(client->requestBadges({url("x")}));
  // Asked to end, it drops the menus that wait; carried out, they would take longer than this test waits.
  ::kill(client->extensionProcess(), SIGTERM);
  EXPECT_TRUE(client->waitUntil([&] { return client->extensionProcess() == 0 && answered == 100; }));
}

}  // namespace
}  // namespace vornet::test
