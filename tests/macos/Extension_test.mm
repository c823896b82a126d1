// The extension as the Finder meets it: the principal class by the name in the bundle's property list, every callback
// and action by its selector. The host's classes are not included, so that a misspelt name is missing here.
#import <FinderSync/FinderSync.h>
#include <gmock/gmock.h>
#include <objc/runtime.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <regex>
#include <thread>

#include "Finder.hpp"
#include "base/AppConst.hpp"
#include "platform/Foundation.hpp"
#include "support/Databases.hpp"
#include "support/SyncApplication.hpp"
#include "support/TemporaryFolder.hpp"
#include "support/Threads.hpp"

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

/// Runs `body` a number of times, each in a separate autorelease pool, as the Finder runs its callbacks. Fails when
/// objects are still left after a minute.
template <class Body>
void expectNoObjectsLeftBy(int times, Body body) {
  std::ptrdiff_t before = 0;
  for (int i = -1; i < times; ++i) {  // the first run makes objects that are kept
    @autoreleasepool {
      body(i);
    }
    if (i < 0) before = standin::liveObjects();
  }
  EXPECT_TRUE(vornet::test::becomesTrue([&] { return standin::liveObjects() - before < times / 2; }))
      << standin::liveObjects() - before;
}

bool waitForBadge(const Badge& badge) {
  return vornet::test::becomesTrue([&] { return testing::Value(standin::seen().badges, testing::Contains(badge)); });
}

NSDictionary* extensionKeys() {
  return [[NSBundle mainBundle] objectForInfoDictionaryKey:@"NSExtension"];
}

Class principalClass() {
  return NSClassFromString([extensionKeys() objectForKey:@"NSExtensionPrincipalClass"]);
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
  fs::path container() const {
    NSDictionary* groups = [[NSBundle mainBundle] objectForInfoDictionaryKey:@"VornetApplicationGroups"];
    return folder_.path() / "containers" / text([groups objectForKey:string(vornet::App().APP_GROUP)]);
  }

  /// The principal object, made as the system makes it. It lives on: the status manager keeps calling it.
  static id<FIFinderSync> makePrincipalObject() { return [[principalClass() alloc] init]; }

  /// The principal object of a configured extension.
  id<FIFinderSync> makeConfigured() const {
    vornet::test::writePreferences(container() / vornet::App().KELVANE_PLIST, root());
    return makePrincipalObject();
  }

  NSURL* item(const std::string& name) const { return fileURL(root() / name); }

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
  ASSERT_TRUE(principalClass());
  EXPECT_TRUE([principalClass() isSubclassOfClass:[FIFinderSync class]]);
}

TEST_F(MacExtension, ThePrincipalClassAnswersEverySelectorItself) {
  for (NSString *name in
       [NSArray arrayWithObjects:@"init", @"setFileSyncStatus:status:", @"enableVI:", @"disableVI",
                                 @"beginObservingDirectoryAtURL:", @"endObservingDirectoryAtURL:",
                                 @"requestBadgeIdentifierForURL:", @"menuForMenuKind:", @"toolbarItemName",
                                 @"toolbarItemToolTip", @"toolbarItemImage",
                                 @"share:", @"copyLink:", @"notes:", @"viewVersions:", @"viewInCloud:", nil]) {
    const SEL selector = NSSelectorFromString(name);
    EXPECT_TRUE([principalClass() instancesRespondToSelector:selector]) << text(name);
    EXPECT_NE([principalClass() instanceMethodForSelector:selector], [FIFinderSync instanceMethodForSelector:selector])
        << text(name);
  }
}

