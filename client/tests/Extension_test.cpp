// The extension comes, goes, hangs, fails to start; the file manager goes on.
#include <chrono>
#include <filesystem>
#include <sstream>

#include "PluginTest.hpp"

namespace vornet::test {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

class PluginAndExtension : public PluginTest {
 protected:
  /// Has the bus start a script that notes the moment and ends as `end` says.
  void installClock(const std::string& end) {
    const std::string program = environment.folder() / "program";
    writeFile(program, "#!/bin/sh\ndate +%s%N >>'" + environment.folder() / "starts" + "'; " + end + "\n");
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    writeFile(services + "/com.vornet.KelvaneSync.FinderBadgeExtension.service",
              "[D-BUS Service]\nName=com.vornet.KelvaneSync.FinderBadgeExtension\nExec=" + program + "\n");
    callBus("ReloadConfig");  // when this returns, it has read its services again
  }

  /// Those moments, in nanoseconds.
  std::vector<std::int64_t> starts() {
    std::istringstream lines(readFile(environment.folder() / "starts"));
    std::vector<std::int64_t> moments;
    for (std::int64_t moment = 0; lines >> moment;) moments.push_back(moment);
    return moments;
  }

  /// Waits until the extension has answered a request, and the plug-in has processed it and all that was sent before.
  void roundTrip() {
    const auto before = manager.menuChanges;
    const std::string name = "question" + std::to_string(++roundTrips_);
    extension->menus[url(name)] = {true, true};
    manager.plugin->menu({path(name)});
    ASSERT_TRUE(runUntil([&] { return manager.menuChanges > before; }));
    settle();
  }

  /// Has another process take the name over while the present one holds a call of `method`; the new one holds the same
  /// call. Returns the former process, which can still answer.
  std::unique_ptr<FakeExtension> replaceWhileHeld(const std::string& method) {
    startExtension();
    extension->badges[url("a")] = "SYNCED";
    extension->hold(method);
    manager.plugin->folderShown(root);
    manager.show(path("a"));
    EXPECT_TRUE(waitForHeld(method));
    auto before = std::move(extension);
    before->giveUpName();
    startExtension();
    extension->hold(method);
    EXPECT_TRUE(waitForHeld(method));
    return before;
  }

 private:
  int roundTrips_ = 0;
};

TEST_F(PluginAndExtension, BadgesAppearWhenTheExtensionComesAfterTheWindow) {
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  settle();
  startExtension();
  extension->badges[url("a")] = "SYNCED";
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
}

TEST_F(PluginAndExtension, EmblemsStayWhenItEndsAndAreUpdatedByTheNextOne) {
  startExtension();
  extension->badges[url("a")] = "SYNCED";
  extension->badges[url("b")] = "SYNCED";
  manager.plugin->folderShown(root);
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  manager.show(path("b"));
  ASSERT_TRUE(waitForEmblem("a", SYNCED) && waitForEmblem("b", SYNCED));

  extension.reset();
  settle();
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  manager.show(path("a"));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);

  startExtension();
  extension->badges[url("a")] = "SYNCED";
  extension->badges[url("b")] = "SKIPPED";
  EXPECT_TRUE(waitForEmblem("b", SKIPPED));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  EXPECT_EQ(manager.redraws(path("a")), 1u) << "its badge is the same as before";
  EXPECT_TRUE(waitForObserved(2)) << "two windows, also for the new process";
}

TEST_F(PluginAndExtension, ObservationsOfFormerProcessesAreNotEndedWithTheNewOne) {
  startExtension();
  manager.plugin->folderShown(root);
  ASSERT_TRUE(waitForObserved(1));
  extension->hold("BeginObserving");
  manager.plugin->folderShown(path("other"));
  ASSERT_TRUE(waitForHeld("BeginObserving"));
  extension.reset();
  startExtension();
  ASSERT_TRUE(waitForObserved(2));
  manager.plugin->folderHidden(root);
  manager.plugin->folderHidden(path("other"));
  EXPECT_TRUE(waitForObserved(0));
  EXPECT_EQ(extension->count("EndObserving"), 2u);
}

TEST_F(PluginAndExtension, AnAnswerOfTheFormerProcessIsNotTakenForTheNewOnes) {
  startExtension();
  extension->hold("RequestBadges");
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  ASSERT_TRUE(waitForHeld("RequestBadges"));
  extension.reset();
  startExtension();
  extension->badges[url("a")] = "PENDING";
  EXPECT_TRUE(waitForEmblem("a", PENDING));
}

