#include "rest/RESTPollingManager.hpp"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <mutex>

#include "paths/JSON.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/LogRecorder.hpp"
#include "support/LoopbackServer.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

using platform::FileURL;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

using namespace std::chrono_literals;

constexpr auto SHORT = 20ms;  // a polling interval that a test can wait for
constexpr auto NEVER = 1h;    // one that no test reaches: what happens, happens because of a signal

const std::string NO_CHANGE = "Updated: [:]";
const std::string NOTHING_ON_SCREEN = "Finder not monitoring any directory - skipping update";
const std::string NOT_CONNECTED = "Skipping get_icons_for_fodler, ds not connected";
const std::string NOT_CONFIGURED = "Skipping initialization, Kevlane not configured";

FileURL url(const std::string& path) {
  return FileURL::fileURLWithPath(path);
}

/// The manager's calls of the extension's controller.
struct Seen {
  std::vector<std::pair<std::string, std::int64_t>> pushes;
  std::vector<std::string> filled;
  std::vector<std::pair<std::string, std::size_t>> refreshed;  // with the number of pushes before
  std::vector<bool> answers;
  std::set<FileURL> observed;
  pid_t pusher = 0;  // the thread of the last push
  int niceness = -1;
};

class Controller : public StatusSink {
 public:
  void setFileSyncStatus(const FileURL& item, std::int64_t status) override {
    note([&] {
      seen_.pushes.emplace_back(*item.path(), status);
      seen_.pusher = ::gettid();
      seen_.niceness = ::getpriority(PRIO_PROCESS, static_cast<id_t>(seen_.pusher));
    });
  }
  void folderFilled(const FileURL& folder, bool first) override {
    note([&] {
      if (first) seen_.filled.push_back(*folder.path());
      if (!first) seen_.refreshed.emplace_back(*folder.path(), seen_.pushes.size());
    });
  }
  void syncApplicationAnswered(bool answered) override {
    note([&] { seen_.answers.push_back(answered); });
  }
  void enableVI(const std::set<FileURL>& dirs) override {
    note([&] { seen_.observed = dirs; });
  }

  Seen seen() const {
    const std::lock_guard guard(lock_);
    return seen_;
  }
  /// Waits until there were so many `calls`.
  template <class Calls>
  bool waitFor(Calls Seen::* calls, std::size_t count) const {
    return waitUntil([&] { return (seen_.*calls).size() >= count; });
  }
  /// Waits until the last exchange is reported to have been answered, or not.
  bool waitForAnswer(bool answered) const {
    return waitUntil([&] { return !seen_.answers.empty() && seen_.answers.back() == answered; });
  }

 private:
  template <class Change>
  void note(Change change) {
    const std::lock_guard guard(lock_);
    change();
    changed_.notify_all();
  }
  template <class Condition>
  bool waitUntil(Condition condition) const {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, PATIENCE, condition);
  }

  mutable std::mutex lock_;
  mutable std::condition_variable changed_;
  Seen seen_;
};

/// The folder that a request asks for.
std::string dirName(const WireRequest& request) {
  return std::string(fromJSON(request.body).at("dir_name").as_string());
}

std::vector<std::string> dirNames(const std::vector<WireRequest>& requests) {
  std::vector<std::string> names;
  for (const auto& request : requests) names.push_back(dirName(request));
  return names;
}

class RESTPollingManagerTest : public testing::Test {
 protected:
  RESTPollingManagerTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  ~RESTPollingManagerTest() override {
    if (manager) manager->stop_listener();
  }

  void make(std::chrono::duration<double> interval) {
    manager = std::make_shared<RESTPollingManager>(interval);
    manager->setFinderSync(&controller);
  }
  void makeConfigured(std::chrono::duration<double> interval) {
    make(interval);
    manager->enableVI("/R");
  }

  /// Makes the manager with the synced folder "/R", enters `dirs` and starts the worker.
  void poll(std::chrono::duration<double> interval, const std::vector<std::string>& dirs = {"/R/a"}) {
    makeConfigured(interval);
    for (const auto& dir : dirs) manager->dirEnter(dir);
    manager->start_listener();
  }

