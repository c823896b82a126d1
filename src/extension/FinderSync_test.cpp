#include "extension/FinderSync.hpp"

#include <gmock/gmock.h>

#include <filesystem>

#include "extension/SharedObjects.hpp"
#include "logging/Logging.hpp"
#include "platform/linux/FinderSyncHost.hpp"
#include "platform/linux/Host.hpp"
#include "rest/RESTPollingManager.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/LogRecorder.hpp"
#include "support/LoopbackServer.hpp"

namespace vornet {
namespace {

using platform::FIFinderSyncController;
using platform::FileURL;
using platform::FIMenuKind;
using platform::Image;
using test::LogRecorder;
using test::LoopbackServer;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace host = platform::host;

FileURL url(const std::string& path) {
  return FileURL::fileURLWithPath(path);
}

class FinderSyncTest : public testing::Test {
 protected:
  FinderSyncTest() {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    std::filesystem::create_directories(root + "/d");
    for (const char* name : {"/x", "/y", "/z", "/unlisted"}) test::writeFile(root + name, "");
  }
  ~FinderSyncTest() override {
    if (statusManager()) statusManager()->stop_listener();
    statusManager().reset();
  }

  void configure() const { test::writePreferences(environment.container() / "VornetKelvane.plist", root); }
  void initConfigured() {
    configure();
    ASSERT_TRUE(sync.init());
  }
  FileURL item(const std::string& name) const { return url(root + "/" + name); }
  std::vector<FileURL> items(const std::vector<std::string>& names) const {
    std::vector<FileURL> result;
    for (const auto& name : names) result.push_back(item(name));
    return result;
  }

  /// The badge that a request for `name` sets; none when it sets none.
  std::optional<std::string> badgeRequested(const std::string& name) {
    const auto asked = item(name);
    const host::BadgeRequest request(asked);
    sync.requestBadgeIdentifierForURL(asked);
    return request.answer();
  }

  void serve(const std::string& body) {
    server.emplace([body](const test::WireRequest&) { return test::WireReply{.body = body}; });
  }
  std::vector<std::string> bodies() const {
    std::vector<std::string> result;
    for (const auto& request : server->requests()) result.push_back(request.body);
    return result;
  }

  std::optional<platform::ContextMenu> menuFor(const std::vector<std::string>& names,
                                               FIMenuKind kind = FIMenuKind::contextualMenuForItems) {
    const auto selection = items(names);
    const host::Selection selected(selection);
    return sync.menuForMenuKind(kind);
  }
  /// The titles of the menu's enabled entries.
  std::vector<std::string> enabledTitles(const std::vector<std::string>& names) {
    std::vector<std::string> titles;
    const auto menu = menuFor(names);
    if (!menu) return {"no menu"};
    EXPECT_EQ(menu->items.size(), 5u);
    for (const auto& entry : menu->items)
      if (entry.enabled) titles.push_back(entry.title);
    return titles;
  }
  void perform(void (FinderSync::*action)(), const std::vector<std::string>& names) {
    const auto selection = items(names);
    const host::Selection selected(selection);
    (sync.*action)();
  }