TEST_F(PluginAndExtension, TheBusIsAskedToStartItWhenAFolderComesOnScreenAndNotBefore) {
  installClock("exec sleep 60");
  settle();
  EXPECT_EQ(starts().size(), 0u);
  manager.plugin->folderShown(root);
  EXPECT_TRUE(runUntil([&] { return starts().size() == 1; }));
}

TEST_F(PluginAndExtension, AFileManagerMayHaveItStartedBeforeTheFirstMenu) {
  installClock("exec sleep 60");
  manager.plugin->ensureStarted();
  EXPECT_TRUE(runUntil([&] { return starts().size() == 1; }));
}

TEST_F(PluginAndExtension, WhereItIsNotInstalledThePluginIsSilentAndFindsItWhenItComes) {
  const auto before = busNames();
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  ASSERT_TRUE(runUntil([&] { return busNames() > before; }));
  for (int i = 0; i < 20; ++i) {
    manager.plugin->folderShown(path(std::to_string(i)));
    EXPECT_TRUE(manager.plugin->menu({path("a")}).empty()) << "nobody has said where the synced folder is";
    callBus("GetId");
    settle();
  }
  // Installed and started by somebody else, it is still found.
  startExtension();
  extension->badges[url("a")] = "SYNCED";
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
  EXPECT_EQ(logLines, 0);
}

TEST_F(PluginAndExtension, OneThatCannotBeStartedIsRetriedAFewTimesWithOneLineInTheLog) {
  installClock("exit 1");
  makePlugin({.firstRetry = milliseconds(5), .lastRetry = milliseconds(40)});
  manager.plugin->folderShown(root);
  // At once, after 5, 10 and 20 ms; the next wait would be the longest.
  ASSERT_TRUE(runUntil([&] { return starts().size() == 4; }));
  EXPECT_EQ(logLines, 1);
  // Showing a folder tries it again.
  ASSERT_TRUE(runUntil([&] {
    manager.plugin->folderShown(path("other"));
    return starts().size() > 4;
  }));
  EXPECT_EQ(logLines, 1);
}

TEST_F(PluginAndExtension, NothingIsStartedAgainWhenNoFolderIsOnScreen) {
  startExtension();
  manager.plugin->folderShown(root);
  ASSERT_TRUE(waitForObserved(1));
  manager.plugin->folderHidden(root);
  ASSERT_TRUE(waitForObserved(0));
  installClock("exec sleep 60");
  extension.reset();
  pass(milliseconds(300));
  EXPECT_EQ(starts().size(), 0u);
  manager.plugin->folderShown(root);
  EXPECT_TRUE(runUntil([&] { return starts().size() == 1; }));
}

TEST_F(PluginAndExtension, ItIsStartedAgainForAFolderOutsideTheFormerSyncedFolder) {
  startExtension();
  manager.plugin->folderShown(root);
  ASSERT_TRUE(waitForObserved(1)) << "the synced folder is known";
  manager.plugin->folderShown("/home/ann/Elsewhere");
  manager.plugin->folderHidden(root);
  ASSERT_TRUE(waitForObserved(0));
  installClock("exec sleep 60");
  extension.reset();
  EXPECT_TRUE(runUntil([&] { return starts().size() == 1; }));
}

TEST_F(PluginAndExtension, BadgesOfTheNextSyncedFolderAppearAutomatically) {
  startExtension();
  manager.plugin->folderShown("/home/ann/Elsewhere");
  manager.show("/home/ann/Elsewhere/a");
  showSynced("a");
  extension.reset();
  settle();
  extension = std::make_unique<FakeExtension>(bus.address(), std::vector<std::string>{"file:///home/ann/Elsewhere"});
  extension->badges["file:///home/ann/Elsewhere/a"] = "PENDING";
  EXPECT_TRUE(runUntil([&] { return manager.emblem("/home/ann/Elsewhere/a") == PENDING; }));
  EXPECT_TRUE(waitForEmblem("a", ""));
}