  void serve(LoopbackServer::Answer answer) { server.emplace(std::move(answer)); }
  void serve(const std::string& body, int code = 200) {
    serve([=](const WireRequest&) { return WireReply{.status = code, .body = body}; });
  }

  /// Answers each request with a new status of the item "x" in its folder.
  void serveChanges() {
    serve([this](const WireRequest& request) {
      return WireReply{.body = "{\"" + dirName(request) + "x\":" + std::to_string(++pass) + "}"};
    });
  }

  /// Answers "{}", the first request only once `release` is open. `arrived` opens when that one has come.
  void serveOnceReleased() {
    serve([this](const WireRequest&) {
      if (++pass == 1) {
        arrived.open();
        release.passInTime();
      }
      return WireReply{.body = "{}"};
    });
  }

  std::string preferences() const { return environment.container() / "VornetKelvane.plist"; }

  // For the server's answers, which go on after a test's own variables are gone.
  Gate arrived;
  Gate release;
  std::atomic<int> pass{0};
  std::atomic<bool> tooLong{true};
  Environment environment;
  LogRecorder log;
  Controller controller;
  std::optional<LoopbackServer> server;
  std::shared_ptr<RESTPollingManager> manager;
};

using RESTPollingManagerDeathTest = RESTPollingManagerTest;

TEST_F(RESTPollingManagerTest, BeginsIdleAndUnconfigured) {
  make(RESTPollingManager::POLLING_INTERVAL);
  EXPECT_FALSE(manager->running());
  EXPECT_FALSE(manager->menuEnabled());
  EXPECT_EQ(manager->rootDir(), nullptr);
  EXPECT_THAT(manager->currentDirs(), IsEmpty());
  EXPECT_THAT(manager->pendingUpdates(), IsEmpty());
  EXPECT_EQ(manager->dirCache().maxSize(), 50u);
  EXPECT_EQ(RESTPollingManager::POLLING_INTERVAL.count(), 5.0);
  EXPECT_FALSE(RESTPollingManager().finderSync());
}

// --- Finding the synced folder --------------------------------------------------------------------------------------

TEST_F(RESTPollingManagerTest, AdoptsTheSyncedFolderOfThePreferencesAndKeepsIt) {
  writePreferences(preferences(), "/home/ann/Kelvane");
  make(NEVER);
  EXPECT_TRUE(manager->setupLocalRoot());
  EXPECT_TRUE(manager->menuEnabled());
  EXPECT_EQ(*manager->rootDir(), url("/home/ann/Kelvane"));
  EXPECT_EQ(manager->rootDir()->description(), "file:///home/ann/Kelvane/") << "it is the URL of a folder";
  EXPECT_EQ(manager->menu().rootDir(), url("/home/ann/Kelvane"));
  EXPECT_THAT(controller.seen().observed, ElementsAre(url("/home/ann/Kelvane")));
  const auto messages = log.messages();
  EXPECT_THAT(log.messages(LogLevel::Info),
              ElementsAre("Initialized Kevlane Finder plugin for path /home/ann/Kelvane", "Finder plugin enabled"));

  writePreferences(preferences(), "/other");
  EXPECT_TRUE(manager->setupLocalRoot());
  EXPECT_EQ(*manager->rootDir(), url("/home/ann/Kelvane"));
  EXPECT_EQ(log.messages(), messages) << "nothing more is said";
}

TEST_F(RESTPollingManagerTest, StaysIdleWithoutReadablePreferencesAndSucceedsOnceTheyExist) {
  make(NEVER);
  const std::optional<std::string> contents[] = {std::nullopt, "", "no property list",
                                                 "<plist><dict><key>root_dir</key>"};
  for (const auto& content : contents) {
    log.clear();
    if (content) writeFile(preferences(), *content);
    EXPECT_FALSE(manager->setupLocalRoot()) << content.value_or("none");
    EXPECT_FALSE(manager->menuEnabled());
    EXPECT_THAT(log.messages(LogLevel::Info), ElementsAre(NOT_CONFIGURED));
  }
  writePreferences(preferences(), "/R");
  EXPECT_TRUE(manager->setupLocalRoot());
  EXPECT_TRUE(manager->menuEnabled());
}

