// The built plug-in beside windows and tabs: which folders it has observed, and what it shows in those that the user
// comes back to. Compiled for each file manager.
#include <algorithm>
#include <optional>

#include "dbus/Interface.hpp"
#include "support/DesktopTest.hpp"
#include "support/FakeExtension.hpp"
#include "support/MainContext.hpp"
#include "support/gtk/FakeTab.hpp"
#include "support/gtk/TestHost.hpp"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vornet::test::DesktopTest;
using vornet::test::FakeExtension;
using vornet::test::FakeFile;
using vornet::test::FakeWindow;
using vornet::test::FakeWindows;
using vornet::test::runUntil;
using vornet::test::TestHost;
using vornet::test::urlOf;

// VORNET_TABS_SUITE: the suite's name, with the file manager's in it.
class VORNET_TABS_SUITE : public DesktopTest {
 protected:
  VORNET_TABS_SUITE() {
    startBus(Extension::none);
    windows.emplace();
    host.emplace();
    fake.emplace(bus->address(), std::vector{urlOf(root)});
    window.emplace(*windows, *host);
  }

  std::string url(const std::string& name = "") const { return "file://" + root + (name.empty() ? "" : "/" + name); }

  /// True if exactly these folders are observed, so many times each.
  bool observes(const std::map<std::string, int>& folders) {
    std::multiset<std::string> urls;
    for (const auto& [folder, times] : folders)
      for (int i = 0; i < times; ++i) urls.insert(urlOf(folder));
    return runUntil([&] { return fake->observed == urls; });
  }
  /// How often a folder's observation began, or ended.
  std::ptrdiff_t begun(const std::string& folder) const { return count("BeginObserving", folder); }
  std::ptrdiff_t ended(const std::string& folder) const { return count("EndObserving", folder); }
  std::ptrdiff_t count(const std::string& method, const std::string& folder) const {
    return std::ranges::count(fake->calls, method + " " + urlOf(folder));
  }
  /// The items whose badges were asked for, from the one numbered `first` on.
  std::vector<std::string> asked(std::size_t first = 0) const {
    std::vector<std::string> items;
    for (const auto& request : fake->badgeRequests) items.insert(items.end(), request.begin(), request.end());
    items.erase(items.begin(), items.begin() + static_cast<std::ptrdiff_t>(std::min(first, items.size())));
    return items;
  }
  void setBadge(const std::string& name, const std::string& identifier) {
    fake->setBadge(urlOf(root + "/" + name), identifier);
  }

  bool becomes(const FakeFile& file, const std::vector<std::string>& emblems) {
    return runUntil([&] { return file.questions() > 0 && file.emblems() == emblems; });
  }
  /// The file `name` in a folder that is on screen, with the emblem SYNCED.
  std::unique_ptr<FakeFile> syncedFile(const std::string& name) {
    setBadge(name, "SYNCED");
    auto file = host->watchedFile(root + "/" + name);
    EXPECT_TRUE(becomes(*file, {SYNCED}));
    return file;
  }

  /// A file with the badge SYNCED, which the extension does not send yet.
  std::unique_ptr<FakeFile> waitingFile() {
    fake->interfaceVersion = vornet::dbus::INTERFACE_VERSION;
    fake->sendsSnapshots = false;
    setBadge("file", "SYNCED");
    window->open(url());
    auto file = host->watchedFile(root + "/file");
    EXPECT_TRUE(runUntil([&] { return file->isWaiting() && count("RequestSnapshot", root) == 1; }));
    return file;
  }

  static constexpr const char* COLUMN = "VornetVI::sync_status";

  std::optional<FakeWindows> windows;
  std::optional<TestHost> host;
  std::optional<FakeExtension> fake;
  std::optional<FakeWindow> window;
};

// --- On screen ------------------------------------------------------------------------------------------------------

TEST_F(VORNET_TABS_SUITE, ObservesTheFolderThatATabShowsAndNoOther) {
  const auto tab = window->open(url());
  EXPECT_TRUE(observes({{root, 1}}));
  window->go(tab, url("folder"));
  EXPECT_TRUE(observes({{root + "/folder", 1}}));
  window->go(tab, url());
  EXPECT_TRUE(observes({{root, 1}}));
  window->close(tab);
  EXPECT_TRUE(observes({}));
  EXPECT_EQ(begun(root), 2);
  EXPECT_EQ(ended(root), 2);
  EXPECT_EQ(begun(root + "/folder"), 1);
  EXPECT_EQ(ended(root + "/folder"), 1);
}

