// The extension as the Finder meets it: the principal class by the name in the bundle's property list, every callback
// and action by its selector. The classes of the host are not included: what is misspelt there is missing here.
#import <FinderSync/FinderSync.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <objc/runtime.h>

#include <algorithm>
#include <regex>
#include <thread>

#include "Finder.hpp"
#include "SyncApplication.hpp"
#include "base/AppConst.hpp"
#include "platform/Foundation.hpp"
#include "support/Databases.hpp"
#include "support/TemporaryFolder.hpp"

@protocol VornetOperations
- (void)setFileSyncStatus:(NSURL*)url status:(NSInteger)status;
- (void)enableVI:(NSSet*)dirs;
- (void)disableVI;
@end

namespace {

namespace fs = std::filesystem;
namespace standin = vornet::standin;
using standin::Badge;
using testing::ElementsAre;
using testing::IsEmpty;
using vornet::test::SyncApplication;

NSString* string(const std::string& text) {
  return [NSString stringWithUTF8String:text.c_str()];
}

std::string text(NSString* string) {
  return string ? [string UTF8String] : "(nil)";
}

NSURL* fileURL(const fs::path& path) {
  return [NSURL fileURLWithPath:string(path)];
}

/// Runs `body` on a thread that the platform has not seen before, as the Finder's callbacks may come on.
template <class Body>
void onThreadOfTheFinder(Body body) {
  std::thread([&] {
    @autoreleasepool {
      body();
    }
  }).join();
}

NSDictionary* extensionKeys() {
  return [[NSBundle mainBundle] objectForInfoDictionaryKey:@"NSExtension"];
}

class MacExtension : public testing::Test {
 protected:
  MacExtension() {
    standin::setGroupContainers(folder_ / "containers");
    fs::create_directories(container());
    fs::create_directories(root() / "Å b");
    for (const char* name : {"synced", "failing", "strange", "Å b/1", "Å b/2"})
      vornet::test::writeFile(root() / name, "");
    vornet::test::makeSyncDatabase(container() / vornet::App().SYNC_DB_NAME,
                                   {{"/synced", 2}, {"/failing", 0}, {"/strange", 7}, {"/none", -1}});
  }
  ~MacExtension() override { standin::setSelection(std::nullopt); }

  fs::path root() const { return folder_.path() / "Kelvane"; }
  fs::path container() const { return folder_.path() / "containers" / vornet::App().APP_GROUP; }

  void configure() const { vornet::test::writePreferences(container() / vornet::App().KELVANE_PLIST, root()); }

  /// The principal object, made as the system makes it. It lives on: the status manager keeps calling it.
  static id<FIFinderSync> makePrincipalObject() {
    Class principal = NSClassFromString([extensionKeys() objectForKey:@"NSExtensionPrincipalClass"]);
    return [[principal alloc] init];
  }

  /// The principal object of an extension whose sync application has told it of its folder.
  id<FIFinderSync> makeConfigured() const {
    configure();
    return makePrincipalObject();
  }

  void select(const std::vector<std::string>& names) const {
    std::vector<std::string> paths;
    for (const auto& name : names) paths.push_back(root() / name);
    standin::setSelection(paths);
  }

  /// The lines of the log file, without their dates.
  std::vector<std::string> logLines() const {
    static const std::regex date(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )");
    std::vector<std::string> lines;
    std::istringstream log(vornet::test::readFile(container() / "log" / vornet::App().LOG_FILE));
    for (std::string line; std::getline(log, line);) {
      EXPECT_TRUE(std::regex_search(line, date)) << line;
      lines.push_back(std::regex_replace(line, date, ""));
    }
    return lines;
  }