TEST_F(RESTPollingManagerDeathTest, PreferencesWithoutTextUnderRootDirStopTheProcess) {
  make(NEVER);
  for (const char* dictionary :
       {"", "<key>root_dir</key><integer>1</integer>", "<key>other</key><string>/R</string>"}) {
    writeFile(preferences(), std::string("<plist version=\"1.0\"><dict>") + dictionary + "</dict></plist>");
    EXPECT_DEATH(manager->setupLocalRoot(), "root_dir") << dictionary;
  }
}

TEST_F(RESTPollingManagerDeathTest, AnAbsentGroupContainerStopsTheProcess) {
  make(NEVER);
  const ScopedVariable nowhere("VORNET_GROUP_CONTAINERS", "/dev/null/containers");
  EXPECT_DEATH(manager->setupLocalRoot(), "group container");
}

TEST_F(RESTPollingManagerDeathTest, EnablingWithoutAControllerStopsTheProcess) {
  EXPECT_DEATH(RESTPollingManager().enableVI("/R"), "without a controller");
}

TEST_F(RESTPollingManagerDeathTest, AChangeWithoutAControllerStopsTheProcess) {
  const auto pollAlone = [this] {
    serveChanges();
    makeConfigured(SHORT);
    manager->setFinderSync(nullptr);
    manager->start_listener();
    manager->dirEnter("/R/a");
    log.waitFor(LogLevel::Info, "never");
  };
  EXPECT_DEATH(pollAlone(), "without a controller");
}

// --- Badges ---------------------------------------------------------------------------------------------------------

TEST_F(RESTPollingManagerTest, AnswersBadgesFromTheDatabaseUntilTheFolderIsFilledAndFromTheCacheThen) {
  makeSyncDatabase(environment.container() / "sync.db", {{"/a/x", 1}, {"/a/d/", 0}});
  serve(R"({"/a/x":2})");
  makeConfigured(NEVER);
  EXPECT_EQ(manager->badgeFromCache(url("/R/a/x")), 1);
  EXPECT_EQ(manager->badgeFromCache(url("/R/a/d")), 0);
  EXPECT_EQ(manager->badgeFromCache(url("/R/a/unknown")), -1);
  EXPECT_EQ(log.count(LogLevel::Debug, "Fetching badge for: file:///R/a/x"), 1u);

  manager->start_listener();
  manager->dirEnter("/R/a");
  ASSERT_TRUE(log.waitFor(LogLevel::Debug, NO_CHANGE));
  EXPECT_EQ(manager->badgeFromCache(url("/R/a/x")), 2);
  EXPECT_EQ(manager->badgeFromCache(url("/R/a/unknown")), std::nullopt);
  manager->clearDirCache();
  EXPECT_EQ(manager->badgeFromCache(url("/R/a/x")), 2) << "clearing the folders' cache does nothing";
}

TEST_F(RESTPollingManagerTest, AnswersBadgesWithoutWaitingForARequestOfTheWorker) {
  serve([](const WireRequest&) { return WireReply{.manner = WireReply::Manner::stall}; });
  poll(NEVER);
  ASSERT_TRUE(server->waitForRequests(1));
  // The worker's request goes on until this test's end: what follows would never return if it waited for it.
  EXPECT_EQ(manager->badgeFromCache(url("/R/a/x")), -1);
  manager->dirEnter("/R/b");
  manager->dirExit("/R/b");
  EXPECT_TRUE(manager->menuEnabled());
  EXPECT_EQ(log.count(LogLevel::Warning, NOT_CONNECTED), 0u);
}

TEST_F(RESTPollingManagerDeathTest, ABadgeAskedForWithoutSyncedFolderStopsTheProcess) {
  make(NEVER);
  EXPECT_DEATH(manager->badgeFromCache(url("/R/x")), "synced folder is not known");
}

