// The badges of a folder on screen, which the extension sends by itself: nothing is asked for, nothing is drawn twice.
#include <algorithm>
#include <string>

#include "PluginTest.hpp"
#include "client/FoldersOnScreen.hpp"
#include "dbus/Interface.hpp"

namespace vornet::test {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

class PluginSnapshots : public PluginTest {
 protected:
  PluginSnapshots() {
    makePlugin(std::chrono::minutes(1));
    startNewExtension();
  }

  /// Folders are `expected` for so long.
  void makePlugin(milliseconds expected) {
    PluginTest::makePlugin({.beforeInferring = milliseconds(20),
                            .firstRetry = milliseconds(20),
                            .lastRetry = milliseconds(160),
                            .unobservedRefresh = milliseconds(50),
                            .leaving = milliseconds(50),
                            .expecting = expected});
  }

  void startNewExtension() {
    startExtension();
    extension->interfaceVersion = dbus::INTERFACE_VERSION;
    extension->badges = {{url("a"), "SYNCED"}, {url("b"), "PENDING"}, {url("none"), ""}};
  }

  void list() { PluginTest::list(names_); }

  /// A window shows the root with these items, whose badges are known.
  void open() { PluginTest::open({{"a", "SYNCED"}, {"b", "PENDING"}, {"none", ""}}); }

  /// A window shows the root with so many items that those that are gone are forgotten.
  void openLarge() {
    Items items;
    for (int i = 0; i < 1024; ++i) items[std::to_string(i)] = "SYNCED";
    PluginTest::open(items);
  }

  void remove(const std::string& name) {
    manager.hide(path(name));
    manager.goneFor.insert(path(name));
  }

  /// Asks for another item until the plug-in has forgotten `name`, the only one removed; then makes it again.
  void makeAnew(const std::string& name) {
    const auto kept = FakeFileManager::keptItems();
    for (int i = 0; i < 10'000 && FakeFileManager::keptItems() == kept; ++i) manager.show(path("1"));
    ASSERT_EQ(FakeFileManager::keptItems(), kept - 1);
    manager.goneFor.erase(path(name));
    manager.show(path(name));
  }

  /// A window comes to show the root, whose snapshot the extension does not send.
  void openWithoutSnapshot() {
    extension->sendsSnapshots = false;
    manager.plugin->folderShown(root);
    list();
  }
  bool waitForStream() {
    return runUntil([&] { return extension->streams.contains(url("")); });
  }

  /// Whatever the extension has sent before has been taken in.
  void waitForAll() {
    extension->sendFolderBadges(url(""), {{url("last"), "SKIPPED"}});
    ASSERT_TRUE(runUntil([&] {
      manager.hide(path("last"));
      manager.show(path("last"));
      return manager.emblem(path("last")) == SKIPPED;
    }));
  }

  /// Sends the badge "SKIPPED" of so many items, whose names are numbers after `prefix`.
  void sendMany(int first, int count, unsigned char flags = 0, const std::string& prefix = "") {
    FakeExtension::Changes items;
    for (int i = first; i < first + count; ++i) items.emplace_back(url(prefix + std::to_string(i)), "SKIPPED");
    extension->sendFolderBadges(url(""), items, flags);
  }

  /// Sends a FolderBadges with these names and badges as they are.
  void sendRaw(guint64 stream, unsigned char flags, const std::string& names, const std::string& badges) {
    extension->send(dbus::INTERFACE, "FolderBadges",
                    g_variant_new("(tys@ay)", stream, flags, names.c_str(),
                                  g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, badges.data(), badges.size(), 1)));
  }

  std::size_t redraws() const {
    std::size_t sum = 0;
    for (const auto& name : names_) sum += manager.redraws(path(name));
    return sum;
  }