TEST_F(PluginAndExtension, AFolderInsideTheNewSyncedFolderGetsItsBadgesAutomatically) {
  startExtension();
  extension->badges[url("a")] = "SYNCED";
  extension->badges["file:///home/ann/Elsewhere/a"] = "PENDING";
  manager.show("/home/ann/Elsewhere/a");  // before its window reports the folder, as file managers do
  manager.plugin->folderShown("/home/ann/Elsewhere");
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  extension->setFolders({"file:///home/ann/Elsewhere/"});
  EXPECT_TRUE(runUntil([&] { return manager.emblem("/home/ann/Elsewhere/a") == PENDING; }));
  EXPECT_THAT(extension->observed, ElementsAre("file:///home/ann/Elsewhere"));
}

TEST_F(PluginAndExtension, ItemsOutsideTheSyncedFolderThatNoWindowShowsAreForgotten) {
  makePlugin({.beforeInferring = milliseconds(20)});
  startExtension();
  manager.plugin->folderShown(root);
  ASSERT_TRUE(waitForObserved(1));
  manager.show("/usr/bin/a");
  EXPECT_TRUE(runUntil([] { return FakeFileManager::keptItems() == 0; }));
}

TEST_F(PluginAndExtension, TheEndOfTheBusChangesNothingOnScreen) {
  startExtension();
  showSynced("a");
  bus.stop();
  for (int i = 0; i < 1000; ++i) {
    manager.plugin->folderShown(path(std::to_string(i)));
    manager.show(path(std::to_string(i) + "/x"));
    manager.plugin->menu({path("a")});
    settle();
    manager.plugin->folderHidden(path(std::to_string(i)));
  }
  manager.plugin->perform("share:", {path("a")});
  settle();
  manager.show(path("a"));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  EXPECT_LE(logLines, 2) << "one for the bus, one for the action";
}

TEST_F(PluginAndExtension, ASyncApplicationThatIsConfiguredLaterGetsItsBadgesAutomatically) {
  extension = std::make_unique<FakeExtension>(bus.address(), std::vector<std::string>{});
  extension->badges[url("a")] = "SYNCED";
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  ASSERT_TRUE(runUntil([&] {
    manager.plugin->menu({path("a")});
    return manager.menuChanges > 0;
  })) << "the folders are known now: there are none";
  EXPECT_TRUE(extension->calls.empty());
  extension->setFolders({url("")});
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
}

TEST_F(PluginAndExtension, BadgesGoWithTheSyncedFolderAndComeBackWithIt) {
  startExtension();
  showSynced("a");
  // The sync application is no longer configured, or has another folder.
  for (const auto& folders : {std::vector<std::string>(), {"file:///home/ann/Elsewhere"}}) {
    extension->setFolders(folders);
    EXPECT_TRUE(waitForEmblem("a", ""));
    EXPECT_TRUE(waitForObserved(0));
    extension->setFolders({url("")});
    EXPECT_TRUE(waitForEmblem("a", SYNCED)) << "it is still on screen";
  }
}

TEST_F(PluginAndExtension, ItemsOfABranchOutsideTheNewSyncedFolderAreForgotten) {
  makePlugin({.beforeInferring = milliseconds(20)});
  startExtension();
  extension->badges[url("branch/a")] = "SYNCED";
  manager.show(path("branch/a"));
  ASSERT_TRUE(waitForEmblem("branch/a", SYNCED));
  extension->setFolders({"file:///home/ann/Elsewhere"});
  EXPECT_TRUE(waitForEmblem("branch/a", ""));
  EXPECT_TRUE(runUntil([] { return FakeFileManager::keptItems() == 0; }));
}

// --- The pace of starting it ----------------------------------------------------------------------------------------

class PluginRestarts : public PluginAndExtension {
 protected:
  static std::int64_t now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
  }

  static std::int64_t nanoseconds(milliseconds time) { return std::chrono::nanoseconds(time).count(); }
};

TEST_F(PluginRestarts, TheWaitsDouble) {
  installClock("exit 1");
  makePlugin({.firstRetry = milliseconds(100), .lastRetry = milliseconds(1000)});
  manager.plugin->folderShown(root);
  ASSERT_TRUE(runUntil([&] { return starts().size() == 5; }));
  const auto moments = starts();
  for (std::size_t i = 0; i < 4; ++i)
    EXPECT_GE(moments[i + 1] - moments[i], nanoseconds(milliseconds(100 << i))) << "wait " << i;
}