// --- The worker -----------------------------------------------------------------------------------------------------

TEST_F(RESTPollingManagerTest, TheFirstFillPushesNothingAndEachRefreshIsReportedAfterItsChanges) {
  serve([this](const WireRequest&) {
    return WireReply{.body = ++pass == 1 ? R"({"/a/x":1,"/a/y":2})" : R"({"/a/x":2,"/a/y":2,"/a/n":0})"};
  });
  poll(SHORT);
  ASSERT_TRUE(controller.waitFor(&Seen::refreshed, 2));
  const auto seen = controller.seen();
  EXPECT_THAT(seen.pushes, UnorderedElementsAre(Pair("/R/a/x", 2), Pair("/R/a/n", 0)));
  EXPECT_THAT(seen.filled, ElementsAre("/R/a"));
  EXPECT_THAT(seen.refreshed, Each(Pair("/R/a", 2u))) << "also when nothing has changed";
  EXPECT_GE(log.count(LogLevel::Debug, NO_CHANGE), 2u);
  EXPECT_THAT(log.messages(LogLevel::Debug),
              Contains(testing::AnyOf(R"(Updated: ["/a/x": 2, "/a/n": 0])", R"(Updated: ["/a/n": 0, "/a/x": 2])")));
}

TEST_F(RESTPollingManagerTest, AReplyThatEqualsAnEarlierOneButNotTheLastIsPushed) {
  serve([this](const WireRequest&) {
    const bool inProgress = ++pass / 2 % 2 == 1;  // twice, so that each reply is also followed by an equal one
    return WireReply{.body = inProgress ? R"({"/a/x":1})" : R"({"/a/x":2})"};
  });
  poll(SHORT);
  ASSERT_TRUE(controller.waitFor(&Seen::pushes, 3));
  EXPECT_THAT(controller.seen().pushes,
              testing::IsSupersetOf({Pair("/R/a/x", 1), Pair("/R/a/x", 2), Pair("/R/a/x", 1)}));
  EXPECT_GE(log.count(LogLevel::Debug, NO_CHANGE), 3u);
}

TEST_F(RESTPollingManagerTest, TheFirstFillOfAFolderIsReportedOnceAndAgainAfterItsEviction) {
  serveChanges();
  makeConfigured(SHORT);
  EXPECT_FALSE(manager->isCached(url("/R/a/x")));
  manager->start_listener();
  manager->dirEnter("/R/a");
  ASSERT_TRUE(controller.waitFor(&Seen::filled, 1));
  EXPECT_TRUE(manager->isCached(url("/R/a/x")));
  EXPECT_FALSE(manager->isCached(url("/R/a/b/x")));
  EXPECT_FALSE(manager->isCached(FileURL()));
  ASSERT_TRUE(controller.waitFor(&Seen::pushes, 2));
  manager->dirEnter("/R/a");
  manager->dirEnter("/R/b");
  ASSERT_TRUE(controller.waitFor(&Seen::filled, 2));
  manager->dirCache().clearCache();
  EXPECT_FALSE(manager->isCached(url("/R/a/x")));
  manager->dirEnter("/R/a");
  ASSERT_TRUE(controller.waitFor(&Seen::filled, 3));
  EXPECT_THAT(controller.seen().filled, ElementsAre("/R/a", "/R/b", "/R/a"));
}

TEST_F(RESTPollingManagerTest, ReportsWhetherTheSyncApplicationAnswers) {
  const std::pair<std::string, int> answers[] = {{"{}", 200}, {"no JSON", 200}, {"[]", 200}, {"", 500}, {"", 404}};
  poll(SHORT);
  for (const auto& [body, code] : answers) {
    ASSERT_TRUE(controller.waitForAnswer(false)) << "nobody listens";
    serve(body, code);
    EXPECT_TRUE(controller.waitForAnswer(true)) << code << ' ' << body;
    server.reset();
  }
}