  test::Environment environment;
  const std::string root = environment.folder() / "root";
  LogRecorder log;
  std::optional<LoopbackServer> server;
  FinderSync sync;
};

using FinderSyncDeathTest = FinderSyncTest;

// --- Construction ---------------------------------------------------------------------------------------------------

TEST_F(FinderSyncTest, TheFirstControllerSetsUpLoggingAndTheManagerThenBadgesThenTheSyncedFolder) {
  initConfigured();
  ASSERT_TRUE(statusManager());
  EXPECT_EQ(statusManager()->finderSync(), &sync);
  EXPECT_TRUE(statusManager()->running());
  std::vector<std::string> messages;
  for (const auto& record : log.records())
    if (record.logLevel == LogLevel::Info && !record.functionName.empty()) messages.push_back(record.logMessage);
  EXPECT_THAT(messages, ElementsAre("Logger initialized on level: INFO", "Starting REST status polling",
                                    "Started new status manager", "Initialized Kevlane Finder plugin for path " + root,
                                    "Finder plugin enabled"));
  EXPECT_THAT(FIFinderSyncController::defaultController().directoryURLs(), ElementsAre(url(root)));
}

TEST_F(FinderSyncTest, RegistersTheThreeBadgesInOrder) {
  ASSERT_TRUE(sync.init());
  std::vector<std::string> badges;
  for (const auto& badge : host::registeredBadges())
    badges.push_back(badge.identifier + ", " + badge.label + ", " + badge.image.name());
  EXPECT_THAT(badges, ElementsAre("SKIPPED, Not synced, error", "PENDING, Sync in progress, sync",
                                  "SYNCED, Synced, checkmark"));
}

TEST_F(FinderSyncTest, UnconfiguredItComesToLifeAndStaysIdle) {
  ASSERT_TRUE(sync.init());
  EXPECT_EQ(log.count(LogLevel::Info, "Skipping initialization, Kevlane not configured"), 1u);
  EXPECT_THAT(FIFinderSyncController::defaultController().directoryURLs(), IsEmpty());
}

TEST_F(FinderSyncTest, ASecondControllerRegistersTheBadgesAgainAndMakesNoSecondManager) {
  initConfigured();
  const auto manager = statusManager();
  auto& controller = FIFinderSyncController::defaultController();
  for (const auto& badge : host::registeredBadges()) controller.setBadgeImage(Image(), "overwritten", badge.identifier);
  log.clear();

  FinderSync second;
  ASSERT_TRUE(second.init());
  EXPECT_EQ(statusManager(), manager);
  EXPECT_EQ(manager->finderSync(), &sync) << "the manager keeps its link to the controller that made it";
  EXPECT_THAT(log.messages(), Not(Contains("Started new status manager")));
  EXPECT_THAT(log.messages(), Not(Contains("Logger initialized on level: INFO")));
  for (const auto& badge : host::registeredBadges()) EXPECT_NE(badge.label, "overwritten");
}

TEST_F(FinderSyncTest, APlatformThatGivesNoObjectGivesNoControllerAndSetsNothingUp) {
  struct Refused : FinderSync {
    bool initBase() override { return false; }
  } refused;
  EXPECT_FALSE(refused.init());
  EXPECT_FALSE(statusManager());
  EXPECT_THAT(host::registeredBadges(), IsEmpty());
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(FinderSyncTest, WithAnotherExtensionRunningTheProcessEndsWithStatus0BeforeAnythingIsSetUp) {
  testing::GTEST_FLAG(death_test_style) = "fast";  // in the folders of this process
  configure();
  EXPECT_EXIT(
      {
        host::setOtherRunningApplications({1});
        sync.init();
      },
      testing::ExitedWithCode(0), "VornetVIExt already running");
  EXPECT_FALSE(std::filesystem::exists(environment.logFile()));
  EXPECT_TRUE(sync.init()) << "alone";
}

TEST_F(FinderSyncDeathTest, AMissingBadgeImageStopsTheProcess) {
  host::setMainBundle({.identifier = "", .version = "", .build = "", .imageFolders = {}});
  EXPECT_DEATH(sync.init(), "missing image resource: error");
}

TEST_F(FinderSyncTest, HoldsItsOwnClient) {
  sync.setClient(RESTClient());
  static_cast<void>(sync.client());
  EXPECT_TRUE(sync.init());
}

// --- Observing ------------------------------------------------------------------------------------------------------

TEST_F(FinderSyncTest, EnablingReplacesTheObservedFoldersAndDisablingEmptiesThem) {
  const auto& finder = FIFinderSyncController::defaultController();
  sync.enableVI({url("/a"), url("/b")});
  EXPECT_THAT(finder.directoryURLs(), ElementsAre(url("/a"), url("/b")));
  sync.enableVI({url("/c")});
  EXPECT_THAT(finder.directoryURLs(), ElementsAre(url("/c")));
  sync.disableVI();
  EXPECT_THAT(finder.directoryURLs(), IsEmpty());
}

TEST_F(FinderSyncTest, BeginningAndEndingToObserveReachTheManagerAndTheLog) {
  initConfigured();
  sync.beginObservingDirectoryAtURL(item("d"));
  EXPECT_EQ(log.count(LogLevel::Info, "Directory enter: " + root + "/d"), 1u);
  EXPECT_THAT(statusManager()->currentDirs(), ElementsAre(root + "/d"));
  sync.endObservingDirectoryAtURL(item("d"));
  EXPECT_EQ(log.count(LogLevel::Info, "Directory exit: " + root + "/d"), 1u);
  EXPECT_THAT(statusManager()->currentDirs(), IsEmpty());
}

TEST_F(FinderSyncDeathTest, ObservingAURLWithoutAPathStopsTheProcess) {
  initConfigured();
  EXPECT_DEATH(sync.beginObservingDirectoryAtURL(FileURL()), "without a path");
  EXPECT_DEATH(sync.endObservingDirectoryAtURL(FileURL()), "without a path");
}

TEST_F(FinderSyncDeathTest, CallbacksWithoutAStatusManagerStopTheProcess) {
  EXPECT_DEATH(sync.beginObservingDirectoryAtURL(item("d")), "no status manager");
  EXPECT_DEATH(sync.endObservingDirectoryAtURL(item("d")), "no status manager");
  EXPECT_DEATH(sync.requestBadgeIdentifierForURL(item("x")), "no status manager");
  EXPECT_DEATH(sync.menuForMenuKind(FIMenuKind::contextualMenuForItems), "no status manager");
}

// --- Badges ---------------------------------------------------------------------------------------------------------

TEST_F(FinderSyncTest, ABadgeRequestIsAnsweredBeforeItReturns) {
  test::makeSyncDatabase(environment.container() / "sync.db", {{"/x", 2}, {"/y", 1}, {"/d/", 0}, {"/z", 7}});
  initConfigured();
  EXPECT_EQ(badgeRequested("x"), "SYNCED");
  EXPECT_EQ(badgeRequested("y"), "PENDING");
  EXPECT_EQ(badgeRequested("d"), "SKIPPED");
  EXPECT_EQ(badgeRequested("z"), std::nullopt) << "an unknown code leaves the badge as it was";
  EXPECT_EQ(badgeRequested("unlisted"), "") << "code -1 clears the badge";
  EXPECT_EQ(log.count(LogLevel::Debug, "Requesting ICON for " + root + "/x"), 1u);
}

TEST_F(FinderSyncTest, NoCodeLeavesTheBadgeOfARequestAsItWas) {
  initConfigured();
  statusManager()->dirCache().enterNewDir("/");
  statusManager()->dirCache().update("/", {{"/x", 2}});
  EXPECT_EQ(badgeRequested("x"), "SYNCED");
  EXPECT_EQ(badgeRequested("y"), std::nullopt);
}

TEST_F(FinderSyncTest, APushedStatusSetsItsBadgeAndAnUnknownOneClearsIt) {
  ASSERT_TRUE(sync.init());
  host::folderShown(root);
  for (const auto& [code, badge] : std::vector<std::pair<std::int64_t, std::string>>{
           {0, "SKIPPED"}, {1, "PENDING"}, {2, "SYNCED"}, {7, ""}, {2, "SYNCED"}, {-1, ""}, {2, "SYNCED"}, {-2, ""}}) {
    sync.setFileSyncStatus(item("x"), code);
    EXPECT_EQ(host::badgeIdentifier(item("x")), badge) << code;
  }
}

TEST_F(FinderSyncTest, OnlyTheFirstFillOfAFolderHasItsBadgesAskedForAgain) {
  struct Invalidations : host::Listener {
    Invalidations() { host::setListener(this); }
    ~Invalidations() override { host::setListener(nullptr); }
    bool badgeChanged(const FileURL&, const std::string&) override { return true; }
    void badgeAnswered(const FileURL&, const std::string&) override {}
    void badgesInvalidated(const FileURL& folder) override { folders.push_back(folder); }
    void directoriesChanged() override {}
    std::vector<FileURL> folders;
  } invalidated;
  sync.folderFilled(item("d"), true);
  EXPECT_THAT(invalidated.folders, ElementsAre(item("d")));
  sync.folderFilled(item("d"), false);
  EXPECT_THAT(invalidated.folders, ElementsAre(item("d")));
}

TEST_F(FinderSyncTest, ReportsSinceWhenTheSyncApplicationHasBeenSilent) {
  std::mutex lock;
  std::vector<std::optional<platform::Date>> reports;
  sync.setAnswerListener([&](const auto& silentSince) {
    const std::lock_guard guard(lock);
    reports.push_back(silentSince);
  });
  serve("{}");
  initConfigured();
  sync.beginObservingDirectoryAtURL(url(root));
  ASSERT_TRUE(log.waitFor(LogLevel::Debug, "Updated: [:]"));
  server.reset();
  const auto before = std::chrono::system_clock::now();
  sync.beginObservingDirectoryAtURL(item("d"));  // makes the manager ask at once, for both folders
  ASSERT_TRUE(log.waitFor(LogLevel::Warning, "Skipping get_icons_for_fodler, ds not connected"));
  const auto after = std::chrono::system_clock::now();
  menuFor({"d"});
  sync.setAnswerListener(nullptr);
  ASSERT_GE(reports.size(), 3U);
  EXPECT_EQ(reports.front(), std::nullopt);
  ASSERT_TRUE(reports.back());
  EXPECT_GE(*reports.back(), before);
  EXPECT_LE(*reports.back(), after) << "the menu's failure is not the first";
}

TEST_F(FinderSyncTest, ABadgeRequestForAURLWithoutPathIsIgnoredAfterTheLogLine) {
  const FileURL nothing;
  const host::BadgeRequest request(nothing);
  sync.requestBadgeIdentifierForURL(nothing);  // also without a status manager
  EXPECT_EQ(request.answer(), std::nullopt);
  EXPECT_THAT(log.messages(LogLevel::Debug), ElementsAre("Requesting ICON for nil"));
}

// --- Menu -----------------------------------------------------------------------------------------------------------

TEST_F(FinderSyncTest, TheMenuHasFiveEntriesInOrderWithTheProductImage) {
  initConfigured();
  serve(R"({"1":true,"2":true,"3":true,"4":true,"5":true})");
  const auto menu = menuFor({"x"});
  ASSERT_TRUE(menu);
  std::vector<std::string> entries;
  for (const auto& entry : menu->items)
    entries.push_back(entry.title + ", " + entry.action + ", " + entry.image.name() +
                      (entry.enabled ? "" : ", disabled"));
  EXPECT_THAT(entries, ElementsAre("Share, share:, QMT", "Copy Link, copyLink:, QMT", "Comments, notes:, QMT",
                                   "View versions, viewVersions:, QMT", "View in Cloud, viewInCloud:, QMT"));
}

TEST_F(FinderSyncTest, EachKeyEnablesItsOwnEntry) {
  initConfigured();
  const std::pair<const char*, const char*> keys[] = {
      {"1", "Share"}, {"2", "Copy Link"}, {"3", "View in Cloud"}, {"4", "Comments"}, {"5", "View versions"}};
  for (const auto& [key, title] : keys) {
    serve("{\"" + std::string(key) + "\":true}");
    EXPECT_THAT(enabledTitles({"x"}), ElementsAre(title));
  }
}

TEST_F(FinderSyncTest, AbsentAndFalseKeysDisableTheirEntries) {
  initConfigured();
  serve(R"({"1": true, "3": false})");
  EXPECT_THAT(enabledTitles({"x"}), ElementsAre("Share"));
}

TEST_F(FinderSyncTest, TheMenuAsksForTheSelectionsCloudPathsAndLogsTheAnswer) {
  initConfigured();
  serve(R"({"1":true,"3":false})");
  enabledTitles({"x", "gone", "d"});
  ASSERT_EQ(server->requests().size(), 1u);
  EXPECT_EQ(server->requests()[0].target, "/mac_populate_menu");
  EXPECT_EQ(server->requests()[0].body, R"({"paths":["/x","/d/"]})");
  EXPECT_EQ(log.count(LogLevel::Debug, "Menu kind: FIMenuKind(rawValue: 0)"), 1u);
  EXPECT_EQ(log.count(LogLevel::Debug, R"(File menu activation status: ["1": true, "3": false])"), 1u);
}

TEST_F(FinderSyncTest, WithoutSyncApplicationTheMenuIsShownWithAllEntriesDisabled) {
  initConfigured();
  EXPECT_THAT(enabledTitles({"x"}), IsEmpty());
  EXPECT_EQ(log.count(LogLevel::Debug, "File menu activation status: [:]"), 1u);
}

TEST_F(FinderSyncTest, OnlyTheMenuOfSelectedItemsIsOffered) {
  initConfigured();
  serve("{}");
  for (const auto kind :
       {FIMenuKind::contextualMenuForContainer, FIMenuKind::contextualMenuForSidebar, FIMenuKind::toolbarItemMenu}) {
    EXPECT_EQ(menuFor({"x"}, kind), std::nullopt);
  }
  EXPECT_THAT(bodies(), IsEmpty());
}

TEST_F(FinderSyncTest, UnconfiguredNoMenuIsOfferedAndNothingIsSent) {
  ASSERT_TRUE(sync.init());
  serve("{}");
  EXPECT_EQ(menuFor({"x"}), std::nullopt);
  EXPECT_THAT(bodies(), IsEmpty());
}

TEST_F(FinderSyncDeathTest, AMenuOrActionWithoutSelectionStopsTheProcess) {
  initConfigured();
  EXPECT_DEATH(sync.menuForMenuKind(FIMenuKind::contextualMenuForItems), "no selection");
  EXPECT_DEATH(sync.share(), "no selection");
}

TEST_F(FinderSyncDeathTest, AnActionWithoutSyncedFolderStopsTheProcess) {
  ASSERT_TRUE(sync.init());
  EXPECT_DEATH(perform(&FinderSync::copyLink, {"x"}), "without a synced folder");
}

// --- Actions --------------------------------------------------------------------------------------------------------

class FinderSyncActionTest : public FinderSyncTest {
 protected:
  FinderSyncActionTest() {
    initConfigured();
    serve("{}");
    log.clear();
  }
};

TEST_F(FinderSyncActionTest, ShareAndCopyLinkSendAnyNumberOfItemsAlsoNone) {
  perform(&FinderSync::share, {"x", "y"});
  perform(&FinderSync::copyLink, {"d"});
  perform(&FinderSync::share, {"gone"});
  perform(&FinderSync::copyLink, {});
  EXPECT_THAT(bodies(), ElementsAre(R"({"uid":"1","paths":["/x","/y"]})", R"({"uid":"2","paths":["/d/"]})",
                                    R"({"uid":"1","paths":[]})", R"({"uid":"2","paths":[]})"));
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(FinderSyncActionTest, CommentsAndVersionsInsistOnExactlyOneItem) {
  perform(&FinderSync::notes, {"x"});
  perform(&FinderSync::viewVersions, {"y", "gone"});
  EXPECT_THAT(bodies(), ElementsAre(R"({"uid":"4","paths":["/x"]})", R"({"uid":"5","paths":["/y"]})"));
  EXPECT_THAT(log.messages(), IsEmpty());

  perform(&FinderSync::notes, {"x", "y"});
  perform(&FinderSync::notes, {});
  perform(&FinderSync::viewVersions, {"x", "y", "d"});
  perform(&FinderSync::viewVersions, {"gone"});
  EXPECT_EQ(bodies().size(), 2u);
  EXPECT_THAT(log.messages(LogLevel::Debug),
              ElementsAre("Unable to view notes, 2 files selected", "Unable to view notes, 0 files selected",
                          "Unable to view versions, 3 files selected", "Unable to view versions, 0 files selected"));
}

TEST_F(FinderSyncActionTest, ViewInCloudRefusesOnlyAnEmptySelectionAndSilently) {
  perform(&FinderSync::viewInCloud, {"x", "d"});
  EXPECT_THAT(bodies(), ElementsAre(R"({"uid":"3","paths":["/x","/d/"]})"));
  EXPECT_THAT(log.messages(LogLevel::Debug), ElementsAre(R"(View in cloud triggered for: ["/x", "/d/"])"));
  log.clear();
  perform(&FinderSync::viewInCloud, {"gone", "vanished"});
  perform(&FinderSync::viewInCloud, {});
  EXPECT_EQ(bodies().size(), 1u);
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(FinderSyncActionTest, LogLinesNameTheSourceFileFinderSyncAndTheOperation) {
  enabledTitles({"x"});
  perform(&FinderSync::viewInCloud, {"x"});
  perform(&FinderSync::notes, {});
  perform(&FinderSync::viewVersions, {});
  std::vector<std::string> functions;
  for (const auto& record : log.records())
    if (std::filesystem::path(record.fileName).stem() == "FinderSync") functions.push_back(record.functionName);
  EXPECT_THAT(functions, ElementsAre("menuForMenuKind", "menuForMenuKind", "viewInCloud", "notes", "viewVersions"));
}

// --- Selectors ------------------------------------------------------------------------------------------------------

TEST_F(FinderSyncActionTest, EveryMenuActionIsPerformedByItsSelector) {
  const auto selection = items({"x"});
  const host::Selection selected(selection);
  for (const char* selector : {"share:", "copyLink:", "viewInCloud:", "notes:", "viewVersions:"}) {
    EXPECT_TRUE(FinderSync::isMenuAction(selector));
    sync.performSelector(selector, {SelectorObject()});
  }
  EXPECT_THAT(bodies(), ElementsAre(R"({"uid":"1","paths":["/x"]})", R"({"uid":"2","paths":["/x"]})",
                                    R"({"uid":"3","paths":["/x"]})", R"({"uid":"4","paths":["/x"]})",
                                    R"({"uid":"5","paths":["/x"]})"));
}

TEST_F(FinderSyncActionTest, EveryCallbackIsPerformedByItsSelector) {
  auto& finder = FIFinderSyncController::defaultController();
  sync.performSelector("beginObservingDirectoryAtURL:", {SelectorObject(item("d"))});
  EXPECT_THAT(statusManager()->currentDirs(), ElementsAre(root + "/d"));
  sync.performSelector("endObservingDirectoryAtURL:", {SelectorObject(item("d"))});
  EXPECT_THAT(statusManager()->currentDirs(), IsEmpty());

  host::folderShown(root);
  sync.performSelector("setFileSyncStatus:status:", {SelectorObject(item("x")), SelectorObject(std::int64_t{1})});
  EXPECT_EQ(host::badgeIdentifier(item("x")), "PENDING");
  statusManager()->dirCache().enterNewDir("/");
  statusManager()->dirCache().update("/", {{"/x", 2}});
  sync.performSelector("requestBadgeIdentifierForURL:", {SelectorObject(item("x"))});
  EXPECT_EQ(host::badgeIdentifier(item("x")), "SYNCED");

  const auto selection = items({"x"});
  const host::Selection selected(selection);
  using OptionalMenu = std::optional<platform::ContextMenu>;
  EXPECT_TRUE(std::get<OptionalMenu>(sync.performSelector("menuForMenuKind:", {SelectorObject(std::int64_t{0})})));
  EXPECT_FALSE(std::get<OptionalMenu>(sync.performSelector("menuForMenuKind:", {SelectorObject(std::int64_t{1})})));

  sync.performSelector("enableVI:", {std::vector<SelectorObject>{url("/a"), url("/b")}});
  EXPECT_THAT(finder.directoryURLs(), ElementsAre(url("/a"), url("/b")));
  sync.performSelector("disableVI");
  EXPECT_THAT(finder.directoryURLs(), IsEmpty());
}

TEST_F(FinderSyncTest, TheToolbarItemIsPresentAndEmpty) {
  EXPECT_EQ(std::get<std::string>(sync.performSelector("toolbarItemName")), "");
  EXPECT_EQ(std::get<std::string>(sync.performSelector("toolbarItemToolTip")), "");
  EXPECT_TRUE(std::get<Image>(sync.performSelector("toolbarItemImage")).isEmpty());
}

TEST_F(FinderSyncTest, RespondsToItsSelectorsAndToNoOthers) {
  for (const char* selector :
       {"setFileSyncStatus:status:", "disableVI", "enableVI:", "beginObservingDirectoryAtURL:",
        "endObservingDirectoryAtURL:", "requestBadgeIdentifierForURL:", "toolbarItemName", "toolbarItemToolTip",
        "toolbarItemImage", "menuForMenuKind:", "viewInCloud:", "notes:", "viewVersions:", "share:", "copyLink:"}) {
    EXPECT_TRUE(FinderSync::respondsToSelector(selector)) << selector;
  }
  for (const char* selector : {"", "share", "Share:", "enableVI", "disableVI:", "init:"})
    EXPECT_FALSE(FinderSync::respondsToSelector(selector)) << selector;
  EXPECT_FALSE(FinderSync::isMenuAction("enableVI:"));
  EXPECT_FALSE(FinderSync::isMenuAction("share"));
}

TEST_F(FinderSyncDeathTest, UnknownSelectorsAndArgumentsOfAnotherKindStopTheProcess) {
  EXPECT_DEATH(sync.performSelector("share"), "unknown selector: share");
  EXPECT_DEATH(sync.performSelector("setFileSyncStatus:status:", {SelectorObject(url("/a"))}), "not a number");
  EXPECT_DEATH(sync.performSelector("enableVI:", {SelectorObject(url("/a"))}), "takes a set");
  EXPECT_DEATH(sync.performSelector("enableVI:", {std::vector<SelectorObject>{url("/a"), std::string("/b")}}),
               "an element that is not a URL");
}

}  // namespace
}  // namespace vornet