TEST_F(MacExtension, ConstructionRegistersTheBadgesInOrderAndObservesTheSyncedFolder) {
  ASSERT_TRUE(makeConfigured());
  EXPECT_THAT(standin::seen().events,
              ElementsAre("init", "directories", "badge SKIPPED 'Not synced' error",
                          "badge PENDING 'Sync in progress' sync", "badge SYNCED 'Synced' checkmark", "directories"));
  EXPECT_THAT(standin::seen().folders, ElementsAre(root().string() + "/"));
  EXPECT_THAT(standin::seen().askedApplications, ElementsAre(vornet::App().APP_CODENAME));
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
  EXPECT_THAT(standin::seen().events, ElementsAre("init"));
}

TEST_F(MacExtension, StaysIdleWithoutPreferences) {
  id<FIFinderSync> extension = makePrincipalObject();
  ASSERT_TRUE(extension);
  EXPECT_THAT(standin::seen().events, testing::Contains("directories")) << "the framework wants a set, if an empty one";
  EXPECT_THAT(standin::seen().folders, IsEmpty());
  EXPECT_FALSE([extension menuForMenuKind:FIMenuKindContextualMenuForItems]);
  EXPECT_EQ(logLines().back(),
            "[Info] [RESTPollingManager] setupLocalRoot: Skipping initialization, Kevlane not configured");
}

TEST_F(MacExtension, TakesCallbacksFromTheMomentThatAFolderIsObserved) {
  standin::showFoldersAtOnce();
  makeConfigured();
  EXPECT_THAT(logLines(), testing::Contains("[Info] [FinderSync] beginObservingDirectoryAtURL: Directory enter: " +
                                            root().string()));
}

// NSLog begins its lines with the program and the process.
TEST_F(MacExtension, WritesToTheSystemLogWhyItStops) {
  standin::setGroupContainers(std::nullopt);
  EXPECT_DEATH(makePrincipalObject(), R"(VornetVIExt\[[0-9:]+\] Fatal error: no group container)");
}

TEST_F(MacExtension, WritesToTheSystemLogThatItsOwnCannotBeWritten) {
  const auto startAndEnd = [] {
    makePrincipalObject();
    ::_exit(0);
  };
  fs::create_directories(container() / "log" / vornet::App().LOG_FILE);
  EXPECT_EXIT(startAndEnd(), testing::ExitedWithCode(0),
              R"(VornetVIExt\[[0-9:]+\] Attempt to open log file for writing failed: Optional\("Is a directory"\))");
  standin::setGroupContainers("/proc/containers");
  EXPECT_EXIT(startAndEnd(), testing::ExitedWithCode(0), R"(VornetVIExt\[[0-9:]+\] Error creating log dir: .)");
}

