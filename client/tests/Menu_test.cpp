// The context menu, as a file manager gets it from the library.
#include <algorithm>

#include "PluginTest.hpp"

namespace vornet::test {
namespace {

using client::Menu;
using client::MenuEntry;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class PluginMenu : public PluginTest {
 protected:
  PluginMenu() {
    startExtension();
    select("first");  // tells the plug-in where the synced folder is
    select("first");
    extension->menuRequests.clear();
    manager.menuChanges = 0;
  }

  Menu menuOf(const std::string& name) const { return manager.plugin->menu({path(name)}); }
  /// Which entries of the item's menu are enabled: "10" for the first of two.
  std::string enabledOf(const std::string& name) const { return enabled(menuOf(name)); }
  bool waitForMenu(const std::string& name, const std::string& expected) const {
    return runUntil([&] { return enabledOf(name) == expected; });
  }

  /// Selects one item and waits for its answer.
  void select(const std::string& name) {
    const auto before = manager.menuChanges;
    menuOf(name);
    ASSERT_TRUE(runUntil([&] { return manager.menuChanges > before; }));
  }
  void select(const std::string& name, const std::vector<bool>& answer) {
    extension->menus[url(name)] = answer;
    select(name);
  }

  static std::string enabled(const Menu& menu) {
    std::string result;
    for (const auto& entry : menu) result += entry.enabled ? '1' : '0';
    return result;
  }
};

TEST_F(PluginMenu, TheEntriesAreGreyedUntilTheAnswerComesAndFollowItThen) {
  extension->menus[url("a")] = {true, false};
  EXPECT_THAT(menuOf("a"), ElementsAre(MenuEntry{"Share", "share:", false, "vornet-vi"},
                                       MenuEntry{"Copy Link", "copyLink:", false, "vornet-vi"},
                                       MenuEntry{"Comments", "notes:", false, "vornet-vi"},
                                       MenuEntry{"View versions", "viewVersions:", false, "vornet-vi"},
                                       MenuEntry{"View in Cloud", "viewInCloud:", false, "vornet-vi"}));
  EXPECT_EQ(manager.menuChanges, 0);
  ASSERT_TRUE(runUntil([&] { return manager.menuChanges == 1; }));
  EXPECT_THAT(menuOf("a"), ElementsAre(MenuEntry{"Share", "share:", true, "vornet-vi"},
                                       MenuEntry{"Copy Link", "copyLink:", false, ""}));
  EXPECT_THAT(extension->menuRequests, ElementsAre(ElementsAre(url("a"))));
}

TEST_F(PluginMenu, AGreyedEntrySaysThatTheSyncApplicationIsAway) {
  const auto tips = [this] {
    std::vector<std::string> result;
    for (const auto& entry : menuOf("a")) result.push_back(entry.tip);
    return result;
  };
  const auto tell = [this](gint64 since) {
    extension->changeProperty("SyncApplicationSilentSince", g_variant_new_int64(since));
  };
  select("a", {true, false});
  EXPECT_THAT(tips(), ElementsAre("", ""));
  manager.changedMenus.clear();
  tell(1'772'354'460);
  ASSERT_TRUE(runUntil([&] { return tips() == std::vector<std::string>{"", "Kelvane is not running"}; }));
  EXPECT_THAT(manager.changedMenus, testing::Contains(ElementsAre(path("a")))) << "a menu may be open";
  tell(-1);
  select("b");  // everything sent before has arrived
  EXPECT_THAT(tips(), ElementsAre("", "Kelvane is not running")) << "it was not asked in between";
  tell(0);
  EXPECT_TRUE(runUntil([&] { return tips() == std::vector<std::string>{"", ""}; }));
}

TEST_F(PluginMenu, AnAnswerBelongsToItsOwnSelectionAlone) {
  extension->menus[url("old")] = {true, true};
  extension->menus[url("new")] = {false, true};
  extension->hold("GetMenu");
  menuOf("old");
  menuOf("new");
  ASSERT_TRUE(waitForHeld("GetMenu", 2));
  manager.changedMenus.clear();
  extension->release("GetMenu");
  ASSERT_TRUE(runUntil([&] { return manager.menuChanges == 2; }));
  EXPECT_THAT(manager.changedMenus, ElementsAre(ElementsAre(path("old")), ElementsAre(path("new"))));
  EXPECT_EQ(enabledOf("new"), "01");
  EXPECT_EQ(enabledOf("old"), "11");
  EXPECT_EQ(enabled(manager.plugin->menu({path("new"), path("old")})), "00000") << "another selection";
}

TEST_F(PluginMenu, AFormerSelectionShowsItsLastAnswerAtOnceAndIsAskedForAgainOnceThatIsASecondOld) {
  const auto asked = [&] { return std::ranges::count(extension->menuRequests, std::vector{url("a")}); };
  select("a", {true, true});
  select("b");
  for (int i = 0; i < 10; ++i) EXPECT_EQ(enabledOf("a"), "11");
  roundTrip();  // comes after any other request
  EXPECT_EQ(asked(), 1);
  extension->menus[url("a")] = {false, true};
  std::vector<std::string> seen;
  ASSERT_TRUE(runUntil([&] {
    seen.push_back(enabledOf("a"));
    return seen.back() == "01";
  }));
  EXPECT_THAT(seen, testing::Each(testing::AnyOf("11", "01")));
  EXPECT_EQ(asked(), 2);
  EXPECT_EQ(manager.menuChanges, 4);
}

TEST_F(PluginMenu, OnlyTheLastFewSelectionsAreRemembered) {
  for (int i = 0; i < 9; ++i) select(std::to_string(i), {true, i % 2 == 0});
  for (int i = 8; i > 0; --i) EXPECT_EQ(enabledOf(std::to_string(i)), i % 2 == 0 ? "11" : "10") << i;
  EXPECT_EQ(enabledOf("0"), "00000");
}

TEST_F(PluginMenu, AnswersAreForgottenWhenTheSyncedFolderChanges) {
  select("a", {true, true});
  select("b");
  manager.changedMenus.clear();
  extension->setFolders({"file:///home/ann/Elsewhere"});
  ASSERT_TRUE(runUntil([&] { return manager.changedMenus.size() >= 2; }));
  EXPECT_THAT(manager.changedMenus,
              testing::IsSupersetOf({client::Selection{path("a")}, client::Selection{path("b")}}));
  EXPECT_THAT(menuOf("a"), IsEmpty());
  extension->setFolders({url("")});
  ASSERT_TRUE(runUntil([&] { return !menuOf("b").empty(); }));
  EXPECT_EQ(enabledOf("a"), "00000");
}

TEST_F(PluginMenu, WhileTheExtensionHangsSelectionsAreGreyedAndFewRequestedAndTheLastOneWaitsForRoom) {
  extension->hold("GetMenu");
  for (int i = 0; i < 100; ++i) EXPECT_EQ(enabledOf(std::to_string(i)), "00000");
  manager.plugin->menu({});  // nothing is selected any more
  ASSERT_TRUE(waitForHeld("GetMenu", 4));
  EXPECT_EQ(manager.menuChanges, 0);
  extension->menus[url("99")] = {true, false};
  extension->release("GetMenu");
  ASSERT_TRUE(runUntil([&] { return manager.menuChanges == 1; }));
  EXPECT_EQ(enabledOf("99"), "10");
  EXPECT_THAT(extension->menuRequests, SizeIs(5));
}

TEST_F(PluginMenu, NoEntriesOutsideTheSyncedFolderNorForNothingNorForAMixture) {
  for (const auto& selection : std::vector<client::Selection>{
           {}, {"/etc/passwd"}, {"/home/ann/Kelvane2/x"}, {path("a"), "/etc/passwd"}, {path("caf\xe9")}})
    EXPECT_THAT(manager.plugin->menu(selection), IsEmpty()) << testing::PrintToString(selection);
  select("a");
  EXPECT_THAT(extension->menuRequests, ElementsAre(ElementsAre(url("a"))));
}

TEST_F(PluginMenu, NoEntriesWhereTheExtensionHasNone) {
  select("nothing");
  EXPECT_THAT(menuOf("nothing"), IsEmpty());
}

TEST_F(PluginMenu, AVeryLargeSelectionIsGreyedWithoutAQuestion) {
  client::Selection many;
  for (std::size_t i = 0; i <= client::Plugin::LARGEST_SELECTION; ++i) many.push_back(path(std::to_string(i)));
  EXPECT_EQ(enabled(manager.plugin->menu(many)), "00000");
  select("a", {true, true});
  EXPECT_THAT(extension->menuRequests, SizeIs(1));
}

TEST_F(PluginMenu, AnAnswerLikeTheOneShownChangesNothing) {
  select("a", {true, true});
  ASSERT_TRUE(runUntil([&] {
    menuOf("a");
    return extension->menuRequests.size() == 2;
  }));
  settle();
  EXPECT_EQ(manager.menuChanges, 1);
}

TEST_F(PluginMenu, ARefusedRequestIsRetriedWithTheNextMenu) {
  extension->refusals["GetMenu"] = "Busy";
  extension->menus[url("a")] = {true, true};
  menuOf("a");
  ASSERT_TRUE(runUntil([&] { return extension->menuRequests.size() == 1; }));
  settle();
  extension->refusals.clear();
  ASSERT_TRUE(waitForMenu("a", "11"));
}

TEST_F(PluginMenu, AChoiceIsPerformedOnTheSelectionItWasShownFor) {
  select("a");
  menuOf("b");
  manager.plugin->perform("copyLink:", {path("a"), path("x y%")});
  ASSERT_TRUE(runUntil([&] { return !extension->actions.empty(); }));
  EXPECT_THAT(extension->actions, ElementsAre(ElementsAre("copyLink:", url("a"), url("x y%"))));
  EXPECT_EQ(logLines, 0);
}

TEST_F(PluginMenu, AChoiceThatFailsIsALineInTheLog) {
  extension->refusals["PerformAction"] = "OutsideObservedFolders";
  manager.plugin->perform("copyLink:", {path("a")});
  EXPECT_TRUE(runUntil([&] { return logLines == 1; }));
}

TEST_F(PluginMenu, TheEntriesStayWhenTheExtensionEndsAndAreAskedForWhenAnotherOneComes) {
  select("a", {true, false});
  endExtension();
  EXPECT_EQ(enabledOf("a"), "10");
  EXPECT_EQ(enabledOf("b"), "00000") << "the synced folder is still known";
  startExtension();
  extension->menus[url("b")] = {false, true};
  EXPECT_TRUE(waitForMenu("b", "01"));
}

TEST_F(PluginMenu, TheFileManagerIsNotifiedWhenASelectionIsInsideTheNewSyncedFolder) {
  makePlugin();
  extension->menus[url("a")] = {true, true};
  EXPECT_THAT(menuOf("a"), IsEmpty()) << "it is not known yet where that is";
  ASSERT_TRUE(runUntil([&] { return manager.menuChanges > 0; }));
  EXPECT_THAT(menuOf("a"), SizeIs(5));
  EXPECT_TRUE(waitForMenu("a", "11"));
}

}  // namespace
}  // namespace vornet::test