TEST_F(RESTPollingManagerTest, ReportsNoAnswerOfARequestThatItsStopEnded) {
  serve([](const WireRequest&) { return WireReply{.manner = WireReply::Manner::stall}; });
  poll(NEVER);
  ASSERT_TRUE(server->waitForRequests(1));
  manager->stop_listener();
  EXPECT_THAT(controller.seen().answers, IsEmpty());
}

TEST_F(RESTPollingManagerTest, PostsTheCloudPathWithOneSlashAndNoExtraHeaders) {
  serve("{}");
  poll(NEVER, {"/R/a b", "/R"});
  ASSERT_TRUE(server->waitForRequests(2));
  for (const auto& request : server->requests()) {
    EXPECT_EQ(request.target, "/get_icons_for_folder");
    EXPECT_THAT(request.header("Accept"), IsEmpty());
  }
  EXPECT_EQ(server->requests()[0].body, R"({"dir_name":"/a b/"})");
  EXPECT_EQ(server->requests()[1].body, R"({"dir_name":"/"})") << "the synced folder itself";
}

TEST_F(RESTPollingManagerTest, ANewFolderWakesTheWorkerAtOnceAndAllFoldersArePolledThen) {
  serve("{}");
  poll(NEVER);
  ASSERT_TRUE(server->waitForRequests(1));
  manager->dirEnter("/R/b/c");
  ASSERT_TRUE(server->waitForRequests(3));
  EXPECT_THAT(dirNames(server->requests()), ElementsAre("/a/", "/b/c/", "/a/"));
}

TEST_F(RESTPollingManagerTest, ASignalGivenWhileAPassIsRunningIsNotLost) {
  serveOnceReleased();
  poll(NEVER);
  ASSERT_TRUE(arrived.passInTime());
  manager->dirEnter("/R/bb");  // the worker is in its request, not in its wait
  release.open();
  ASSERT_TRUE(server->waitForRequests(3));
  EXPECT_THAT(dirNames(server->requests()), ElementsAre("/a/", "/bb/", "/a/"));
}

TEST_F(RESTPollingManagerTest, EnteringAFilledFolderAgainDoesNotWakeTheWorker) {
  serve("{}");
  poll(NEVER);
  ASSERT_TRUE(log.waitFor(LogLevel::Debug, NO_CHANGE));
  manager->dirExit("/R/a");
  log.clear();
  manager->dirEnter("/R/a");
  EXPECT_THAT(log.messages(LogLevel::Debug), ElementsAre("Active Finder directories: 1"));
  manager->dirEnter("/R/b");  // its signal is the first since: one pass comes of both
  ASSERT_TRUE(server->waitForRequests(3));
  EXPECT_THAT(dirNames(server->requests()), UnorderedElementsAre("/a/", "/a/", "/b/"));
}

TEST_F(RESTPollingManagerTest, PollsLongestPathFirstByBytes) {
  serve("{}");
  poll(NEVER, {"/R/a", "/R/a/bb", "/R/a/bb/c", "/R/a/\xC3\xA9\xC3\xA9"});
  ASSERT_TRUE(server->waitForRequests(4));
  // Two letters of two bytes each are longer than two of one byte, and as long as "bb/c".
  const auto names = dirNames(server->requests());
  EXPECT_THAT((std::vector<std::string>{names[2], names[3]}), ElementsAre("/a/bb/", "/a/"));
  EXPECT_THAT((std::vector<std::string>{names[0], names[1]}), UnorderedElementsAre("/a/bb/c/", "/a/\xC3\xA9\xC3\xA9/"));
}

TEST_F(RESTPollingManagerTest, WithNothingOnScreenItPostsNothingAndSaysSoAfterEachInterval) {
  serve("{}");
  make(SHORT);
  manager->start_listener();
  EXPECT_TRUE(log.waitFor(LogLevel::Debug, NOTHING_ON_SCREEN, 2)) << "while the synced folder is unknown";
  manager->enableVI("/R");
  log.clear();
  EXPECT_TRUE(log.waitFor(LogLevel::Debug, NOTHING_ON_SCREEN, 3));
  EXPECT_THAT(server->requests(), IsEmpty());
}