TEST_F(PluginRestarts, AfterAFailureNoFolderHasItStartedBeforeTheLongestWaitIsOver) {
  installClock("exit 1");
  const milliseconds wait(500);
  makePlugin({.firstRetry = wait, .lastRetry = wait});
  manager.plugin->folderShown(root);
  ASSERT_TRUE(runUntil([&] { return logLines == 1; })) << "it has failed";
  ASSERT_TRUE(runUntil([&] {
    manager.plugin->folderShown(path("other"));
    return starts().size() == 2;
  }));
  EXPECT_GE(starts()[1] - starts()[0], nanoseconds(wait));
}

TEST_F(PluginRestarts, AFailureFromBeforeTheExtensionRanDelaysNothingAfterItsEnd) {
  installClock("exit 1");
  makePlugin({.firstRetry = std::chrono::minutes(10), .lastRetry = std::chrono::minutes(10)});
  manager.plugin->folderShown(root);
  ASSERT_TRUE(runUntil([&] { return logLines == 1; })) << "it has failed";
  startExtension();  // somebody else has started it
  ASSERT_TRUE(waitForObserved(1));
  manager.plugin->folderHidden(root);
  ASSERT_TRUE(waitForObserved(0));
  extension.reset();
  EXPECT_TRUE(runUntil([&] {
    manager.plugin->folderShown(root);
    manager.plugin->folderHidden(root);
    return starts().size() == 2;
  })) << "for the first folder that comes on screen";
}

TEST_F(PluginRestarts, OnlyOneThatRanForAWhileIsRestartedAtOnce) {
  const milliseconds wait(2000);
  makePlugin({.firstRetry = wait, .lastRetry = wait});
  manager.plugin->folderShown(root);
  startExtension();
  ASSERT_TRUE(waitForObserved(1));
  installClock("exec sleep 60");

  extension.reset();  // the first end
  ASSERT_TRUE(runUntil([&] { return starts().size() == 1; }));

  startExtension();
  ASSERT_TRUE(waitForObserved(1));
  pass(wait);  // it runs for a while
  const auto goodEnd = now();
  extension.reset();
  ASSERT_TRUE(runUntil([&] { return starts().size() == 2; }));
  const auto afterGoodEnd = starts()[1] - goodEnd;

  startExtension();
  ASSERT_TRUE(waitForObserved(1));
  const auto earlyEnd = now();
  extension.reset();
  ASSERT_TRUE(runUntil([&] { return starts().size() == 3; }));
  const auto afterEarlyEnd = starts()[2] - earlyEnd;
  EXPECT_GE(afterEarlyEnd, nanoseconds(wait));
  EXPECT_LT(afterGoodEnd, afterEarlyEnd / 2);
}

TEST_F(PluginRestarts, AfterOneThatRanForAWhileTheWaitsAreShortAgain) {
  const milliseconds longest(400);
  installClock("exit 1");
  makePlugin({.firstRetry = milliseconds(50), .lastRetry = longest});
  manager.plugin->folderShown(root);
  ASSERT_TRUE(runUntil([&] { return starts().size() == 4; })) << "the next wait is the longest: it gives up";
  startExtension();
  ASSERT_TRUE(waitForObserved(1));
  pass(longest);
  extension.reset();
  EXPECT_TRUE(runUntil([&] { return starts().size() >= 6; })) << "at once, and once more";
}

// --- Answers of processes that have gone ----------------------------------------------------------------------------

TEST_F(PluginAndExtension, ALateRefusalOfTheFormerProcessDoesNotCountAgainstTheNewOne) {
  const auto before = replaceWhileHeld("BeginObserving");
  extension->badges[url("a")] = "SYNCED";
  before->refusals["BeginObserving"] = "NotAFolder";
  before->release("BeginObserving");
  roundTrip();
  extension->release("BeginObserving");
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
}

TEST_F(PluginAndExtension, ALateSuccessOfTheFormerProcessSendsTheNewOneNoRequest) {
  const auto before = replaceWhileHeld("BeginObserving");
  before->release("BeginObserving");
  roundTrip();
  roundTrip();  // items are requested some milliseconds after a folder is observed
  EXPECT_TRUE(extension->badgeRequests.empty()) << "it has not said yet that it observes the folder";
  extension->release("BeginObserving");
  EXPECT_TRUE(runUntil([&] { return extension->badgeRequests.size() == 1; }));
}