  const std::vector<std::string> names_ = {"a", "b", "none"};
};

TEST_F(PluginSnapshots, AFolderIsOneRequestAndNoItemIsAskedFor) {
  open();
  EXPECT_EQ(manager.emblem(path("none")), "");
  EXPECT_THAT(extension->badgeRequests, IsEmpty());
  EXPECT_EQ(extension->count("RequestSnapshot " + url("")), 1u);
  EXPECT_EQ(manager.redraws(path("a")), 1u);
  EXPECT_EQ(manager.redraws(path("none")), 0u) << "it was right";
}

TEST_F(PluginSnapshots, ItemsThatComeAfterTheSnapshotAreAnsweredAtOnceAndNeverDrawnAgain) {
  std::vector<std::string> names;
  for (int i = 0; i < 10'000; ++i) names.push_back(std::to_string(i));
  for (const auto& name : names) extension->badges[url(name)] = "SYNCED";
  PluginTest::open({{"first", "SYNCED"}});
  waitForAll();
  PluginTest::list(names);
  EXPECT_EQ(manager.withEmblem(SYNCED), names.size() + 1);
  settle();
  std::size_t drawnAgain = 0;
  for (const auto& name : names) drawnAgain += manager.redraws(path(name));
  EXPECT_EQ(drawnAgain, 0u);
  EXPECT_THAT(extension->badgeRequests, IsEmpty());
}

TEST_F(PluginSnapshots, ASnapshotMayComeInManyMessages) {
  extension->itemsASignal = 1;
  Items items;
  for (int i = 0; i < 50; ++i) items[std::to_string(i)] = "SKIPPED";
  PluginTest::open(items);
}

TEST_F(PluginSnapshots, AnItemThatIsMadeAnewInALargeFolderHasItsBadge) {
  openLarge();
  remove("0");
  makeAnew("0");
  EXPECT_EQ(manager.emblem(path("0")), SYNCED);
}

TEST_F(PluginSnapshots, AnItemThatIsMadeAnewInALargeFolderHasItsBadgeWhileTheExtensionIsAway) {
  openLarge();
  endExtension();
  remove("0");
  makeAnew("0");
  EXPECT_EQ(manager.emblem(path("0")), SYNCED);
  startNewExtension();
  EXPECT_TRUE(waitForEmblem("0", ""));
}

TEST_F(PluginSnapshots, AnItemThatIsMadeAnewWithinASnapshotLosesItsBadgeWhereTheSnapshotHasNone) {
  openLarge();
  remove("0");
  extension->sendFolderBadges(url(""), {{url("1"), "SKIPPED"}}, dbus::SNAPSHOT_BEGINS);
  ASSERT_TRUE(waitForEmblem("1", SKIPPED)) << "the file manager asks for it";
  makeAnew("0");
  EXPECT_EQ(manager.emblem(path("0")), SYNCED);
  extension->sendFolderBadges(url(""), {}, dbus::SNAPSHOT_ENDS);
  EXPECT_TRUE(waitForEmblem("0", ""));
}

TEST_F(PluginSnapshots, ChangesFollowInTheSameStream) {
  open();
  EXPECT_TRUE(changes("a", "SKIPPED"));
  EXPECT_TRUE(changes("b", ""));
  EXPECT_TRUE(changes("none", "SYNCED"));
}

TEST_F(PluginSnapshots, AnItemThatComesAfterTheSnapshotHasItsLastBadgeOrNoneAtOnceAndChangesThen) {
  open();
  extension->sendChanges({{url("late"), "SKIPPED"}, {url("gone"), "SKIPPED"}});
  extension->sendChanges({{url("gone"), ""}});
  waitForAll();
  PluginTest::list({"late", "gone", "new"});
  EXPECT_EQ(manager.emblem(path("late")), SKIPPED);
  EXPECT_EQ(manager.emblem(path("gone")), "");
  waitForAll();
  EXPECT_THAT(extension->badgeRequests, IsEmpty());
  EXPECT_EQ(manager.redraws(path("new")), 0u);
  EXPECT_TRUE(changes("new", "PENDING"));
}

TEST_F(PluginSnapshots, OfAnotherSnapshotOnlyTheDifferencesAreDrawn) {
  open();
  extension->badges = {{url("a"), "SYNCED"}, {url("none"), "SKIPPED"}};
  const auto before = manager.redraws(path("a"));
  extension->sendSnapshot(url(""));
  EXPECT_TRUE(waitForEmblem("b", "")) << "it was not named";
  EXPECT_TRUE(waitForEmblem("none", SKIPPED));
  EXPECT_EQ(manager.redraws(path("a")), before);
}

TEST_F(PluginSnapshots, WhatChangedWhileTheExtensionWasAwayIsDrawnAgainAndNothingElse) {
  open();
  const auto before = redraws();
  endExtension();
  startNewExtension();
  extension->badges.erase(url("b"));
  ASSERT_TRUE(waitForEmblem("b", ""));
  waitForAll();
  EXPECT_EQ(redraws(), before + 1);
  EXPECT_EQ(extension->count("RequestSnapshot"), 1u);
  EXPECT_THAT(extension->badgeRequests, IsEmpty());
}

TEST_F(PluginSnapshots, AFolderThatComesBackShowsItsLastEmblemsAndLosesThoseThatAreNoMore) {
  open();
  extension->setBadge(url("unseen"), "SKIPPED");
  waitForAll();
  closeWindow();
  EXPECT_THAT(extension->streams, IsEmpty());
  extension->badges = {{url("a"), "SYNCED"}};
  openWithoutSnapshot();
  manager.show(path("unseen"));
  EXPECT_EQ(manager.emblem(path("b")), PENDING);
  EXPECT_EQ(manager.emblem(path("unseen")), SKIPPED);
  ASSERT_TRUE(waitForStream());
  extension->sendSnapshot(url(""));
  EXPECT_TRUE(waitForEmblem("b", ""));
  EXPECT_TRUE(waitForEmblem("unseen", ""));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
}

TEST_F(PluginSnapshots, AFolderThatIsLeftBeforeItsItemsComeHasNoEmblemTheNextTimeIfItsSnapshotHadNone) {
  open();
  closeWindow();
  extension->badges.clear();
  manager.plugin->folderShown(root);
  roundTrip();  // the snapshot comes before
  manager.plugin->folderHidden(root);
  openWithoutSnapshot();
  EXPECT_EQ(manager.emblem(path("a")), "");
}

TEST_F(PluginSnapshots, ATabThatComesToTheFrontRedrawsWhatHasChangedAndNothingElse) {
  manager.plugin->folderOpened(root);
  open();
  closeWindow();
  const auto before = redraws();
  extension->badges[url("a")] = "SKIPPED";
  manager.plugin->folderShown(root);
  ASSERT_TRUE(waitForEmblem("a", SKIPPED));
  waitForAll();
  EXPECT_EQ(redraws(), before + 1);
  EXPECT_THAT(extension->badgeRequests, IsEmpty());
}

TEST_F(PluginSnapshots, WhatASnapshotThatWasLeftBehindSaysIsIgnored) {
  openWithoutSnapshot();
  ASSERT_TRUE(waitForStream());
  const auto stream = extension->streams[url("")];
  closeWindow();
  openWithoutSnapshot();
  ASSERT_TRUE(waitForStream());
  const auto next = std::exchange(extension->streams[url("")], stream);
  EXPECT_NE(stream, next);
  extension->badges[url("b")] = "SKIPPED";
  extension->sendSnapshot(url(""));
  extension->streams[url("")] = next;
  extension->badges[url("b")] = "PENDING";
  extension->sendSnapshot(url(""));
  ASSERT_TRUE(waitForEmblem("b", PENDING));
  EXPECT_EQ(manager.redraws(path("b")), 1u);
}

TEST_F(PluginSnapshots, TwoWindowsOnOneFolderHaveOneStream) {
  manager.plugin->folderShown(root);
  open();
  ASSERT_TRUE(waitForObserved(2));
  manager.plugin->folderHidden(root);
  ASSERT_TRUE(waitForObserved(1));
  EXPECT_TRUE(changes("a", "SKIPPED"));
  EXPECT_EQ(extension->count("RequestSnapshot"), 1u);
}

// --- Where there is none --------------------------------------------------------------------------------------------

TEST_F(PluginSnapshots, AFolderOfWhichThereIsNoSnapshotHasItsItemsAskedFor) {
  openWithoutSnapshot();
  ASSERT_TRUE(waitForStream());
  extension->sendFolderBadges(url(""), {}, dbus::NO_SNAPSHOT);
  extension->streams.clear();
  ASSERT_TRUE(waitForEmblem("a", SYNCED) && waitForEmblem("b", PENDING));
  EXPECT_TRUE(changes("a", "SKIPPED"));
  EXPECT_TRUE(appears("new", "PENDING"));
}

TEST_F(PluginSnapshots, AnExtensionThatRefusesThemIsAskedForItems) {
  for (const char* error : {"Failed", "org.freedesktop.DBus.Error.UnknownMethod", "org.example.Unheard"}) {
    extension->refusals["RequestSnapshot"] = error;
    const std::string folder = std::string("folder ") + error;
    openWindow(folder, {{folder + "/a", "SYNCED"}});
    EXPECT_TRUE(waitForEmblem(folder + "/a", SYNCED)) << error;
    EXPECT_EQ(extension->count("RequestSnapshot " + url(folder)), 1u) << error;
  }
}

TEST_F(PluginSnapshots, AnExtensionThatIsBusyIsAskedForThemAgain) {
  for (const char* error : {"Busy", "org.freedesktop.DBus.Error.LimitsExceeded"}) {
    extension->refusals["RequestSnapshot"] = error;
    const std::string folder = std::string("folder ") + error;
    openWindow(folder, {{folder + "/a", "SYNCED"}});
    ASSERT_TRUE(runUntil([&] { return extension->count("RequestSnapshot " + url(folder)) >= 3; })) << error;
    extension->refusals.clear();
    EXPECT_TRUE(waitForEmblem(folder + "/a", SYNCED)) << error;
    EXPECT_THAT(extension->badgeRequests, IsEmpty()) << error;
  }
}

TEST_F(PluginSnapshots, AFolderWithoutAPlaceIsAskedForUntilItHasOneAndHasItsSnapshotThen) {
  extension->places = 0;
  manager.plugin->folderShown(root);
  list();
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  EXPECT_FALSE(extension->badgeRequests.empty());
  extension->badges[url("a")] = "SKIPPED";  // no signal
  ASSERT_TRUE(waitForEmblem("a", SKIPPED));
  extension->places = 1;
  ASSERT_TRUE(waitForStream());
  waitForAll();
  extension->badgeRequests.clear();
  EXPECT_TRUE(changes("a", "PENDING"));
  EXPECT_THAT(extension->badgeRequests, IsEmpty());
}

TEST_F(PluginSnapshots, TheItemsOfAFolderThatNoWindowReportsAreAskedFor) {
  EXPECT_TRUE(appears("branch/x"));
  EXPECT_EQ(extension->count("RequestSnapshot"), 0u) << "it may be one of a search's results";
  manager.plugin->folderShown(path("branch"));
  EXPECT_TRUE(waitForCalls("RequestSnapshot", 1));
}

// --- Ahead of the file manager --------------------------------------------------------------------------------------

TEST_F(PluginSnapshots, AnExpectedFolderHasItsBadgesBeforeItIsShown) {
  manager.plugin->folderExpected(root);
  ASSERT_TRUE(waitForStream());
  waitForAll();
  manager.plugin->folderShown(root);
  list();
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  EXPECT_EQ(manager.emblem(path("b")), PENDING);
  settle();
  EXPECT_EQ(redraws(), 0u);
  EXPECT_EQ(extension->count("BeginObserving"), 1u) << "the same goes on";
}

TEST_F(PluginSnapshots, AFolderThatIsExpectedInVainIsLeft) {
  makePlugin(milliseconds(200));
  openObserved("other");  // the extension answers
  const auto ended = [&] { return extension->count("EndObserving " + url("")); };
  manager.plugin->folderExpected(root);
  EXPECT_TRUE(runUntil([&] { return ended() == 1; }));
  manager.plugin->folderOpened(root);  // in the background
  manager.plugin->folderExpected(root);
  EXPECT_TRUE(runUntil([&] { return ended() == 2; }));
  manager.plugin->folderExpected(root);
  manager.plugin->folderShown(root);
  pass(milliseconds(600));
  EXPECT_EQ(ended(), 2u) << "it is shown";
  EXPECT_EQ(std::count(extension->calls.begin(), extension->calls.end(), "BeginObserving " + url("")), 3);
}

TEST_F(PluginSnapshots, ItemsOfAFolderThatIsExpectedInVainKeepTheirEmblems) {
  makePlugin(milliseconds(200));
  manager.plugin->folderExpected(root);
  list();
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  pass(milliseconds(600));
  EXPECT_TRUE(changes("a", "SKIPPED")) << "somebody shows them: it is observed on";
  extension.reset();
  startNewExtension();
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
  EXPECT_EQ(extension->count("RequestSnapshot"), 0u) << "its items are asked for, as those of any inferred folder";
}

TEST_F(PluginSnapshots, OfFoldersThatAreExpectedInVainNoMoreAreRememberedThanOfThoseThatWereShown) {
  makePlugin(milliseconds(500));
  openObserved("other");  // the extension answers
  constexpr std::size_t COUNT = client::LeftFolders::MOST_FOLDERS + 1;
  for (std::size_t i = 0; i < COUNT; ++i) {
    extension->badges[url(std::to_string(i) + "/x")] = "SYNCED";
    manager.plugin->folderExpected(path(std::to_string(i)));
  }
  ASSERT_TRUE(waitForCalls("EndObserving", COUNT));
  for (std::size_t i = 0; i < COUNT; ++i) openWindow(std::to_string(i), {{std::to_string(i) + "/x", "SYNCED"}});
  EXPECT_LE(manager.withEmblem(SYNCED), client::LeftFolders::MOST_FOLDERS);
}

TEST_F(PluginSnapshots, AFolderThatIsExpectedInVainJustAfterItWasLeftIsForgotten) {
  makePlugin(milliseconds(200));
  manager.plugin->folderOpened(root);
  open();
  drop(names_);
  manager.plugin->folderHidden(root);
  manager.plugin->folderClosed(root);
  manager.plugin->folderExpected(root);
  ASSERT_TRUE(waitForCalls("BeginObserving", 2));
  EXPECT_TRUE(waitForObserved(0));
  EXPECT_TRUE(waitUntilForgotten());
  EXPECT_EQ(manager.redraws(path("none")), 1u) << "so that the file manager asks when it comes back";
}

TEST_F(PluginSnapshots, AFolderThatIsExpectedJustAfterItWasLeftIsObservedUntilItIsShown) {
  makePlugin(milliseconds(60'000));
  manager.plugin->folderOpened(root);
  open();
  manager.plugin->folderHidden(root);
  manager.plugin->folderClosed(root);
  manager.plugin->folderExpected(root);
  pass(milliseconds(200));  // four times as long as its items are kept
  manager.plugin->folderOpened(root);
  manager.plugin->folderShown(root);
  EXPECT_TRUE(changes("a", "SKIPPED"));
  EXPECT_EQ(extension->count("BeginObserving"), 2u) << "the same goes on";
}

TEST_F(PluginSnapshots, ItemsOfAFolderThatIsExpectedInVainAreAskedForIfTheExtensionIsTooBusyForItsSnapshot) {
  makePlugin(milliseconds(500));
  extension->refusals["RequestSnapshot"] = "Busy";
  manager.plugin->folderExpected(root);
  ASSERT_TRUE(runUntil([&] { return extension->count("RequestSnapshot") > 0; }));
  list();
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
}

TEST_F(PluginSnapshots, ItemsAreAskedForIfTheirSnapshotIsRefusedOnceTheirFolderIsExpectedNoMore) {
  makePlugin(milliseconds(200));
  extension->hold("RequestSnapshot");
  manager.plugin->folderExpected(root);
  ASSERT_TRUE(waitForHeld("RequestSnapshot"));
  list();
  pass(milliseconds(600));
  extension->refusals["RequestSnapshot"] = "Busy";
  extension->release("RequestSnapshot");
  EXPECT_TRUE(waitForEmblem("a", SYNCED));
}

TEST_F(PluginSnapshots, AFolderThatIsExpectedInVainIsObservedAsLongAsItsItemsAreShownAndNoLonger) {
  PluginTest::makePlugin(
      {.beforeInferring = milliseconds(20), .inferredFor = milliseconds(400), .expecting = milliseconds(300)});
  manager.plugin->folderExpected(root);
  list();
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  ASSERT_TRUE(runUntil([&] { return manager.redraws(path("a")) >= 4; })) << "every test finds its items";
  EXPECT_EQ(extension->count("EndObserving"), 0u);
  drop(names_);
  ASSERT_TRUE(waitUntilForgotten());
  EXPECT_TRUE(waitForObserved(0));
  EXPECT_EQ(extension->count("EndObserving"), 1u);
}

TEST_F(PluginSnapshots, AnInferredFolderWhoseItemsAreGoneIsLeftThoughItIsExpected) {
  PluginTest::makePlugin(
      {.beforeInferring = milliseconds(20), .inferredFor = milliseconds(400), .expecting = std::chrono::minutes(10)});
  list();
  ASSERT_TRUE(waitForEmblem("a", SYNCED));
  manager.plugin->folderExpected(root);
  manager.plugin->folderExpected(path("other"));
  drop(names_);
  ASSERT_TRUE(waitUntilForgotten());
  EXPECT_TRUE(waitForObserved(1));
  EXPECT_THAT(extension->observed, ElementsAre(url("other")));
  EXPECT_EQ(extension->count("EndObserving"), 1u);
}

// --- What makes no sense --------------------------------------------------------------------------------------------

TEST_F(PluginSnapshots, WhatMakesNoSenseIsIgnored) {
  open();
  const auto stream = extension->streams[url("")];
  sendRaw(stream + 7, 3, "a", "\1");
  sendRaw(0, 3, "a", "\1");
  sendRaw(stream, 0, "none", "\x09");
  sendRaw(stream, 0, "x//y/", "\1\1\1\1\1\1\1");
  sendRaw(stream, 0, "", "\1\1\1");
  sendRaw(stream, 0, "none/none/none", "");
  extension->send(dbus::INTERFACE, "FolderBadges", g_variant_new("(ty)", stream, 3));
  extension->send(dbus::INTERFACE, "FolderBadges", g_variant_new("(s)", "text"));
  EXPECT_TRUE(changes("b", "SKIPPED"));
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  EXPECT_EQ(manager.emblem(path("none")), "");
  EXPECT_EQ(logLines, 0);
}

TEST_F(PluginSnapshots, BadgesThatAreTooManyToKeepAreAskedForOnceMore) {
  open();
  const auto before = extension->count("RequestSnapshot");
  extension->badges[url("a")] = "SKIPPED";  // and the change is lost
  sendRaw(extension->streams[url("")], 0, std::string(200'000, '/'), std::string(200'000, '\1'));
  EXPECT_TRUE(waitForEmblem("a", SKIPPED));
  EXPECT_EQ(extension->count("RequestSnapshot"), before + 1);
}

TEST_F(PluginSnapshots, MoreItemsThanASnapshotHasAreNotKept) {
  open();
  extension->sendsSnapshots = false;
  for (int message = 0; message < 11; ++message) sendMany(message * 5'000, 5'000);
  ASSERT_TRUE(waitForCalls("RequestSnapshot", 2));
  extension->sendFolderBadges(url(""), {}, dbus::NO_SNAPSHOT);
  extension->streams.clear();
  EXPECT_TRUE(runUntil([&] { return !extension->badgeRequests.empty(); }));
  EXPECT_EQ(extension->count("RequestSnapshot"), 2u);
}

TEST_F(PluginSnapshots, MoreBytesThanASnapshotHasAreNotKept) {
  open();
  extension->sendsSnapshots = false;
  for (int message = 0; message < 5; ++message) sendMany(message * 4'000, 4'000, 0, std::string(240, 'n'));
  EXPECT_TRUE(waitForCalls("RequestSnapshot", 2));
}

TEST_F(PluginSnapshots, ANameThatNoItemHasIsNotKept) {
  open();
  const std::string name(5'000, 'n');
  extension->sendFolderBadges(url(""), {{url(name), "SYNCED"}, {url(".."), "SYNCED"}});
  waitForAll();
  manager.show(path(name));
  EXPECT_EQ(manager.emblem(path(name)), "");
}

TEST_F(PluginSnapshots, ASnapshotThatEndsAfterTooManyItemsTakesNoBadgeAway) {
  open();
  const auto before = redraws();
  sendMany(0, 5'000, dbus::SNAPSHOT_BEGINS);
  for (int message = 1; message < 10; ++message) sendMany(message * 5'000, 5'000);
  sendMany(50'000, 1, dbus::SNAPSHOT_ENDS);  // one too many
  ASSERT_TRUE(waitForCalls("RequestSnapshot", 2));
  waitForAll();
  EXPECT_EQ(redraws(), before);
}

TEST_F(PluginSnapshots, SnapshotsThatNeverEndAreNotGathered) {
  open();
  for (int message = 0; message < 12; ++message) sendMany(message * 5'000, 5'000, dbus::SNAPSHOT_BEGINS);
  waitForAll();
  manager.show(path("0"));
  EXPECT_EQ(manager.emblem(path("0")), "");
  manager.show(path("59999"));
  EXPECT_EQ(manager.emblem(path("59999")), SKIPPED) << "of the last one";
}

TEST_F(PluginSnapshots, ASnapshotOfWhichAPartIsMissingTakesNoBadgeAway) {
  open();
  const auto before = redraws();
  extension->sendFolderBadges(url(""), {{url("other"), "SYNCED"}}, dbus::SNAPSHOT_BEGINS);
  // Too many: they are not read.
  sendRaw(extension->streams[url("")], 0, std::string(20'001, '/'), std::string(20'001, '\1'));
  extension->sendFolderBadges(url(""), {}, dbus::SNAPSHOT_ENDS);
  ASSERT_TRUE(waitForCalls("RequestSnapshot", 2));
  waitForAll();
  EXPECT_EQ(redraws(), before);
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
}

TEST_F(PluginSnapshots, AnEndWithoutABeginningTakesNoBadgeAway) {
  open();
  const auto before = redraws();
  extension->sendFolderBadges(url(""), {}, dbus::SNAPSHOT_ENDS);
  waitForAll();
  EXPECT_EQ(redraws(), before);
}

TEST_F(PluginSnapshots, AnExtensionThatEndsWithinASnapshotIsFollowedByOneThatSendsItWhole) {
  open();
  const auto before = redraws();
  extension->sendFolderBadges(url(""), {{url("b"), "SKIPPED"}}, dbus::SNAPSHOT_BEGINS);
  ASSERT_TRUE(waitForEmblem("b", SKIPPED));
  extension.reset();
  startNewExtension();
  ASSERT_TRUE(waitForEmblem("b", PENDING));
  waitForAll();
  EXPECT_EQ(manager.emblem(path("a")), SYNCED);
  EXPECT_EQ(redraws(), before + 2) << "both times of that item";
}

TEST_F(PluginSnapshots, AnExtensionThatEndsBeforeItsSnapshotTakesNoEmblemAwayThatIsNotYetShown) {
  open();
  extension->setBadge(url("unseen"), "SKIPPED");
  waitForAll();
  extension.reset();
  startNewExtension();
  extension->sendsSnapshots = false;
  ASSERT_TRUE(waitForCalls("RequestSnapshot", 1));
  endExtension();
  manager.show(path("unseen"));
  EXPECT_EQ(manager.emblem(path("unseen")), SKIPPED);
}

}  // namespace
}  // namespace vornet::test
