// The extension comes, goes, hangs, fails to start; the file manager goes on.
#include <algorithm>
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

  /// Starts an extension; it observes a folder when this returns.
  void startObserving(std::size_t count = 1) {
    startExtension();
    ASSERT_TRUE(waitForObserved(count));
  }

  bool waitForStarts(std::size_t count) {
    return runUntil([&] { return starts().size() == count; });
  }

  /// Has another process take the name over while the present one holds a call of `method`; the new one holds the same
  /// call. Returns the former process, which can still answer.
  std::unique_ptr<FakeExtension> replaceWhileHeld(const std::string& method) {
    startExtension();
    openHeld(method);
    auto before = std::move(extension);
    before->giveUpName();
    startExtension();
    extension->hold(method);
    EXPECT_TRUE(waitForHeld(method));
    return before;
  }

  const std::string elsewhere_ = "/home/ann/Elsewhere";
  const std::string elsewhereURL_ = "file://" + elsewhere_;
};

TEST_F(PluginAndExtension, EmblemsStayWhenItEndsAndAreUpdatedByTheNextOne) {
  startExtension();
  manager.plugin->folderShown(root);
  open({{"a", "SYNCED"}, {"b", "SYNCED"}});

  endExtension();
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  manager.show(path("a"));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);

  startExtension();
  extension->badges = {{url("a"), "SYNCED"}, {url("b"), "SKIPPED"}};
  EXPECT_TRUE(waitForEmblem("b", SKIPPED));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  EXPECT_EQ(manager.redraws(path("a")), 1u) << "its badge is the same as before";
  EXPECT_TRUE(waitForObserved(2)) << "two windows, also for the new process";
}

TEST_F(PluginAndExtension, ObservationsOfFormerProcessesAreNotEndedWithTheNewOne) {
  startExtension();
  openObserved();
  extension->hold("BeginObserving");
  manager.plugin->folderShown(path("other"));
  ASSERT_TRUE(waitForHeld("BeginObserving"));
  extension.reset();
  startObserving(2);
  manager.plugin->folderHidden(root);
  closeWindow("other");
  EXPECT_EQ(extension->count("EndObserving"), 2u);
}

TEST_F(PluginAndExtension, AnAnswerOfTheFormerProcessIsNotTakenForTheNewOnes) {
  startExtension();
  openHeld("RequestBadges");
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
  EXPECT_TRUE(waitForStarts(1));
}