TEST_F(RESTPollingManagerTest, AFolderOnScreenIsPolledAgainAfterEachIntervalUntilItIsLeft) {
  serve("{}");
  poll(SHORT);
  ASSERT_TRUE(server->waitForRequests(4));
  manager->dirExit("/R/a");
  EXPECT_THAT(manager->currentDirs(), IsEmpty());
  manager->dirExit("/R/a");  // absent already: no error
  // A pass that was in progress may still ask once; then the worker finds nothing to do.
  ASSERT_TRUE(log.waitFor(LogLevel::Debug, NOTHING_ON_SCREEN));
  const auto asked = server->requests().size();
  ASSERT_TRUE(log.waitFor(LogLevel::Debug, NOTHING_ON_SCREEN, 4));
  EXPECT_EQ(server->requests().size(), asked);
  EXPECT_EQ(manager->dirCache().curSize(), 1u) << "the cache keeps the folder's entry";
}

TEST_F(RESTPollingManagerTest, EnteringLogsTheRequestAndTheNumberOfFolders) {
  makeConfigured(NEVER);
  log.clear();
  manager->dirEnter("/R/a");
  EXPECT_THAT(log.messages(LogLevel::Debug),
              ElementsAre("Request cacheUpdate for path: /a", "Active Finder directories: 1"));
  manager->dirEnter("/R/a");
  EXPECT_THAT(manager->currentDirs(), ElementsAre("/R/a"));
}

TEST_F(RESTPollingManagerTest, A404DropsTheFolderUntilItIsEnteredAgain) {
  serve("{}", 404);
  poll(SHORT, {"/R/gone"});
  ASSERT_TRUE(log.waitFor(LogLevel::Info, "Directory /R/gone does not exist (404), ignoring subscription"));
  ASSERT_TRUE(log.waitFor(LogLevel::Debug, NOTHING_ON_SCREEN));
  EXPECT_THAT(manager->currentDirs(), IsEmpty());
  EXPECT_EQ(server->requests().size(), 1u);
  serve("{}");
  manager->dirEnter("/R/gone");
  ASSERT_TRUE(server->waitForRequests(1));
  EXPECT_THAT(manager->currentDirs(), ElementsAre("/R/gone"));
}

TEST_F(RESTPollingManagerTest, AnotherStatusKeepsTheFolderAndIsLoggedWithItsClosingParenthesis) {
  serve("", 500);
  poll(SHORT);
  EXPECT_TRUE(log.waitFor(LogLevel::Info, "Cannot fetch directory status: unexpected HTTP code: 500)", 2));
  EXPECT_THAT(manager->currentDirs(), ElementsAre("/R/a"));
}

TEST_F(RESTPollingManagerTest, WithoutSyncApplicationEachPollWarnsAndBadgesKeepTheirCachedValues) {
  serve(R"({"/a/x":2})");
  poll(SHORT);
  ASSERT_TRUE(log.waitFor(LogLevel::Debug, NO_CHANGE));
  server.reset();
  EXPECT_TRUE(log.waitFor(LogLevel::Warning, NOT_CONNECTED, 2));
  EXPECT_EQ(manager->badgeFromCache(url("/R/a/x")), 2);
  EXPECT_THAT(controller.seen().pushes, IsEmpty());
}

TEST_F(RESTPollingManagerTest, AReplyThatIsNotJSONIsWarnedOfAndKeepsTheFolder) {
  for (const char* body : {"", "no json", "{\"/a/x\":1", "3"}) {
    serve(body);
    poll(SHORT);
    EXPECT_TRUE(log.waitFor(LogLevel::Warning, "Unable to parse VI status tuple from DS", 2)) << body;
    manager->stop_listener();
    log.clear();
  }
}