TEST_F(VORNET_TABS_SUITE, ObservesOnlyTheTabInFront) {
  const auto back = window->open(url("back"));
  ASSERT_TRUE(observes({{root + "/back", 1}}));
  window->sendToBack(back);
  const auto front = window->open(url("front"));
  EXPECT_TRUE(observes({{root + "/front", 1}}));
  window->sendToBack(front);
  window->bringToFront(back);
  EXPECT_TRUE(observes({{root + "/back", 1}}));
  window->close(front);
  window->go(back, url("third"));
  EXPECT_TRUE(observes({{root + "/third", 1}}));
  EXPECT_EQ(ended(root + "/front"), 1);
}

TEST_F(VORNET_TABS_SUITE, NeverObservesATabOpenedInTheBackground) {
  window->open(url("back"), false);
  window->open(url("front"));
  EXPECT_TRUE(observes({{root + "/front", 1}}));
  EXPECT_EQ(begun(root + "/back"), 0);
}

TEST_F(VORNET_TABS_SUITE, CountsTwoWindowsOnOneFolderTwice) {
  std::optional<FakeWindow> second;
  second.emplace(*windows, *host);
  window->open(url());
  second->open(url());
  EXPECT_TRUE(observes({{root, 2}}));
  second.reset();
  EXPECT_TRUE(observes({{root, 1}}));
  window.reset();
  EXPECT_TRUE(observes({}));
  EXPECT_EQ(ended(root), 2);
}

TEST_F(VORNET_TABS_SUITE, AClosedWindowTakesAllItsTabsAndPanesAlong) {
  window->open(url("left"));
  window->open(url("right"));
  const auto back = window->open(url("back"));
  window->sendToBack(back);
  ASSERT_TRUE(observes({{root + "/left", 1}, {root + "/right", 1}}));
  window.reset();
  EXPECT_TRUE(observes({}));
  for (const char* name : {"/left", "/right", "/back"}) EXPECT_EQ(begun(root + name), ended(root + name)) << name;
}

TEST_F(VORNET_TABS_SUITE, ObservesNothingThatIsNoLocalFolder) {
  std::vector<FakeWindow::Tab> tabs;
  for (const char* other :
       {"trash:///", "sftp://host/root", "recent:///", "file://host/root", "search:///?q", "file:///%00"}) {
    tabs.push_back(window->open(other));
  }
  window->open(url("with%20space%23"));
  EXPECT_TRUE(observes({{root + "/with space#", 1}}));
  window->go(tabs[0], url());
  EXPECT_TRUE(observes({{root + "/with space#", 1}, {root, 1}}));
  window->go(tabs[0], "trash:///");
  EXPECT_TRUE(observes({{root + "/with space#", 1}}));
}

TEST_F(VORNET_TABS_SUITE, LeavesTheWindowsAloneOnceItIsUnloaded) {
  const auto tab = window->open(url());
  ASSERT_TRUE(observes({{root, 1}}));
  const auto file = syncedFile("file");
  host->unload();
  ASSERT_TRUE(runUntil([&] { return !fake->clientIsConnected(); }));
  window->sendToBack(tab);
  window->bringToFront(tab);
  window->close(tab);
  window.reset();
  EXPECT_EQ(begun(root), 1);
  EXPECT_EQ(ended(root), 0);
}

// --- First badges ---------------------------------------------------------------------------------------------------

TEST_F(VORNET_TABS_SUITE, TheFirstFileOfAFolderWaitsForTheBadgesAndIsDrawnOnce) {
  const auto file = waitingFile();
  EXPECT_THAT(file->emblems(), IsEmpty());
  fake->sendSnapshot(urlOf(root));
  EXPECT_TRUE(becomes(*file, {SYNCED}));
  EXPECT_EQ(file->text(COLUMN), "Synced");
  EXPECT_FALSE(file->isWaiting());
  EXPECT_EQ(file->questions(), 1);
  EXPECT_EQ(file->otherReferences(), 0u);
}

TEST_F(VORNET_TABS_SUITE, AFileWhoseBadgeIsLateIsDrawnWithoutIt) {
  const auto file = waitingFile();
  EXPECT_TRUE(runUntil([&] { return !file->isWaiting(); }));
  EXPECT_THAT(file->emblems(), IsEmpty());
  EXPECT_EQ(file->text(COLUMN), "");
  fake->sendSnapshot(urlOf(root));
  EXPECT_TRUE(becomes(*file, {SYNCED}));
}

TEST_F(VORNET_TABS_SUITE, AFileThatTheFileManagerNoLongerWaitsForIsForgotten) {
  const auto file = waitingFile();
  file->unwatch();
  EXPECT_EQ(file->otherReferences(), 0u);
  fake->sendSnapshot(urlOf(root));
  const auto other = host->watchedFile(root + "/other");
  EXPECT_TRUE(runUntil([&] { return other->text(COLUMN) == ""; }));
  EXPECT_THAT(file->emblems(), IsEmpty());
}