TEST_F(PluginAndExtension, AFileManagerMayHaveItStartedBeforeTheFirstMenu) {
  installClock("exec sleep 60");
  manager.plugin->ensureStarted();
  EXPECT_TRUE(waitForStarts(1));
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

TEST_F(PluginAndExtension, NothingIsStartedAgainWhenNoFolderIsOnScreen) {
  startExtension();
  openObserved();
  closeWindow();
  installClock("exec sleep 60");
  extension.reset();
  pass(milliseconds(300));
  EXPECT_EQ(starts().size(), 0u);
  manager.plugin->folderShown(root);
  EXPECT_TRUE(waitForStarts(1));
}

TEST_F(PluginAndExtension, ItIsStartedAgainForAFolderOutsideTheFormerSyncedFolder) {
  startExtension();
  openObserved();  // the synced folder is known
  manager.plugin->folderShown(elsewhere_);
  closeWindow();
  installClock("exec sleep 60");
  extension.reset();
  EXPECT_TRUE(waitForStarts(1));
}

TEST_F(PluginAndExtension, BadgesOfTheNextSyncedFolderAppearAutomatically) {
  startExtension();
  manager.plugin->folderShown(elsewhere_);
  manager.show(elsewhere_ + "/a");
  open({{"a", "SYNCED"}});
  endExtension();
  extension = std::make_unique<FakeExtension>(bus.address(), std::vector{elsewhereURL_});
  extension->badges[elsewhereURL_ + "/a"] = "PENDING";
  EXPECT_TRUE(runUntil([&] { return manager.emblem(elsewhere_ + "/a") == PENDING; }));
  EXPECT_TRUE(waitForEmblem("a", ""));
}

TEST_F(PluginAndExtension, AFolderInsideTheNewSyncedFolderGetsItsBadgesAutomatically) {
  startExtension();
  extension->badges[elsewhereURL_ + "/a"] = "PENDING";
  manager.show(elsewhere_ + "/a");  // before its window reports the folder, as file managers do
  manager.plugin->folderShown(elsewhere_);
  open({{"a", "SYNCED"}});
  extension->setFolders({elsewhereURL_ + "/"});
  EXPECT_TRUE(runUntil([&] { return manager.emblem(elsewhere_ + "/a") == PENDING; }));
  EXPECT_THAT(extension->observed, ElementsAre(elsewhereURL_));
}

TEST_F(PluginAndExtension, ItemsOutsideTheSyncedFolderThatNoWindowShowsAreForgotten) {
  makePlugin({.beforeInferring = milliseconds(20)});
  startExtension();
  openObserved();
  manager.show("/usr/bin/a");
  EXPECT_TRUE(waitUntilForgotten());
}

TEST_F(PluginAndExtension, TheEndOfTheBusChangesNothingOnScreen) {
  startExtension();
  open({{"a", "SYNCED"}});
  bus.stop();
  for (int i = 0; i < 1000; ++i) {
    openWindow(std::to_string(i), {{std::to_string(i) + "/x", "SYNCED"}});
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
  openWindow("", {{"a", "SYNCED"}});
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
  open({{"a", "SYNCED"}});
  // The sync application is no longer configured, or has another folder.
  for (const auto& folders : {std::vector<std::string>(), {elsewhereURL_}}) {
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
  ASSERT_TRUE(appears("branch/a"));
  extension->setFolders({elsewhereURL_});
  EXPECT_TRUE(waitForEmblem("branch/a", ""));
  EXPECT_TRUE(waitUntilForgotten());
}

// --- The pace of starting it ----------------------------------------------------------------------------------------

class PluginRestarts : public PluginAndExtension {
 protected:
  /// Ends the extension. The time until the bus has started it for the `count`th time, in nanoseconds.
  std::int64_t restartTime(std::size_t count) {
    const std::int64_t end = std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
    extension.reset();
    EXPECT_TRUE(waitForStarts(count));
    return starts().at(count - 1) - end;
  }

  static std::int64_t nanoseconds(milliseconds time) { return std::chrono::nanoseconds(time).count(); }
};

TEST_F(PluginRestarts, OneThatCannotBeStartedIsRetriedAfterWaitsThatDoubleThenForAFolderAndIsOneLineInTheLog) {
  installClock("exit 1");
  makePlugin({.firstRetry = milliseconds(100), .lastRetry = milliseconds(1000)});
  manager.plugin->folderShown(root);
  ASSERT_TRUE(waitForStarts(5)) << "the next wait would be the longest";
  EXPECT_EQ(logLines, 1);
  ASSERT_TRUE(runUntil([&] {
    manager.plugin->folderShown(path("other"));
    return starts().size() == 6;
  })) << "showing a folder tries it again, once the longest wait is over";
  EXPECT_EQ(logLines, 1);
  const auto moments = starts();
  for (std::size_t i = 0; i < 5; ++i)
    EXPECT_GE(moments[i + 1] - moments[i], nanoseconds(milliseconds(std::min(100 << i, 1000)))) << "wait " << i;
}

TEST_F(PluginRestarts, AFailureFromBeforeTheExtensionRanDelaysNothingAfterItsEnd) {
  installClock("exit 1");
  makePlugin({.firstRetry = std::chrono::minutes(10), .lastRetry = std::chrono::minutes(10)});
  manager.plugin->folderShown(root);
  ASSERT_TRUE(runUntil([&] { return logLines == 1; })) << "it has failed";
  startObserving();  // somebody else has started it
  closeWindow();
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
  startObserving();
  installClock("exec sleep 60");

  restartTime(1);  // the first end

  startObserving();
  pass(wait);  // it runs for a while
  const auto afterGoodEnd = restartTime(2);

  startObserving();
  const auto afterEarlyEnd = restartTime(3);
  EXPECT_GE(afterEarlyEnd, nanoseconds(wait));
  EXPECT_LT(afterGoodEnd, afterEarlyEnd / 2);
}

TEST_F(PluginRestarts, AfterOneThatRanForAWhileTheWaitsAreShortAgain) {
  const milliseconds longest(400);
  installClock("exit 1");
  makePlugin({.firstRetry = milliseconds(50), .lastRetry = longest});
  manager.plugin->folderShown(root);
  ASSERT_TRUE(waitForStarts(4)) << "the next wait is the longest: it gives up";
  startObserving();
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

  /// True if the library has a timer, or work that is done after painting. GDBus has none of these.
  bool hasSource(bool timed) const {
    for (guint id = 1; id < 2000; ++id) {
      GSource* source = g_main_context_find_source_by_id(context_, id);
      if (!source) continue;
      const bool isLate = g_source_get_priority(source) == G_PRIORITY_HIGH_IDLE + 50;
      if (timed ? g_source_get_ready_time(source) > 0 : isLate) return true;
    }
    return false;
  }

  GMainContext* const context_ = g_main_context_new();
};

TEST_F(PluginEnd, LeavesNeitherWorkNorATimerBehind) {
  openWindow("", {{"a", "SYNCED"}});
  ASSERT_TRUE(runBothUntil([&] { return manager.emblem(path("a")) == SYNCED; }));
  manager.show(path("branch/b"));  // a timer runs until it is taken to be on screen
  GSource* painting = g_idle_source_new();
  g_source_set_priority(painting, G_PRIORITY_HIGH_IDLE + 20);
  g_source_set_callback(painting, +[](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
  g_source_attach(painting, context_);
  extension->sendChanges({{url("a"), "PENDING"}});
  ASSERT_TRUE(runBothUntil([&] { return hasSource(false); })) << "a change waits to be read";
  EXPECT_TRUE(hasSource(true));

  manager.plugin.reset();
  EXPECT_FALSE(hasSource(false));
  EXPECT_FALSE(hasSource(true));
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