 private:
  vornet::platform::AutoreleasePool pool_;
  vornet::test::TemporaryFolder folder_;
};

TEST_F(MacExtension, ThePropertyListNamesAPrincipalClassThatTheFrameworkTakes) {
  EXPECT_EQ(text([extensionKeys() objectForKey:@"NSExtensionPointIdentifier"]), "com.apple.FinderSync");
  Class principal = NSClassFromString([extensionKeys() objectForKey:@"NSExtensionPrincipalClass"]);
  ASSERT_TRUE(principal);
  EXPECT_TRUE([principal isSubclassOfClass:[FIFinderSync class]]);
}

TEST_F(MacExtension, ThePrincipalClassAnswersEverySelectorItself) {
  Class principal = NSClassFromString([extensionKeys() objectForKey:@"NSExtensionPrincipalClass"]);
  for (NSString *name in
       [NSArray arrayWithObjects:@"init", @"setFileSyncStatus:status:", @"enableVI:", @"disableVI",
                                 @"beginObservingDirectoryAtURL:", @"endObservingDirectoryAtURL:",
                                 @"requestBadgeIdentifierForURL:", @"menuForMenuKind:", @"toolbarItemName",
                                 @"toolbarItemToolTip", @"toolbarItemImage",
                                 @"share:", @"copyLink:", @"notes:", @"viewVersions:", @"viewInCloud:", nil]) {
    const SEL selector = NSSelectorFromString(name);
    EXPECT_TRUE([principal instancesRespondToSelector:selector]) << text(name);
    EXPECT_NE([principal instanceMethodForSelector:selector], [FIFinderSync instanceMethodForSelector:selector])
        << text(name);
  }
}

TEST_F(MacExtension, ConstructionRegistersTheBadgesInOrderAndObservesTheSyncedFolder) {
  ASSERT_TRUE(makeConfigured());
  EXPECT_THAT(standin::events(),
              ElementsAre("init", "badge SKIPPED 'Not synced' error", "badge PENDING 'Sync in progress' sync",
                          "badge SYNCED 'Synced' checkmark", "directories"));
  EXPECT_THAT(standin::observedFolders(), ElementsAre(root().string() + "/"));
  EXPECT_THAT(standin::askedApplications(), ElementsAre(vornet::App().APP_CODENAME));
  EXPECT_EQ(text([[NSBundle mainBundle] bundleIdentifier]), vornet::App().APP_CODENAME);
}

TEST_F(MacExtension, ASecondCopyEndsItselfBeforeAnythingIsSetUp) {
  standin::setRunningApplications(2);
  EXPECT_EXIT(makePrincipalObject(), testing::ExitedWithCode(0), "VornetVIExt already running");
  EXPECT_FALSE(fs::exists(container() / "log"));
}

TEST_F(MacExtension, NoPrincipalObjectIsMadeWhenTheFrameworkGivesNone) {
  standin::refuseConstruction();
  EXPECT_FALSE(makePrincipalObject());
  EXPECT_THAT(standin::events(), ElementsAre("init"));
}

TEST_F(MacExtension, StaysIdleWithoutPreferences) {
  id<FIFinderSync> extension = makePrincipalObject();
  ASSERT_TRUE(extension);
  EXPECT_THAT(standin::observedFolders(), IsEmpty());
  EXPECT_FALSE([extension menuForMenuKind:FIMenuKindContextualMenuForItems]);
  EXPECT_EQ(logLines().back(),
            "[Info] [RESTPollingManager] setupLocalRoot: Skipping initialization, Kevlane not configured");
}

TEST_F(MacExtension, StopsWithoutAGroupContainer) {
  standin::setGroupContainers(std::nullopt);
  EXPECT_DEATH(makePrincipalObject(), "no group container");
}

TEST_F(MacExtension, WritesItsStartToTheLogFile) {
  makeConfigured();
  const std::string version = text([[NSBundle mainBundle] objectForInfoDictionaryKey:@"CFBundleShortVersionString"]);
  const std::string build = text([[NSBundle mainBundle] objectForInfoDictionaryKey:@"CFBundleVersion"]);
  const std::string process = std::to_string(::getpid());
  EXPECT_THAT(
      logLines(),
      ElementsAre("[Info] : VornetVIExt Version: " + version + " Build: " + build + " PID: " + process,
                  "[Info] : XCGLogger Version: 1.8.1 - LogLevel: Info",
                  "[Info] [Logging] setupLogger: Logger initialized on level: INFO",
                  "[Info] [RESTPollingManager] start_listener: Starting REST status polling",
                  "[Info] [FinderSync] init: Started new status manager",
                  "[Info] [RESTPollingManager] enableVI: Initialized Kevlane Finder plugin for path " + root().string(),
                  "[Info] [RESTPollingManager] setupLocalRoot: Finder plugin enabled"));
}

TEST_F(MacExtension, ASecondObjectRegistersTheBadgesAgainAndStartsNothing) {
  makeConfigured();
  const auto lines = logLines();
  ASSERT_TRUE(makePrincipalObject());
  EXPECT_THAT(standin::events(), testing::SizeIs(9));
  EXPECT_EQ(standin::events()[6], "badge SKIPPED 'Not synced' error");
  EXPECT_EQ(logLines(), lines);
}

TEST_F(MacExtension, AnswersBadgeRequestsFromTheSyncDatabase) {
  id<FIFinderSync> extension = makeConfigured();
  onThreadOfTheFinder([&] {
    for (const char* name : {"synced", "strange", "failing", "none", "absent"})
      [extension requestBadgeIdentifierForURL:fileURL(root() / name)];
  });
  // A status without a badge takes one away; an unknown status changes nothing.
  EXPECT_THAT(standin::badges(), ElementsAre(Badge("SYNCED", root() / "synced"), Badge("SKIPPED", root() / "failing"),
                                             Badge("", root() / "none"), Badge("", root() / "absent")));
}

TEST_F(MacExtension, AsksForTheStatusesOfAFolderOnScreenAndPushesWhatChanges) {
  SyncApplication application;
  application.answer("get_icons_for_folder", R"({"/Å b/1":1,"/Å b/2":2})");
  id<FIFinderSync> extension = makeConfigured();
  onThreadOfTheFinder([&] { [extension beginObservingDirectoryAtURL:fileURL(root() / "Å b")]; });
  const SyncApplication::Request request{"get_icons_for_folder", R"({"dir_name":"/Å b/"})"};
  ASSERT_TRUE(application.waitFor(request));

  application.answer("get_icons_for_folder", R"({"/Å b/1":2,"/Å b/2":7,"/Å b/3":0})");
  [extension beginObservingDirectoryAtURL:fileURL(root())];  // wakes the worker for another pass
  EXPECT_TRUE(standin::waitForBadge({"SYNCED", root() / "Å b/1"}));
  EXPECT_TRUE(standin::waitForBadge({"", root() / "Å b/2"}));
  EXPECT_TRUE(standin::waitForBadge({"SKIPPED", root() / "Å b/3"}));

  const auto before = standin::badges().size();
  [extension requestBadgeIdentifierForURL:fileURL(root() / "Å b/4")];  // known not to be there
  EXPECT_EQ(standin::badges().size(), before);
}

TEST_F(MacExtension, StopsAskingForAFolderThatLeftTheScreen) {
  SyncApplication application;
  application.answer("get_icons_for_folder", "{}");
  id<FIFinderSync> extension = makeConfigured();
  [extension beginObservingDirectoryAtURL:fileURL(root() / "Å b")];
  ASSERT_TRUE(application.waitFor({"get_icons_for_folder", R"({"dir_name":"/Å b/"})"}));
  onThreadOfTheFinder([&] { [extension endObservingDirectoryAtURL:fileURL(root() / "Å b")]; });

  const auto askedForFolder = [&] {
    const auto bodies = application.bodies("get_icons_for_folder");
    return std::count(bodies.begin(), bodies.end(), R"({"dir_name":"/Å b/"})");
  };
  [extension beginObservingDirectoryAtURL:fileURL(root())];
  ASSERT_TRUE(application.waitFor({"get_icons_for_folder", R"({"dir_name":"/"})"}));
  const auto before = askedForFolder();
  [extension beginObservingDirectoryAtURL:fileURL(root() / "c")];  // asked for after every longer path on screen
  ASSERT_TRUE(application.waitFor({"get_icons_for_folder", R"({"dir_name":"/c/"})"}));
  EXPECT_EQ(askedForFolder(), before);

  const auto lines = logLines();
  EXPECT_THAT(lines, testing::Contains("[Info] [FinderSync] beginObservingDirectoryAtURL: Directory enter: " +
                                       (root() / "Å b").string()));
  EXPECT_THAT(lines, testing::Contains("[Info] [FinderSync] endObservingDirectoryAtURL: Directory exit: " +
                                       (root() / "Å b").string()));
}

TEST_F(MacExtension, OffersTheMenuThatTheSyncApplicationEnables) {
  SyncApplication application;
  application.answer("mac_populate_menu", R"({"1":true,"3":false,"5":true})");
  id<FIFinderSync> extension = makeConfigured();
  select({"synced", "Å b", "vanished"});
  NSMenu* menu = [extension menuForMenuKind:FIMenuKindContextualMenuForItems];
  ASSERT_TRUE(menu);
  EXPECT_FALSE([menu autoenablesItems]);

  std::vector<std::string> entries;
  for (NSMenuItem* item in [menu itemArray]) {
    entries.push_back(text([item title]) + " " + text(NSStringFromSelector([item action])) + " " +
                      ([item isEnabled] ? "on " : "off ") + text([[item image] name]));
    EXPECT_FALSE([item target]);
  }
  EXPECT_THAT(entries, ElementsAre("Share share: on QMT", "Copy Link copyLink: off QMT", "Comments notes: off QMT",
                                   "View versions viewVersions: on QMT", "View in Cloud viewInCloud: off QMT"));
  EXPECT_THAT(application.bodies("mac_populate_menu"), ElementsAre(R"({"paths":["/synced","/Å b/"]})"));
}

TEST_F(MacExtension, OffersNoMenuForAnythingButSelectedItems) {
  SyncApplication application;
  id<FIFinderSync> extension = makeConfigured();
  select({"synced"});
  for (const FIMenuKind kind :
       {FIMenuKindContextualMenuForContainer, FIMenuKindContextualMenuForSidebar, FIMenuKindToolbarItemMenu}) {
    EXPECT_FALSE([extension menuForMenuKind:kind]) << kind;
  }
  EXPECT_THAT(application.requests(), IsEmpty());
}

TEST_F(MacExtension, EveryActionOfTheMenuReachesTheSyncApplication) {
  SyncApplication application;
  application.answer("mac_populate_menu", "{}");
  application.answer("select_context_menu", "{}");
  id<FIFinderSync> extension = makeConfigured();
  select({"synced"});
  onThreadOfTheFinder([&] {
    NSMenu* menu = [extension menuForMenuKind:FIMenuKindContextualMenuForItems];
    for (NSMenuItem* item in [menu itemArray]) [extension performSelector:[item action] withObject:item];
  });
  EXPECT_THAT(application.bodies("select_context_menu"),
              ElementsAre(R"({"uid":"1","paths":["/synced"]})", R"({"uid":"2","paths":["/synced"]})",
                          R"({"uid":"4","paths":["/synced"]})", R"({"uid":"5","paths":["/synced"]})",
                          R"({"uid":"3","paths":["/synced"]})"));
}

TEST_F(MacExtension, StopsWhenTheFinderGivesNoSelection) {
  EXPECT_DEATH([makeConfigured() menuForMenuKind:FIMenuKindContextualMenuForItems], "no selection");
}

TEST_F(MacExtension, TakesStatusesAndFoldersByMessage) {
  id extension = makeConfigured();
  [extension setFileSyncStatus:fileURL(root() / "synced") status:1];
  [extension setFileSyncStatus:fileURL(root() / "synced") status:7];
  EXPECT_THAT(standin::badges(), ElementsAre(Badge("PENDING", root() / "synced"), Badge("", root() / "synced")));

  [extension enableVI:[NSSet setWithObjects:[NSURL fileURLWithPath:@"/b" isDirectory:YES],
                                            [NSURL fileURLWithPath:@"/a" isDirectory:YES], nil]];
  EXPECT_THAT(standin::observedFolders(), ElementsAre("/a/", "/b/"));
  [extension disableVI];
  EXPECT_THAT(standin::observedFolders(), IsEmpty());
}

TEST_F(MacExtension, StopsWhenToldToObserveWhatIsNoURL) {
  EXPECT_DEATH([(id)makeConfigured() enableVI:[NSSet setWithObject:@"/a"]], "an element that is not a URL");
}

TEST_F(MacExtension, StopsWhenAnObservedFolderHasNoPath) {
  NSURL* none = nil;
  EXPECT_DEATH([makeConfigured() beginObservingDirectoryAtURL:none], "an observed folder without a path");
  EXPECT_DEATH([makeConfigured() endObservingDirectoryAtURL:none], "an observed folder without a path");
}

TEST_F(MacExtension, LeavesABadgeRequestWithoutAPathUnanswered) {
  NSURL* none = nil;
  [makeConfigured() requestBadgeIdentifierForURL:none];
  EXPECT_THAT(standin::badges(), IsEmpty());
}

TEST_F(MacExtension, HasAToolbarItemThatIsEmpty) {
  id<FIFinderSync> extension = makePrincipalObject();
  EXPECT_EQ(text([extension toolbarItemName]), "");
  EXPECT_EQ(text([extension toolbarItemToolTip]), "");
  NSImage* image = [extension toolbarItemImage];
  ASSERT_TRUE(image);
  EXPECT_EQ([[image representations] count], 0U);
  EXPECT_EQ([image name], nil);
}

}  // namespace