TEST_F(VORNET_TABS_SUITE, IsUnloadedWhileAFileWaits) {
  const auto file = waitingFile();
  host->unload();
  EXPECT_EQ(file->otherReferences(), 0u);
  EXPECT_TRUE(runUntil([&] { return !fake->clientIsConnected(); }));
}

// --- Coming back ----------------------------------------------------------------------------------------------------

TEST_F(VORNET_TABS_SUITE, AFolderThatTheUserComesBackToLaterIsAskedForAgain) {
  const auto tab = window->open(url());
  const auto file = syncedFile("file");
  window->go(tab, url("folder"));
  file->unwatch();
  ASSERT_TRUE(observes({{root + "/folder", 1}}));
  setBadge("file", "PENDING");
  ASSERT_TRUE(runUntil([&] { return !file->isValid(); })) << "the file manager is to ask when it comes back";
  window->go(tab, url());
  file->watch();
  EXPECT_TRUE(becomes(*file, {PENDING}));
}

TEST_F(VORNET_TABS_SUITE, AFolderThatTheUserComesBackToAtOnceIsShownAsItIsNow) {
  const auto tab = window->open(url());
  const auto file = syncedFile("file");
  window->go(tab, url("folder"));
  ASSERT_TRUE(observes({{root + "/folder", 1}}));
  setBadge("file", "PENDING");
  window->go(tab, url());
  EXPECT_TRUE(becomes(*file, {PENDING}));
  setBadge("file", "SYNCED");
  EXPECT_TRUE(becomes(*file, {SYNCED})) << "and changes arrive again";
}

TEST_F(VORNET_TABS_SUITE, ATabInTheBackgroundKeepsItsEmblemsAndSendsNoRequest) {
  const auto tab = window->open(url());
  const auto file = syncedFile("file");
  window->sendToBack(tab);
  const auto front = window->open(url("folder"));
  ASSERT_TRUE(observes({{root + "/folder", 1}}));
  setBadge("file", "PENDING");
  const auto before = asked().size();
  file->ask();  // it changed on the disk
  EXPECT_THAT(file->emblems(), ElementsAre(SYNCED));
  const auto other = syncedFile("folder/other");
  ASSERT_TRUE(runUntil([&] { return asked().size() > before; })) << "a question would have come before";
  window->go(front, url("third"));
  ASSERT_TRUE(observes({{root + "/third", 1}}));
  EXPECT_THAT(asked(before), ElementsAre(urlOf(root + "/folder/other")));
  EXPECT_EQ(begun(root), 1);
}

TEST_F(VORNET_TABS_SUITE, ATabThatComesToTheFrontShowsWhatHasChangedAndNeverLosesAnEmblemMeanwhile) {
  const auto tab = window->open(url());
  const auto changed = syncedFile("changed"), same = syncedFile("same");
  window->sendToBack(tab);
  ASSERT_TRUE(observes({}));
  setBadge("changed", "PENDING");
  bool lost = false;
  window->bringToFront(tab);
  ASSERT_TRUE(runUntil([&] {
    lost = lost || changed->emblems().empty() || same->emblems().empty();
    return changed->emblems() == std::vector<std::string>{PENDING};
  }));
  EXPECT_FALSE(lost);
  EXPECT_THAT(same->emblems(), ElementsAre(SYNCED));
}

TEST_F(VORNET_TABS_SUITE, ATabThatComesToTheFrontLosesOutdatedEmblems) {
  const auto tab = window->open(url());
  const auto file = syncedFile("file");
  window->sendToBack(tab);
  ASSERT_TRUE(observes({}));
  setBadge("file", "");
  window->bringToFront(tab);
  EXPECT_TRUE(becomes(*file, {}));
}

TEST_F(VORNET_TABS_SUITE, FilesThatAreGoneWhenTheUserComesBackAreForgotten) {
  const auto tab = window->open(url());
  auto gone = syncedFile("gone");
  const auto file = syncedFile("file");
  EXPECT_EQ(gone->otherReferences(), 0u);
  window->sendToBack(tab);
  ASSERT_TRUE(observes({}));
  gone.reset();
  setBadge("file", "PENDING");
  const auto before = asked().size();
  window->bringToFront(tab);
  EXPECT_TRUE(becomes(*file, {PENDING}));
  EXPECT_THAT(asked(before), ElementsAre(urlOf(root + "/file")));
}

}  // namespace
