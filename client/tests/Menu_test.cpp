// The context menu, as a file manager gets it from the library.
#include "PluginTest.hpp"

namespace vornet::test {
namespace {

using client::Menu;
using client::MenuEntry;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;

class PluginMenu : public PluginTest {
 protected:
  PluginMenu() {
    startExtension();
    manager.plugin->menu({path("first")});  // tells the plug-in where the synced folder is
    EXPECT_TRUE(runUntil([&] { return manager.menuChanges == 1; }));
    manager.plugin->menu({path("first")});
    EXPECT_TRUE(runUntil([&] { return manager.menuChanges == 2; }));
    extension->menuRequests.clear();
    manager.menuChanges = 0;
  }

  /// Selects one item and waits for its answer.
  void select(const std::string& name) {
    const auto before = manager.menuChanges;
    manager.plugin->menu({path(name)});
    ASSERT_TRUE(runUntil([&] { return manager.menuChanges > before; }));
  }

  static std::string enabled(const Menu& menu) {
    std::string result;
    for (const auto& entry : menu) result += entry.enabled ? '1' : '0';
    return result;
  }
};

TEST_F(PluginMenu, TheEntriesAreGreyedUntilTheAnswerComesAndFollowItThen) {
  extension->menus[url("a")] = {true, false};
  const auto greyed = manager.plugin->menu({path("a")});
  std::vector<std::string> titles;
  for (const auto& entry : greyed) titles.push_back(entry.title);
  EXPECT_THAT(titles, ElementsAre("Share", "Copy Link", "Comments", "View versions", "View in Cloud"));
  EXPECT_EQ(enabled(greyed), "00000");
  EXPECT_EQ(greyed[0].icon, "vornet-vi");
  EXPECT_EQ(manager.menuChanges, 0);
  ASSERT_TRUE(runUntil([&] { return manager.menuChanges == 1; }));
  EXPECT_THAT(manager.plugin->menu({path("a")}), ElementsAre(MenuEntry{"Share", "share:", true, "vornet-vi"},
                                                             MenuEntry{"Copy Link", "copyLink:", false, ""}));
  EXPECT_THAT(extension->menuRequests, ElementsAre(ElementsAre(url("a"))));
}

TEST_F(PluginMenu, AGreyedEntrySaysThatTheSyncApplicationIsAway) {
  const auto tips = [this] {
    std::vector<std::string> result;
    for (const auto& entry : manager.plugin->menu({path("a")})) result.push_back(entry.tip);
    return result;
  };
  const auto tell = [this](gint64 since) {
    extension->changeProperty("SyncApplicationSilentSince", g_variant_new_int64(since));
  };
  extension->menus[url("a")] = {true, false};
  select("a");
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
  manager.plugin->menu({path("old")});
  manager.plugin->menu({path("new")});
  ASSERT_TRUE(waitForHeld("GetMenu", 2));
  manager.changedMenus.clear();
  extension->release("GetMenu");
  ASSERT_TRUE(runUntil([&] { return manager.menuChanges == 2; }));
  EXPECT_THAT(manager.changedMenus, ElementsAre(ElementsAre(path("old")), ElementsAre(path("new"))));
  EXPECT_EQ(enabled(manager.plugin->menu({path("new")})), "01");
  EXPECT_EQ(enabled(manager.plugin->menu({path("old")})), "11");
  EXPECT_EQ(enabled(manager.plugin->menu({path("new"), path("old")})), "00000") << "another selection";
}

TEST_F(PluginMenu, AFormerSelectionShowsItsLastAnswerAtOnceAndTheNextWhenItComes) {
  extension->menus[url("a")] = {true, true};
  select("a");
  select("b");
  extension->menus[url("a")] = {false, true};
  std::vector<std::string> seen;
  ASSERT_TRUE(runUntil([&] {
    seen.push_back(enabled(manager.plugin->menu({path("a")})));
    return seen.back() == "01";
  }));
  EXPECT_THAT(seen, testing::Each(testing::AnyOf("11", "01")));
  EXPECT_THAT(extension->menuRequests, SizeIs(3)) << "asked again once it is a second old";
}

TEST_F(PluginMenu, OnlyTheLastFewSelectionsAreRemembered) {
  for (int i = 0; i < 9; ++i) {
    extension->menus[url(std::to_string(i))] = {true, i % 2 == 0};
    select(std::to_string(i));
  }
  for (int i = 8; i > 0; --i)
    EXPECT_EQ(enabled(manager.plugin->menu({path(std::to_string(i))})), i % 2 == 0 ? "11" : "10") << i;
  EXPECT_EQ(enabled(manager.plugin->menu({path("0")})), "00000");
}

TEST_F(PluginMenu, ASelectionThatWaitsForRoomIsRequestedThoughNothingIsSelectedMeanwhile) {
  extension->hold("GetMenu");
  for (int i = 0; i < 5; ++i) manager.plugin->menu({path(std::to_string(i))});
  manager.plugin->menu({});
  ASSERT_TRUE(waitForHeld("GetMenu", 4));
  extension->menus[url("4")] = {true, true};
  extension->release("GetMenu");
  ASSERT_TRUE(runUntil([&] { return enabled(manager.plugin->menu({path("4")})) == "11"; }));
}

TEST_F(PluginMenu, AnswersAreForgottenWhenTheSyncedFolderChanges) {
  extension->menus[url("a")] = {true, true};
  select("a");
  select("b");
  manager.changedMenus.clear();
  extension->setFolders({"file:///home/ann/Elsewhere"});
  ASSERT_TRUE(runUntil([&] { return manager.changedMenus.size() >= 2; }));
  EXPECT_THAT(manager.changedMenus,
              testing::IsSupersetOf({client::Selection{path("a")}, client::Selection{path("b")}}));
  EXPECT_THAT(manager.plugin->menu({path("a")}), IsEmpty());
  extension->setFolders({url("")});
  ASSERT_TRUE(runUntil([&] { return !manager.plugin->menu({path("b")}).empty(); }));
  EXPECT_EQ(enabled(manager.plugin->menu({path("a")})), "00000");
}

TEST_F(PluginMenu, FewOfManyQuickSelectionsAreRequestedAndTheLastOneIsAnswered) {
  extension->hold("GetMenu");
  for (int i = 0; i < 100; ++i) manager.plugin->menu({path(std::to_string(i))});
  ASSERT_TRUE(waitForHeld("GetMenu", 4));
  extension->menus[url("99")] = {true, false};
  extension->release("GetMenu");
  ASSERT_TRUE(runUntil([&] { return manager.menuChanges == 1; }));
  EXPECT_EQ(enabled(manager.plugin->menu({path("99")})), "10");
  EXPECT_THAT(extension->menuRequests, SizeIs(5));
}

TEST_F(PluginMenu, AnExtensionThatHangsLeavesTheEntriesGreyed) {
  extension->hold("GetMenu");
  for (int i = 0; i < 100; ++i) EXPECT_EQ(enabled(manager.plugin->menu({path(std::to_string(i))})), "00000");
  ASSERT_TRUE(waitForHeld("GetMenu", 4));
  EXPECT_EQ(manager.menuChanges, 0);
}

TEST_F(PluginMenu, NoEntriesOutsideTheSyncedFolderNorForNothingNorForAMixture) {
  EXPECT_THAT(manager.plugin->menu({}), IsEmpty());
  EXPECT_THAT(manager.plugin->menu({"/etc/passwd"}), IsEmpty());
  EXPECT_THAT(manager.plugin->menu({"/home/ann/Kelvane2/x"}), IsEmpty());
  EXPECT_THAT(manager.plugin->menu({path("a"), "/etc/passwd"}), IsEmpty());
  EXPECT_THAT(manager.plugin->menu({path("caf\xe9")}), IsEmpty());
  select("a");
  EXPECT_THAT(extension->menuRequests, ElementsAre(ElementsAre(url("a"))));
}

TEST_F(PluginMenu, NoEntriesWhereTheExtensionHasNone) {
  select("nothing");
  EXPECT_THAT(manager.plugin->menu({path("nothing")}), IsEmpty());
}

TEST_F(PluginMenu, AVeryLargeSelectionIsGreyedWithoutAQuestion) {
  client::Selection many;
  for (std::size_t i = 0; i <= client::Plugin::LARGEST_SELECTION; ++i) many.push_back(path(std::to_string(i)));
  EXPECT_EQ(enabled(manager.plugin->menu(many)), "00000");
  extension->menus[url("a")] = {true, true};
  select("a");
  EXPECT_THAT(extension->menuRequests, SizeIs(1));
}

TEST_F(PluginMenu, AFreshAnswerIsNotAskedForAgainAndAnOldOneIs) {
  extension->menus[url("a")] = {true, true};
  select("a");
  for (int i = 0; i < 10; ++i) EXPECT_EQ(enabled(manager.plugin->menu({path("a")})), "11");
  EXPECT_THAT(extension->menuRequests, SizeIs(1));
  extension->menus[url("a")] = {false, true};
  ASSERT_TRUE(runUntil([&] { return enabled(manager.plugin->menu({path("a")})) == "01"; }));
  EXPECT_THAT(extension->menuRequests, SizeIs(2));
  EXPECT_EQ(manager.menuChanges, 2);
}

TEST_F(PluginMenu, AnAnswerLikeTheOneShownChangesNothing) {
  extension->menus[url("a")] = {true, true};
  select("a");
  ASSERT_TRUE(runUntil([&] {
    manager.plugin->menu({path("a")});
    return extension->menuRequests.size() == 2;
  }));
  settle();
  EXPECT_EQ(manager.menuChanges, 1);
}

TEST_F(PluginMenu, ARefusedRequestIsRetriedWithTheNextMenu) {
  extension->refusals["GetMenu"] = "Busy";
  extension->menus[url("a")] = {true, true};
  manager.plugin->menu({path("a")});
  ASSERT_TRUE(runUntil([&] { return extension->menuRequests.size() == 1; }));
  settle();
  extension->refusals.clear();
  ASSERT_TRUE(runUntil([&] { return enabled(manager.plugin->menu({path("a")})) == "11"; }));
}

TEST_F(PluginMenu, AChoiceIsPerformedOnTheSelectionItWasShownFor) {
  select("a");
  manager.plugin->menu({path("b")});
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
  extension->menus[url("a")] = {true, false};
  select("a");
  extension.reset();
  settle();
  EXPECT_EQ(enabled(manager.plugin->menu({path("a")})), "10");
  EXPECT_EQ(enabled(manager.plugin->menu({path("b")})), "00000") << "the synced folder is still known";
  startExtension();
  extension->menus[url("b")] = {false, true};
  EXPECT_TRUE(runUntil([&] { return enabled(manager.plugin->menu({path("b")})) == "01"; }));
}

TEST_F(PluginMenu, TheFileManagerIsNotifiedWhenASelectionIsInsideTheNewSyncedFolder) {
  makePlugin();
  extension->menus[url("a")] = {true, true};
  EXPECT_THAT(manager.plugin->menu({path("a")}), IsEmpty()) << "it is not known yet where that is";
  ASSERT_TRUE(runUntil([&] { return manager.menuChanges > 0; }));
  EXPECT_THAT(manager.plugin->menu({path("a")}), SizeIs(5));
  EXPECT_TRUE(runUntil([&] { return enabled(manager.plugin->menu({path("a")})) == "11"; }));
}

}  // namespace
}  // namespace vornet::test