TEST_F(RESTPollingManagerTest, AReplyOfAnotherShapeIsSkippedSilentlyAndStoresNothing) {
  for (const char* body : {"[1,2]", R"({"/a/x":"2"})", R"({"/a/x":{"y":1}})", R"({"/a/x":1,"/a/y":true})",
                           R"({"/a/x":1.5})", R"({"/a/x":null})", "[]"}) {
    serve(body);
    poll(SHORT);
    ASSERT_TRUE(server->waitForRequests(3)) << body;
    manager->stop_listener();
    EXPECT_THAT(log.messages(LogLevel::Warning), IsEmpty()) << body;
    EXPECT_FALSE(manager->dirCache().isPopulated("/a/")) << body;
  }
}

TEST_F(RESTPollingManagerTest, OneFailingFolderDoesNotKeepTheOthersFromBeingPolled) {
  serve([](const WireRequest& request) {
    if (dirName(request) == "/long/path/") return WireReply{.status = 500};
    return WireReply{.body = R"({"/a/x":1})"};
  });
  poll(NEVER, {"/R/long/path", "/R/a"});
  ASSERT_TRUE(log.waitFor(LogLevel::Debug, NO_CHANGE));
  EXPECT_THAT(dirNames(server->requests()), ElementsAre("/long/path/", "/a/"));
}

TEST_F(RESTPollingManagerTest, AFolderEvictedFromTheCacheIsPolledButStoresAndLogsNothing) {
  serve(R"({"/x":1})");
  makeConfigured(NEVER);
  manager->dirEnter("/R/evicted");
  for (int i = 0; i < 50; ++i) manager->dirEnter("/R/" + std::to_string(i));
  ASSERT_FALSE(manager->dirCache().update("/evicted/", {}).has_value());
  manager->start_listener();
  ASSERT_TRUE(log.waitFor(LogLevel::Debug, NO_CHANGE, 50));
  ASSERT_TRUE(server->waitForRequests(51));
  EXPECT_THAT(dirNames(server->requests()), Contains("/evicted/"));
  EXPECT_EQ(log.count(LogLevel::Debug, NO_CHANGE), 50u);
}

TEST_F(RESTPollingManagerTest, StartingIsLoggedStoppingEndsTheWorkerFromItsWaitAndItCanBeStartedAgain) {
  serve("{}");
  makeConfigured(NEVER);
  manager->start_listener();
  EXPECT_TRUE(manager->running());
  EXPECT_EQ(log.count(LogLevel::Info, "Starting REST status polling"), 1u);
  manager->stop_listener();  // returns although the wait would be an hour long
  EXPECT_FALSE(manager->running());
  manager->start_listener();
  manager->dirEnter("/R/a");
  EXPECT_TRUE(server->waitForRequests(1));
}

TEST_F(RESTPollingManagerTest, StoppedInARequestTheWorkerPollsNoFurtherFolder) {
  serveOnceReleased();
  poll(SHORT, {"/R/a", "/R/b", "/R/c"});
  ASSERT_TRUE(arrived.passInTime());
  auto stopped = std::async(std::launch::async, [this] { manager->stop_listener(); });
  while (manager->running()) std::this_thread::yield();
  EXPECT_FALSE(isDone(stopped)) << "it waits for the request to end";
  release.open();
  ASSERT_TRUE(isDoneInTime(stopped));
  EXPECT_EQ(server->requests().size(), 1u);
}