TEST_F(PluginAndExtension, ALateAnswerOfTheFormerProcessIsDropped) {
  const auto before = replaceWhileHeld("RequestBadges");
  extension->badges = {{url("a"), "PENDING"}, {url("b"), "PENDING"}};
  before->release("RequestBadges");
  roundTrip();
  EXPECT_EQ(manager.emblem(path("a")), "");
  extension->release("RequestBadges");
  EXPECT_TRUE(waitForEmblem("a", PENDING));
  EXPECT_EQ(manager.redraws(path("a")), 1u);
  manager.show(path("b"));
  EXPECT_TRUE(waitForEmblem("b", PENDING)) << "the calls in flight are still counted right";
}

// --- The end of the plug-in -----------------------------------------------------------------------------------------

/// A plug-in in a separate main context.
class PluginEnd : public PluginAndExtension {
 protected:
  PluginEnd() {
    makePlugin({.context = context_});
    startExtension();
  }
  ~PluginEnd() override {
    manager.plugin.reset();
    turn();
    g_main_context_unref(context_);
  }

  void turn() const {
    while (g_main_context_iteration(context_, FALSE)) continue;
  }

  /// Runs both contexts.
  bool runBothUntil(const std::function<bool()>& condition) const {
    return runUntil([&] {
      g_main_context_iteration(context_, FALSE);
      return condition();
    });
  }

  /// The ids of the library's sources that are timers, or run after painting. GDBus has none of these.
  std::vector<guint> sources(bool timed) const {
    std::vector<guint> ids;
    for (guint id = 1; id < 2000; ++id) {
      GSource* source = g_main_context_find_source_by_id(context_, id);
      if (!source) continue;
      const bool isTimed = g_source_get_ready_time(source) > 0;
      const bool isLate = g_source_get_priority(source) == G_PRIORITY_HIGH_IDLE + 50;
      if (timed ? isTimed : isLate) ids.push_back(id);
    }
    return ids;
  }

  GMainContext* const context_ = g_main_context_new();
};

TEST_F(PluginEnd, LeavesNeitherWorkNorATimerBehind) {
  extension->badges[url("a")] = "SYNCED";
  manager.plugin->folderShown(root);
  manager.show(path("a"));
  ASSERT_TRUE(runBothUntil([&] { return manager.emblem(path("a")) == SYNCED; }));
  manager.show(path("branch/b"));  // a timer runs until it is taken to be on screen
  GSource* painting = g_idle_source_new();
  g_source_set_priority(painting, G_PRIORITY_HIGH_IDLE + 20);
  g_source_set_callback(painting, +[](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
  g_source_attach(painting, context_);
  extension->sendChanges({{url("a"), "PENDING"}});
  ASSERT_TRUE(runBothUntil([&] { return !sources(false).empty(); })) << "a change waits to be read";
  const auto work = sources(false);
  const auto timers = sources(true);
  EXPECT_THAT(timers, testing::Not(testing::IsEmpty()));

  manager.plugin.reset();
  for (const auto id : work) EXPECT_EQ(g_main_context_find_source_by_id(context_, id), nullptr);
  for (const auto id : timers) EXPECT_EQ(g_main_context_find_source_by_id(context_, id), nullptr);
  g_source_destroy(painting);
  g_source_unref(painting);
  turn();
  EXPECT_EQ(manager.redraws(path("a")), 1u);
}

TEST_F(PluginEnd, LeavesNothingThatWaitsForTheEndOfTheConnection) {
  manager.plugin->folderShown(root);
  ASSERT_TRUE(runBothUntil([&] { return extension->observed.size() == 1; }));
  struct End {
    guint signal = g_signal_lookup("closed", G_TYPE_DBUS_CONNECTION);
    bool seen = false;
    bool heard = false;  ///< anybody is connected to it
  } end;
  const auto see = +[](GSignalInvocationHint*, guint, const GValue* values, gpointer data) -> gboolean {
    auto& it = *static_cast<End*>(data);
    it.seen = true;
    it.heard = g_signal_has_handler_pending(g_value_get_object(values), it.signal, 0, FALSE) != FALSE;
    return TRUE;
  };
  const gulong hook = g_signal_add_emission_hook(end.signal, 0, see, &end, nullptr);
  manager.plugin.reset();
  EXPECT_TRUE(runBothUntil([&] { return end.seen; }));
  EXPECT_FALSE(end.heard) << "the watch of the bus name, or the library's own handler";
  g_signal_remove_emission_hook(end.signal, hook);
}

}  // namespace
}  // namespace vornet::test