TEST_F(MacExtension, WritesItsStartToTheLogFile) {
  makeConfigured();
  const auto key = [](NSString* name) { return text([[NSBundle mainBundle] objectForInfoDictionaryKey:name]); };
  EXPECT_THAT(
      logLines(),
      ElementsAre("[Info] : VornetVIExt Version: " + key(@"CFBundleShortVersionString") +
                      " Build: " + key(@"CFBundleVersion") + " PID: " + std::to_string(::getpid()),
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
  EXPECT_THAT(standin::seen().events, testing::SizeIs(10));
  EXPECT_EQ(standin::seen().events[7], "badge SKIPPED 'Not synced' error");
  EXPECT_THAT(standin::seen().folders, ElementsAre(root().string() + "/"));
  EXPECT_EQ(logLines(), lines);
}

TEST_F(MacExtension, AnswersBadgeRequestsFromTheSyncDatabase) {
  id<FIFinderSync> extension = makeConfigured();
  onThreadOfTheFinder([&] {
    for (const char* name : {"synced", "strange", "failing", "none", "absent"})
      [extension requestBadgeIdentifierForURL:item(name)];
  });
  // A status without a badge removes one; an unknown status changes nothing.
  EXPECT_THAT(standin::seen().badges,
              ElementsAre(Badge("SYNCED", root() / "synced"), Badge("SKIPPED", root() / "failing"),
                          Badge("", root() / "none"), Badge("", root() / "absent")));
}

TEST_F(MacExtension, SetsABadgeOnTheObjectThatItWasAskedFor) {
  id extension = makeConfigured();
  // A folder's URL without a slash at its end, as one may be.
  NSURL* asked = [NSURL fileURLWithPath:string(root() / "Å b") isDirectory:NO];
  NSURL* same = [NSURL fileURLWithPath:string(root() / "Å b") isDirectory:NO];
  [extension requestBadgeIdentifierForURL:asked];
  EXPECT_EQ(standin::seen().lastURL, asked);
  [extension setFileSyncStatus:same status:1];
  EXPECT_EQ(standin::seen().lastURL, same);
}

TEST_F(MacExtension, KeepsNoObjectsOfTenThousandBadgesAndAHundredMenus) {
  SyncApplication application;
  application.setBody("mac_populate_menu", R"({"1":true})");
  id extension = makeConfigured();
  NSURL* synced = item("synced");
  expectNoObjectsLeftBy(10'000, [&](int) {
    [extension requestBadgeIdentifierForURL:synced];
    [extension setFileSyncStatus:synced status:1];
  });
  select({"synced"});
  expectNoObjectsLeftBy(100, [&](int) {
    [extension menuForMenuKind:FIMenuKindContextualMenuForItems];
    [extension toolbarItemImage];
    [extension toolbarItemName];
  });
}

TEST_F(MacExtension, KeepsNoObjectsOfAHundredPassesEachOfWhichHasAPool) {
  SyncApplication application;
  application.setBody("get_icons_for_folder", R"({"/Å b/1":1})");
  id extension = makeConfigured();
  [extension beginObservingDirectoryAtURL:item("Å b")];
  ASSERT_TRUE(application.waitForAnswer("get_icons_for_folder", R"({"dir_name":"/Å b/"})"));
  const auto pass = [&](int number) {
    const auto before = standin::seen().badges.size();
    application.setBody("get_icons_for_folder", number % 2 ? R"({"/Å b/1":1})" : R"({"/Å b/1":2})");
    NSURL* another = item("folder " + std::to_string(number));
    [extension beginObservingDirectoryAtURL:item("Å b")];  // stays among the last that were entered
    [extension beginObservingDirectoryAtURL:another];      // wakes the worker
    EXPECT_TRUE(vornet::test::becomesTrue([&] { return standin::seen().badges.size() > before; }));
    [extension endObservingDirectoryAtURL:another];
  };
  pass(0);
  const auto poolsOfAPush = standin::seen().lastPools;
  onThreadOfTheFinder([&] { [extension setFileSyncStatus:item("synced") status:1]; });
  EXPECT_EQ(poolsOfAPush, standin::seen().lastPools) << "the push's own, and one around it";

  expectNoObjectsLeftBy(100, [&](int number) { pass(number + 2); });
}

TEST_F(MacExtension, TheWorkerPushesAfterTheFirstObjectIsReleased) {
  SyncApplication application;
  application.setBody("get_icons_for_folder", R"({"/Å b/1":1})");
  id<FIFinderSync> first = makeConfigured();
  id<FIFinderSync> second = makePrincipalObject();
  [first beginObservingDirectoryAtURL:item("Å b")];
  ASSERT_TRUE(application.waitForAnswer("get_icons_for_folder", R"({"dir_name":"/Å b/"})"));
  application.setBody("get_icons_for_folder", R"({"/Å b/1":2})");
  [first release];
  [second beginObservingDirectoryAtURL:fileURL(root())];  // wakes the worker
  EXPECT_TRUE(waitForBadge({"SYNCED", root() / "Å b/1"}));
}

TEST_F(MacExtension, AsksForTheStatusesOfAFolderOnScreenAndPushesWhatChanges) {
  SyncApplication application;
  application.setBody("get_icons_for_folder", R"({"/Å b/1":1,"/Å b/2":2})");
  id<FIFinderSync> extension = makeConfigured();
  onThreadOfTheFinder([&] { [extension beginObservingDirectoryAtURL:item("Å b")]; });
  ASSERT_TRUE(application.waitForAnswer("get_icons_for_folder", R"({"dir_name":"/Å b/"})"));

  application.setBody("get_icons_for_folder", R"({"/Å b/1":2,"/Å b/2":7,"/Å b/3":0})");
  [extension beginObservingDirectoryAtURL:fileURL(root())];  // wakes the worker for another pass
  EXPECT_TRUE(waitForBadge({"SYNCED", root() / "Å b/1"}));
  EXPECT_TRUE(waitForBadge({"", root() / "Å b/2"}));
  EXPECT_TRUE(waitForBadge({"SKIPPED", root() / "Å b/3"}));

  const auto before = standin::seen().badges.size();
  [extension requestBadgeIdentifierForURL:item("Å b/4")];  // known not to be there
  EXPECT_EQ(standin::seen().badges.size(), before);
}

TEST_F(MacExtension, StopsAskingForAFolderThatLeftTheScreen) {
  SyncApplication application;
  const auto isAskedFor = [&](const std::string& folder) {
    return application.waitForAnswer("get_icons_for_folder", R"({"dir_name":")" + folder + R"("})");
  };
  id<FIFinderSync> extension = makeConfigured();
  [extension beginObservingDirectoryAtURL:item("Å b")];
  ASSERT_TRUE(isAskedFor("/Å b/"));
  onThreadOfTheFinder([&] { [extension endObservingDirectoryAtURL:item("Å b")]; });

  [extension beginObservingDirectoryAtURL:fileURL(root())];
  ASSERT_TRUE(isAskedFor("/"));
  const auto timesAsked = [&] {
    const auto bodies = application.bodies("get_icons_for_folder");
    return std::count(bodies.begin(), bodies.end(), R"({"dir_name":"/Å b/"})");
  };
  const auto before = timesAsked();
  [extension beginObservingDirectoryAtURL:item("c")];  // asked for after every longer path on screen
  ASSERT_TRUE(isAskedFor("/c/"));
  EXPECT_EQ(timesAsked(), before);

  const std::string path = root() / "Å b";
  EXPECT_THAT(logLines(),
              testing::IsSupersetOf({"[Info] [FinderSync] beginObservingDirectoryAtURL: Directory enter: " + path,
                                     "[Info] [FinderSync] endObservingDirectoryAtURL: Directory exit: " + path}));
}

TEST_F(MacExtension, OffersTheMenuThatTheSyncApplicationEnables) {
  SyncApplication application;
  application.setBody("mac_populate_menu", R"({"1":true,"3":false,"5":true})");
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
  EXPECT_THAT(application.bodies("mac_populate_menu"), IsEmpty());
}

TEST_F(MacExtension, EveryActionOfTheMenuReachesTheSyncApplication) {
  SyncApplication application;
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
  [extension setFileSyncStatus:item("synced") status:1];
  [extension setFileSyncStatus:item("synced") status:7];
  EXPECT_THAT(standin::seen().badges, ElementsAre(Badge("PENDING", root() / "synced"), Badge("", root() / "synced")));

  [extension enableVI:[NSSet setWithObjects:[NSURL fileURLWithPath:@"/b" isDirectory:YES],
                                            [NSURL fileURLWithPath:@"/a" isDirectory:YES], nil]];
  EXPECT_THAT(standin::seen().folders, ElementsAre("/a/", "/b/"));
  [extension disableVI];
  EXPECT_THAT(standin::seen().folders, IsEmpty());
}

TEST_F(MacExtension, StopsWhenAskedToObserveAnObjectThatIsNoURL) {
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
  EXPECT_THAT(standin::seen().badges, IsEmpty());
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

/// Ends at once: the extension's worker goes on to the last, as under the system, and nothing may be taken down before
/// it.
int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  const int result = RUN_ALL_TESTS();
  std::fflush(nullptr);
  ::_exit(result);
}