TEST_F(RESTPollingManagerTest, AReplyOfHalfAMillionItemsIsTaken) {
  std::string body = "{";
  for (int i = 0; i < 500'000; ++i) body += "\"/a/An item with a name of some length " + std::to_string(i) + "\":2,";
  body += "\"/a/x\":1}";
  ASSERT_GT(body.size(), std::size_t{20} << 20);
  serve(body);
  poll(SHORT);  // a busy machine may need more than one request's 3 seconds
  ASSERT_TRUE(log.waitFor(LogLevel::Debug, NO_CHANGE));
  EXPECT_EQ(manager->badgeFromCache(url("/R/a/x")), 1);
}

TEST_F(RESTPollingManagerTest, AReplyAbove64MebibytesIsRejected) {
  serve([this](const WireRequest&) {
    const std::string length = std::to_string((std::int64_t{64} << 20) + tooLong);
    return WireReply{.manner = WireReply::Manner::stall,
                     .raw = "HTTP/1.1 200 OK\r\nContent-Length: " + length + "\r\n\r\n"};
  });
  poll(SHORT);
  const auto timeOfRequest = [this] {
    const auto begun = server->requests().size() + 2;  // those in flight may be of the state before
    EXPECT_TRUE(server->waitForRequests(begun));
    const auto before = std::chrono::steady_clock::now();
    EXPECT_TRUE(server->waitForRequests(begun + 1));
    return std::chrono::steady_clock::now() - before;
  };
  const auto refused = timeOfRequest();
  EXPECT_GE(log.count(LogLevel::Warning, NOT_CONNECTED), 1u);
  tooLong = false;  // the largest size is waited for, which takes 3 seconds here
  EXPECT_LT(2 * refused, timeOfRequest());
}

TEST_F(RESTPollingManagerTest, AReplyCountsAsNoneWhileTheOtherFoldersLeaveNoRoomForIt) {
  const auto reply = [](const std::string& folder, std::size_t size) {
    return "{\"" + folder + "/" + std::string(size, 'x') + "\":2,\"" + folder + "/x\":1}";
  };
  serve([reply](const WireRequest& request) {
    if (request.body.find("/also") != std::string::npos) return WireReply{.body = reply("/also", std::size_t{2} << 20)};
    return WireReply{.body = reply("/few", 0)};
  });
  makeConfigured(SHORT);
  auto& cache = manager->dirCache();
  cache.enterNewDir("/large/");
  ASSERT_TRUE(cache.update("/large/", {{"/large/" + std::string(std::size_t{95} << 20, 'x'), 2}}));

  manager->dirEnter("/R/also");
  manager->start_listener();
  ASSERT_TRUE(log.waitFor(LogLevel::Warning, NOT_CONNECTED));
  manager->dirEnter("/R/few");
  const auto badge = [this](const char* item) { return manager->badgeFromCache(url(item)); };
  EXPECT_TRUE(becomesTrue([&] { return badge("/R/few/x") == 1; }));
  EXPECT_EQ(badge("/R/also/x"), -1) << "what the database knows";

  cache.clearCache();
  manager->dirEnter("/R/also");
  EXPECT_TRUE(becomesTrue([&] { return badge("/R/also/x") == 1; })) << "there is room again";
}

TEST_F(RESTPollingManagerTest, TheWorkerKeepsTheManagerAliveUntilItEnds) {
  make(NEVER);
  manager->start_listener();
  const std::weak_ptr<RESTPollingManager> watched = manager;
  manager.reset();
  auto held = watched.lock();
  ASSERT_TRUE(held);
  held->stop_listener();
  held.reset();
  EXPECT_TRUE(watched.expired());
}

TEST_F(RESTPollingManagerTest, TheWorkerRunsAtBackgroundPriorityAndPushesFromItsOwnThread) {
  serveChanges();
  poll(SHORT);
  ASSERT_TRUE(controller.waitFor(&Seen::pushes, 1));
  // Where the test itself is as nice as can be, the worker cannot be nicer.
  EXPECT_EQ(controller.seen().niceness, std::min(19, 10 + std::max(0, ::getpriority(PRIO_PROCESS, 0))));
  EXPECT_NE(controller.seen().pusher, ::gettid());
}

TEST_F(RESTPollingManagerTest, ManyThreadsEnterLeaveAndAskWhileTheWorkerPolls) {
  serveChanges();
  poll(SHORT, {});
  inParallel(4, [this](std::size_t thread) {
    for (std::size_t i = 0; i < 100; ++i) {
      const std::string dir = "/R/" + std::to_string((thread + i) % 60);
      manager->dirEnter(dir);
      manager->badgeFromCache(url(dir + "/x"));
      if (i % 3 == 0) manager->dirExit(dir);
    }
  });
  EXPECT_TRUE(controller.waitFor(&Seen::pushes, 10));
}

}  // namespace
}  // namespace vornet::test
