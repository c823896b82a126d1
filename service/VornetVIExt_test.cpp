// The extension process as its clients meet it: the built program, started on demand by a real message bus.
#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <thread>

#include "paths/JSON.hpp"
#include "support/BusClient.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/LoopbackServer.hpp"
#include "support/PrivateBus.hpp"
#include "support/StartedProgram.hpp"
#include "support/Threads.hpp"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using vornet::test::BusClient;
using vornet::test::BusReply;
using vornet::test::Environment;
using vornet::test::LoopbackServer;
using vornet::test::MenuEntry;
using vornet::test::PrivateBus;
using vornet::test::readFile;
using vornet::test::StartedProgram;
using vornet::test::WireReply;
using vornet::test::WireRequest;
using vornet::test::writeFile;

namespace fs = std::filesystem;

/// A sync application whose folders hold what `statuses` says, by cloud path.
class SyncApplication {
 public:
  SyncApplication() : server_([this](const WireRequest& request) { return answer(request); }) {}

  void set(const std::string& cloudPath, int code) {
    const std::lock_guard guard(lock_);
    statuses_[cloudPath] = code;
  }
  void setMenu(LoopbackServer::Answer menu) {
    const std::lock_guard guard(lock_);
    menu_ = std::move(menu);
  }
  LoopbackServer& server() { return server_; }

  /// The bodies of the requests to `command`.
  std::vector<std::string> bodies(const std::string& command) const {
    std::vector<std::string> result;
    for (const auto& request : server_.requests())
      if (request.target == "/" + command) result.push_back(request.body);
    return result;
  }

 private:
  WireReply answer(const WireRequest& request) {
    LoopbackServer::Answer menu;
    {
      const std::lock_guard guard(lock_);
      if (request.target == "/get_icons_for_folder") return statusesOf(request);
      menu = menu_;
    }
    return menu(request);
  }
  WireReply statusesOf(const WireRequest& request) const {
    const std::string dir(vornet::fromJSON(request.body).at("dir_name").as_string());
    std::string body;
    for (const auto& [path, code] : statuses_) {
      const bool child = path.starts_with(dir) && path.find('/', dir.size()) == std::string::npos;
      if (child) body += (body.empty() ? "\"" : ",\"") + path + "\":" + std::to_string(code);
    }
    return {.body = "{" + body + "}"};
  }

  mutable std::mutex lock_;
  std::map<std::string, int> statuses_;
  LoopbackServer::Answer menu_ = [](const WireRequest&) { return WireReply{.body = "{}"}; };
  LoopbackServer server_;
};

class VornetVIExtTest : public testing::Test {
 protected:
  VornetVIExtTest() {
    fs::create_directories(root + "/d");
    for (const char* name : {"x", "y", "a b"}) writeFile(root + "/" + name, "");
  }
  ~VornetVIExtTest() override {
    // The extension ends with its bus; only then may its folders go.
    const int process = bus ? BusClient(bus->address()).extensionProcess() : 0;
    if (bus) bus->stop();
    vornet::test::waitForEnd(process);
    if (bus) EXPECT_THAT(readFile(bus->output()), Not(HasSubstr("Sanitizer"))) << "in the extension's process";
    if (HasFailure() && bus) std::fputs(readFile(bus->output()).c_str(), stderr);
  }

  void configure() const { vornet::test::writePreferences(environment.container() / "VornetKelvane.plist", root); }
  /// Makes the bus; `client` is its first client.
  void start() {
    bus.emplace(environment.folder().path() / "bus");
    client.emplace(bus->address());
  }
  void startConfigured() {
    configure();
    start();
  }
  std::string url(const std::string& name) const { return "file://" + root + (name.empty() ? "" : "/" + name); }
  std::string logText() const { return readFile(environment.logFile()); }
  std::size_t logged(const std::string& message) const {
    const auto text = logText();
    std::size_t count = 0;
    for (auto at = text.find(message + "\n"); at != std::string::npos; at = text.find(message + "\n", at + 1)) ++count;
    return count;
  }
  /// How many folders were begun or ended to be observed, as the log tells.
  std::size_t enteredAndLeft() const {
    const auto text = logText();
    std::size_t count = 0;
    for (auto at = text.find("ObservingDirectoryAtURL: "); at != std::string::npos;
         at = text.find("ObservingDirectoryAtURL: ", at + 1)) {
      ++count;
    }
    return count;
  }
  bool waitForLog(const std::string& message, std::size_t times = 1) {
    return client->waitUntil([&] { return logged(message) >= times; });
  }

  Environment environment;
  const std::string root = environment.folder() / "root";
  std::optional<PrivateBus> bus;
  std::optional<BusClient> client;
};

// --- Life -----------------------------------------------------------------------------------------------------------

TEST_F(VornetVIExtTest, IsStartedByTheFirstCallAndShowsItsProperties) {
  startConfigured();
  EXPECT_EQ(client->extensionProcess(), 0);
  EXPECT_EQ(client->property("ObservedFolders"), "['file://" + root + "/']");
  EXPECT_NE(client->extensionProcess(), 0);
  EXPECT_EQ(client->property("Badges"),
            "[('SKIPPED', 'Not synced', 'error'), ('PENDING', 'Sync in progress', 'sync'), "
            "('SYNCED', 'Synced', 'checkmark')]");
  EXPECT_EQ(client->property("Version"), "'1.0.0'");
  EXPECT_EQ(client->property("LogFile"), "'" + environment.logFile().string() + "'");
}

TEST_F(VornetVIExtTest, TheLogTellsTheStoryOfTheStartLineByLine) {
  startConfigured();
  client->property("Version");
  const std::string date = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[Info\] )";
  std::string expected;
  for (const std::string& line :
       {": VornetVIExt Version: 1.0.0 Build: 1 PID: " + std::to_string(client->extensionProcess()),
        std::string(": XCGLogger Version: 1.8.1 - LogLevel: Info"),
        std::string("\\[Logging\\] setupLogger: Logger initialized on level: INFO"),
        std::string("\\[RESTPollingManager\\] start_listener: Starting REST status polling"),
        std::string("\\[FinderSync\\] init: Started new status manager"),
        "\\[RESTPollingManager\\] enableVI: Initialized Kevlane Finder plugin for path " + root,
        std::string("\\[RESTPollingManager\\] setupLocalRoot: Finder plugin enabled")}) {
    expected += date + line + "\n";
  }
  EXPECT_TRUE(std::regex_match(logText(), std::regex(expected))) << logText();
}

TEST_F(VornetVIExtTest, EndsWhenAskedToAndIsStartedAgainByTheNextCall) {
  startConfigured();
  client->property("Version");
  const int first = client->extensionProcess();
  ::kill(first, SIGTERM);
  ASSERT_TRUE(client->waitUntil([&] { return client->extensionProcess() == 0; }));
  EXPECT_EQ(client->property("Version"), "'1.0.0'");
  EXPECT_NE(client->extensionProcess(), first);
}

TEST_F(VornetVIExtTest, AskedToEndItMakesRoomForTheNextOneBeforeItHasEnded) {
  SyncApplication application;
  application.setMenu([](const WireRequest&) { return WireReply{.manner = WireReply::Manner::stall}; });
  startConfigured();
  client->property("Version");
  const int first = client->extensionProcess();
  bool answered = false;
  client->call("GetMenu", BusClient::urlArguments({url("x")}), [&answered](const BusReply&) { answered = true; });
  ASSERT_TRUE(application.server().waitForRequests(1));
  ::kill(first, SIGTERM);  // it has to wait for its request now
  ASSERT_TRUE(client->waitUntil([&] { return client->extensionProcess() != first; }));
  EXPECT_EQ(client->property("Version"), "'1.0.0'");
  EXPECT_NE(client->extensionProcess(), first);
  EXPECT_TRUE(client->waitUntil([&] { return answered; }));
  EXPECT_TRUE(vornet::test::waitForEnd(first));
}

TEST_F(VornetVIExtTest, KilledItIsBackWithTheNextCallAndItsLogBeginsAnew) {
  startConfigured();
  ASSERT_TRUE(client->beginObserving(url("")));
  ::kill(client->extensionProcess(), SIGKILL);
  ASSERT_TRUE(client->waitUntil([&] { return client->extensionProcess() == 0; }));
  EXPECT_TRUE(client->beginObserving(url("d")));
  EXPECT_EQ(logged("[FinderSync] beginObservingDirectoryAtURL: Directory enter: " + root + "/d"), 1u);
  EXPECT_EQ(logged("[FinderSync] beginObservingDirectoryAtURL: Directory enter: " + root), 0u);
}

TEST_F(VornetVIExtTest, ASecondProcessEndsItselfWithStatus0AndLeavesTheFirstAlone) {
  startConfigured();
  client->property("Version");
  const int first = client->extensionProcess();
  StartedProgram second({VORNET_EXTENSION}, {"DBUS_SESSION_BUS_ADDRESS=" + bus->address()},
                        environment.folder() / "second");
  EXPECT_EQ(second.wait(), 0);
  EXPECT_THAT(readFile(environment.folder() / "second"), HasSubstr("VornetVIExt already running"));
  EXPECT_EQ(client->extensionProcess(), first);
  EXPECT_EQ(client->property("Version"), "'1.0.0'");
}

TEST_F(VornetVIExtTest, EndsWhenItsBusGoesAway) {
  startConfigured();
  client->property("Version");
  const int process = client->extensionProcess();
  client.reset();
  bus->stop();
  bus.reset();
  EXPECT_TRUE(vornet::test::waitForEnd(process));
}

TEST_F(VornetVIExtTest, WithoutABusItSaysSoAndFails) {
  configure();
  StartedProgram alone({VORNET_EXTENSION}, {"DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent"},
                       environment.folder() / "alone");
  EXPECT_EQ(alone.wait(), 1);
  EXPECT_THAT(readFile(environment.folder() / "alone"), HasSubstr("no session bus: "));
}

TEST_F(VornetVIExtTest, WithoutAGroupContainerItStopsAtOnce) {
  StartedProgram lost({VORNET_EXTENSION}, {"VORNET_GROUP_CONTAINERS=/dev/null/none"}, environment.folder() / "lost");
  EXPECT_EQ(lost.wait(), 128 + SIGABRT);
  EXPECT_THAT(readFile(environment.folder() / "lost"), HasSubstr("Fatal error: no group container"));
}

TEST_F(VornetVIExtTest, SaysItsVersionAndRefusesOtherArguments) {
  StartedProgram version({VORNET_EXTENSION, "--version"}, {}, environment.folder() / "version");
  EXPECT_EQ(version.wait(), 0);
  EXPECT_EQ(readFile(environment.folder() / "version"), "VornetVIExt 1.0.0\n");
  StartedProgram other({VORNET_EXTENSION, "--other"}, {}, environment.folder() / "other");
  EXPECT_EQ(other.wait(), 2);
}

TEST_F(VornetVIExtTest, StartedBeforeTheSyncApplicationIsConfiguredItFindsTheFolderWhenThePreferencesAppear) {
  start();
  EXPECT_EQ(client->property("ObservedFolders"), "[]");
  EXPECT_EQ(client->beginObserving(url("")).error, "OutsideObservedFolders");
  std::vector<MenuEntry> entries;
  EXPECT_EQ(client->performAction("share:", {url("x")}).error, "OutsideObservedFolders");
  EXPECT_THAT(client->requestBadges({url("x")}).texts(), ElementsAre(""));
  EXPECT_EQ(logged("[RESTPollingManager] setupLocalRoot: Skipping initialization, Kevlane not configured"), 1u);

  configure();
  EXPECT_TRUE(client->waitUntil([&] { return client->property("ObservedFolders") == "['file://" + root + "/']"; }));
  EXPECT_TRUE(client->beginObserving(url("")));
}

TEST_F(VornetVIExtTest, InstalledUnderAPrefixItIsStartedFromThereAndFindsItsImages) {
  const auto prefix = environment.folder().path() / "prefix";
  // Installing writes into the build tree; the tests of script/install take the same lock.
  StartedProgram install(
      {"flock", VORNET_BUILD "/install.lock", VORNET_CMAKE, "--install", VORNET_BUILD, "--prefix", prefix.string()}, {},
      environment.folder() / "install");
  ASSERT_EQ(install.wait(), 0) << readFile(environment.folder() / "install");
  for (const char* file :
       {"bin/vornet-vi", "bin/kelvane-sim", "share/icons/hicolor/16x16/emblems/emblem-vornet-synced.png",
        "share/icons/hicolor/scalable/emblems/emblem-vornet-pending.svg"}) {
    EXPECT_TRUE(fs::exists(prefix / file)) << file;
  }
  configure();
  bus.emplace(environment.folder().path() / "bus", prefix / "share/dbus-1/services");
  client.emplace(bus->address());
  EXPECT_EQ(client->property("ObservedFolders"), "['file://" + root + "/']") << "without its images it would stop";
  const auto program = fs::read_symlink("/proc/" + std::to_string(client->extensionProcess()) + "/exe");
  EXPECT_EQ(program, prefix / "libexec/VornetVIExt");
}

// --- Observing ------------------------------------------------------------------------------------------------------

TEST_F(VornetVIExtTest, ObservesFoldersWithinTheSyncedFolderAndRefusesEverythingElse) {
  startConfigured();
  EXPECT_TRUE(client->beginObserving(url("")));
  EXPECT_TRUE(client->beginObserving(url("d") + "/"));
  EXPECT_EQ(client->beginObserving(url("x")).error, "NotAFolder");
  EXPECT_EQ(client->beginObserving(url("gone")).error, "NotAFolder");
  EXPECT_EQ(client->beginObserving("file:///etc").error, "OutsideObservedFolders");
  EXPECT_EQ(client->beginObserving("file://" + root + "x").error, "OutsideObservedFolders");
  EXPECT_EQ(client->beginObserving(url("../root")).error, "InvalidURL");
  EXPECT_EQ(client->beginObserving(root).error, "InvalidURL");
  EXPECT_EQ(client->beginObserving(url("%FF")).error, "InvalidURL");
  EXPECT_EQ(client->endObserving(url("x")).error, "NotObserving");
  EXPECT_EQ(client->endObserving("nonsense").error, "InvalidURL");
  EXPECT_EQ(enteredAndLeft(), 2u) << "a refused call changes nothing";
}

TEST_F(VornetVIExtTest, TwoClientsThatShowTheSameFolderShareOneObservation) {
  startConfigured();
  BusClient second(bus->address());
  const std::string enter = "[FinderSync] beginObservingDirectoryAtURL: Directory enter: " + root;
  const std::string exit = "[FinderSync] endObservingDirectoryAtURL: Directory exit: " + root;
  ASSERT_TRUE(client->beginObserving(url("")));
  ASSERT_TRUE(client->beginObserving(url("")));
  ASSERT_TRUE(second.beginObserving(url("")));
  EXPECT_EQ(logged(enter), 3u) << "each beginning reaches the poller";
  ASSERT_TRUE(client->endObserving(url("")));
  ASSERT_TRUE(second.endObserving(url("")));
  EXPECT_EQ(second.endObserving(url("")).error, "NotObserving");
  EXPECT_EQ(logged(exit), 0u);
  ASSERT_TRUE(client->endObserving(url("")));
  EXPECT_EQ(logged(exit), 1u);
}

TEST_F(VornetVIExtTest, AClientThatVanishesFromTheBusIsCleanedUp) {
  startConfigured();
  std::optional<BusClient> second(bus->address());
  ASSERT_TRUE(second->beginObserving(url("d")));
  ASSERT_TRUE(second->beginObserving(url("")));
  ASSERT_TRUE(client->beginObserving(url("")));
  second.reset();
  EXPECT_TRUE(waitForLog("[FinderSync] endObservingDirectoryAtURL: Directory exit: " + root + "/d"));
  EXPECT_EQ(logged("[FinderSync] endObservingDirectoryAtURL: Directory exit: " + root), 0u);
}

TEST_F(VornetVIExtTest, ClientsThatLeftAreNoLongerWatched) {
  startConfigured();
  client->property("Version");
  const auto before = client->extensionsMatchRules();
  ASSERT_TRUE(before);
  std::vector<std::unique_ptr<BusClient>> others;
  for (int i = 0; i < 10; ++i) {
    others.push_back(std::make_unique<BusClient>(bus->address()));
    ASSERT_TRUE(others.back()->beginObserving(url("d")));
  }
  ASSERT_TRUE(client->waitUntil([&] { return client->extensionsMatchRules() >= *before + 10; }));
  others.clear();
  EXPECT_TRUE(client->waitUntil([&] { return client->extensionsMatchRules() == before; }));
}

TEST_F(VornetVIExtTest, AFolderThatTheSyncApplicationDidNotKnowIsPolledAgainWhenAnotherWindowShowsIt) {
  LoopbackServer application([](const WireRequest&) { return WireReply{.status = 404}; });
  startConfigured();
  ASSERT_TRUE(client->beginObserving(url("d")));
  ASSERT_TRUE(
      waitForLog("[RESTPollingManager] poll: Directory " + root + "/d does not exist (404), ignoring subscription"));
  application.setAnswer([](const WireRequest&) { return WireReply{.body = R"({"/d/x":2})"}; });
  BusClient second(bus->address());
  ASSERT_TRUE(second.beginObserving(url("d")));
  EXPECT_TRUE(application.waitForRequests(2));
  EXPECT_TRUE(client->waitUntil([&] { return client->requestBadges({url("d/x")}).texts()[0] == "SYNCED"; }));
}

TEST_F(VornetVIExtTest, MoreFoldersThanCanBeKeptUpToDateAreRefusedAndNothingIsObserved) {
  startConfigured();
  for (int i = 0; i <= 50; ++i) fs::create_directory(root + "/" + std::to_string(i));
  BusClient second(bus->address());
  for (int i = 0; i < 50; ++i) ASSERT_TRUE((i % 2 ? second : *client).beginObserving(url(std::to_string(i)))) << i;
  EXPECT_EQ(enteredAndLeft(), 50u);
  EXPECT_EQ(client->beginObserving(url("50")).error, "TooManyFolders");
  EXPECT_EQ(second.beginObserving(url("50")).error, "TooManyFolders");
  EXPECT_EQ(enteredAndLeft(), 50u);
  EXPECT_EQ(client->endObserving(url("50")).error, "NotObserving");
  EXPECT_TRUE(client->beginObserving(url("1"))) << "it is observed already, by the other client";
  EXPECT_TRUE(second.endObserving(url("3")));
  EXPECT_TRUE(client->beginObserving(url("50")));
}

TEST_F(VornetVIExtTest, AFolderOnScreenStaysUpToDateHoweverManyOthersWereShownSince) {
  SyncApplication application;
  application.set("/d/x", 1);
  startConfigured();
  ASSERT_TRUE(client->beginObserving(url("d")));
  ASSERT_TRUE(client->waitUntil([&] { return client->requestBadges({url("d/x")}).texts()[0] == "PENDING"; }));
  for (int i = 0; i < 60; ++i) {
    const auto other = std::to_string(i);
    fs::create_directory(root + "/" + other);
    ASSERT_TRUE(client->beginObserving(url(other)));
    ASSERT_TRUE(client->endObserving(url(other)));
  }
  application.set("/d/x", 2);
  EXPECT_TRUE(client->waitForChange(url("d/x"), "SYNCED"));
}

TEST_F(VornetVIExtTest, AFolderIsOneHoweverItIsSpelled) {
  SyncApplication application;
  application.set("/d/x", 1);
  startConfigured();
  for (const char* spelling : {"d", "/d", "d/", "d//", "//d///"})
    ASSERT_TRUE(client->beginObserving(url(spelling))) << spelling;
  EXPECT_EQ(logged("[FinderSync] beginObservingDirectoryAtURL: Directory enter: " + root + "/d"), 5u);
  ASSERT_TRUE(client->waitUntil([&] { return client->requestBadges({url("d//x")}).texts()[0] == "PENDING"; }));
  application.set("/d/x", 2);
  EXPECT_TRUE(client->waitForChange(url("d/x"), "SYNCED"));
  for (const char* spelling : {"d//", "d", "///d", "d", "d"})
    ASSERT_TRUE(client->endObserving(url(spelling))) << spelling;
  EXPECT_EQ(logged("[FinderSync] endObservingDirectoryAtURL: Directory exit: " + root + "/d"), 1u);
}

TEST_F(VornetVIExtTest, AClientMayBeginAThousandObservations) {
  startConfigured();
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(client->beginObserving(url(i % 2 ? "d" : ""))) << i;
  EXPECT_EQ(client->beginObserving(url("d")).error, "TooManyFolders");
  EXPECT_EQ(enteredAndLeft(), 1000u);
  EXPECT_TRUE(BusClient(bus->address()).beginObserving(url("d"))) << "another client's are counted apart";
  EXPECT_TRUE(client->endObserving(url("d")));
  EXPECT_TRUE(client->beginObserving(url("")));
}

TEST_F(VornetVIExtTest, APathThatHoldsTheRootsTextTwiceHasNoBadgeNoMenuNoActionAndIsNotObserved) {
  const std::string outer = root + "/a" + fs::path(root).parent_path().string();  // the root's text fits in below it
  const std::string inner = outer + "/" + fs::path(root).filename().string();
  fs::create_directories(inner);
  writeFile(inner + "/x", "");
  const std::string cloudOuter = outer.substr(root.size());
  vornet::test::makeSyncDatabase(environment.container() / "sync.db", {{"/a/x", 2}, {"/a/", 2}, {"/a", 2}});
  SyncApplication application;
  application.set(cloudOuter + "/root", 1);
  application.set(cloudOuter + "/other", 1);
  startConfigured();
  EXPECT_THAT(client->requestBadges({"file://" + inner + "/x", "file://" + inner, "file://" + inner + "x"}).texts(),
              Each(""));
  std::vector<MenuEntry> entries;
  EXPECT_TRUE(client->menu({url("x"), "file://" + inner + "/x"}, entries));
  EXPECT_THAT(entries, IsEmpty());
  EXPECT_EQ(client->performAction("share:", {"file://" + inner + "/x"}).error, "OutsideObservedFolders");
  EXPECT_THAT(application.bodies("mac_populate_menu"), IsEmpty());
  EXPECT_THAT(application.bodies("select_context_menu"), IsEmpty());
  EXPECT_EQ(client->beginObserving("file://" + inner).error, "OutsideObservedFolders");
  EXPECT_THAT(application.bodies("get_icons_for_folder"), IsEmpty());

  ASSERT_TRUE(client->beginObserving("file://" + outer));
  ASSERT_TRUE(
      client->waitUntil([&] { return client->requestBadges({"file://" + outer + "/other"}).texts()[0] == "PENDING"; }));
  for (const char* name : {"/root", "/other"}) application.set(cloudOuter + name, 2);
  ASSERT_TRUE(client->waitForChange("file://" + outer + "/other", "SYNCED"));
  EXPECT_EQ(client->changes().count("file://" + inner), 0u);
  EXPECT_THAT(client->requestBadges({"file://" + inner}).texts(), ElementsAre(""));
}

TEST_F(VornetVIExtTest, AFolderRemovedFromDiskCanStillBeLeft) {
  startConfigured();
  ASSERT_TRUE(client->beginObserving(url("d")));
  fs::remove_all(root + "/d");
  EXPECT_TRUE(client->endObserving(url("d")));
}

// --- Badges ---------------------------------------------------------------------------------------------------------

TEST_F(VornetVIExtTest, AnswersBadgesInTheOrderAsked) {
  vornet::test::makeSyncDatabase(environment.container() / "sync.db",
                                 {{"/x", 2}, {"/y", 1}, {"/a b", 0}, {"/d/", 2}, {"/odd", 7}});
  startConfigured();
  EXPECT_THAT(
      client->requestBadges({url("y"), url("x"), url("a%20b"), url("d"), url("gone"), url("odd"), url("x")}).texts(),
      ElementsAre("PENDING", "SYNCED", "SKIPPED", "SYNCED", "", "", "SYNCED"));
  EXPECT_THAT(client->requestBadges({}).texts(), IsEmpty());
}

TEST_F(VornetVIExtTest, ItemsOutsideTheSyncedFolderAndNamesThatAreNotUTF8HaveNoBadge) {
  vornet::test::makeSyncDatabase(environment.container() / "sync.db", {{"/x", 2}, {"/", 2}, {root, 2}, {"/etc", 2}});
  startConfigured();
  EXPECT_THAT(client->requestBadges({"file:///etc", url("%FF%FE"), url(""), url("x"), "file://" + root + "x"}).texts(),
              ElementsAre("", "", "", "SYNCED", ""));
}

TEST_F(VornetVIExtTest, RefusesMalformedURLsAndOverlongBatchesWhole) {
  vornet::test::makeSyncDatabase(environment.container() / "sync.db", {{"/x", 2}});
  startConfigured();
  EXPECT_EQ(client->requestBadges({url("x"), "nonsense"}).error, "InvalidURL");
  EXPECT_EQ(client->requestBadges({url("../x")}).error, "InvalidURL");
  EXPECT_EQ(client->requestBadges(std::vector<std::string>(10'001, url("x"))).error, "TooManyURLs");
  EXPECT_THAT(client->requestBadges(std::vector<std::string>(10'000, url("x"))).texts(),
              testing::AllOf(SizeIs(10'000), Each("SYNCED")));
}

TEST_F(VornetVIExtTest, TellsItsObserversOfChangedBadgesAndNobodyElse) {
  SyncApplication application;
  application.set("/x", 1);
  application.set("/y", 1);
  startConfigured();
  BusClient bystander(bus->address());
  BusClient elsewhere(bus->address());
  ASSERT_TRUE(elsewhere.beginObserving(url("d")));
  ASSERT_TRUE(client->beginObserving(url("")));
  ASSERT_TRUE(application.server().waitForRequests(2));
  // Which of the two the first pass found filled already is of no account: the answer is the application's.
  ASSERT_TRUE(client->waitUntil([&] { return client->requestBadges({url("x")}).texts()[0] == "PENDING"; }));
  application.set("/x", 2);
  EXPECT_TRUE(client->waitForChange(url("x"), "SYNCED"));
  EXPECT_EQ(client->changes().count(url("y")), 0u);
  EXPECT_THAT(client->requestBadges({url("x"), url("y")}).texts(), ElementsAre("SYNCED", "PENDING"));
  bystander.forgetChanges();
  elsewhere.forgetChanges();
  EXPECT_EQ(bystander.signals() + elsewhere.signals(), 0u);
}

TEST_F(VornetVIExtTest, AnEmptiedIdentifierIsToldToo) {
  SyncApplication application;
  application.set("/x", 2);
  startConfigured();
  ASSERT_TRUE(client->beginObserving(url("")));
  ASSERT_TRUE(client->waitUntil([&] { return client->requestBadges({url("x")}).texts()[0] == "SYNCED"; }));
  application.set("/x", -1);
  EXPECT_TRUE(client->waitForChange(url("x"), ""));
}

TEST_F(VornetVIExtTest, ManyChangesComeInFewSignals) {
  SyncApplication application;
  for (int i = 0; i < 5000; ++i) application.set("/" + std::to_string(i), 1);
  startConfigured();
  ASSERT_TRUE(client->beginObserving(url("")));
  ASSERT_TRUE(client->waitUntil([&] { return client->requestBadges({url("4999")}).texts()[0] == "PENDING"; }));
  for (int i = 0; i < 5000; ++i) application.set("/" + std::to_string(i), 2);
  // Single settings may fall into two passes; all arrive, in far fewer signals than changes.
  ASSERT_TRUE(client->waitUntil([&] {
    return client->changes().size() == 5000 && client->changes().at(url("4999")) == "SYNCED" &&
           client->changes().at(url("0")) == "SYNCED";
  }));
  EXPECT_LE(client->signals(), 100u);
}

TEST_F(VornetVIExtTest, WhatWasAnsweredBeforeTheFolderWasFilledIsCorrectedAlsoWhereNoBadgeWasKnown) {
  vornet::test::makeSyncDatabase(environment.container() / "sync.db", {{"/x", 1}, {"/y", 7}});
  vornet::test::Gate asked;
  LoopbackServer application([&asked](const WireRequest&) {
    asked.passInTime();
    return WireReply{.body = R"({"/x":2,"/y":2})"};
  });
  startConfigured();
  ASSERT_TRUE(client->beginObserving(url("")));
  EXPECT_THAT(client->requestBadges({url("x"), url("y")}).texts(), ElementsAre("PENDING", ""));
  asked.open();
  EXPECT_TRUE(client->waitForChange(url("x"), "SYNCED"));
  EXPECT_TRUE(client->waitForChange(url("y"), "SYNCED"));
}

TEST_F(VornetVIExtTest, WhatTheCacheKnowsIsAnsweredWhileLookUpsMeetALockedDatabase) {
  const auto database = environment.container() / "sync.db";
  vornet::test::makeSyncDatabase(database, {{"/d/0", 2}});
  SyncApplication application;
  application.set("/x", 2);
  startConfigured();
  BusClient second(bus->address());
  ASSERT_TRUE(client->beginObserving(url("")));
  ASSERT_TRUE(client->waitUntil([&] { return client->requestBadges({url("x")}).texts()[0] == "SYNCED"; }));

  vornet::test::Database writer(database);
  writer.run("BEGIN EXCLUSIVE");
  std::vector<std::string> batch;
  for (int i = 0; i < 500; ++i) batch.push_back(url("d/" + std::to_string(i)));
  int answered = 0;
  const auto began = std::chrono::steady_clock::now();
  for (int i = 0; i < 2; ++i)
    second.call("RequestBadges", BusClient::urlArguments(batch), [&answered](const BusReply&) { ++answered; });
  second.property("Version");  // the batches are with the extension now
  const auto asked = std::chrono::steady_clock::now();
  EXPECT_THAT(client->requestBadges({url("x")}).texts(), ElementsAre("SYNCED"));
  const auto cached = std::chrono::steady_clock::now() - asked;
  EXPECT_TRUE(second.waitUntil([&] { return answered == 2; }));
  const auto batches = std::chrono::steady_clock::now() - began;
  const auto ms = [](auto time) {
    return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(time).count());
  };
  RecordProperty("cached badge, ms", ms(cached));
  RecordProperty("both batches, ms", ms(batches));
  // Each look-up waiting by itself, the two batches would take 50 s; so would the badge behind them.
  EXPECT_LT(cached, std::chrono::seconds(3));
  EXPECT_LT(batches, std::chrono::seconds(15));
}

TEST_F(VornetVIExtTest, ALockedDatabaseTakesNoBadgeAwayAndWhatItHidIsToldWhenItIsUnlocked) {
  const auto database = environment.container() / "sync.db";
  vornet::test::makeSyncDatabase(database, {{"/x", 2}, {"/y", 2}, {"/d/x", 2}, {"/d/y", 1}, {"/d/z", 2}});
  startConfigured();  // without a sync application: no folder is ever filled
  BusClient bystander(bus->address());
  ASSERT_TRUE(bystander.beginObserving(url("d")));
  ASSERT_TRUE(client->beginObserving(url("d")));
  ASSERT_THAT(client->requestBadges({url("d/x"), url("d/z"), url("x")}).texts(), Each("SYNCED"));

  vornet::test::Database writer(database);
  writer.run("BEGIN EXCLUSIVE");
  EXPECT_THAT(client->requestBadges({url("d/x"), url("d/y"), url("d/z"), url("x"), url("y")}).texts(),
              ElementsAre("SYNCED", "", "SYNCED", "SYNCED", ""));
  // Over several look-ups that fail.
  ASSERT_TRUE(client->waitUntil([&] { return logged("[SyncDB] pathSyncStatus: Cannot prepare SQL statement") > 6; }));
  EXPECT_EQ(client->signals(), 0u);

  writer.run("UPDATE ea SET status = 0 WHERE path IN ('/d/x', '/x'); COMMIT");
  EXPECT_TRUE(client->waitForChange(url("d/x"), "SKIPPED"));
  EXPECT_TRUE(client->waitForChange(url("d/y"), "PENDING"));
  EXPECT_TRUE(client->waitForChange(url("x"), "SKIPPED")) << "though its folder is not observed";
  EXPECT_TRUE(client->waitForChange(url("y"), "SYNCED"));
  EXPECT_EQ(client->changes().count(url("d/z")), 0u) << "it was right";
  EXPECT_TRUE(bystander.waitForChange(url("d/y"), "PENDING"));
  bystander.property("Version");
  EXPECT_EQ(bystander.changes().count(url("x")) + bystander.changes().count(url("y")), 0u);
}

TEST_F(VornetVIExtTest, AnAnswerGivenAfterTheLockIsNotRepeatedAsASignal) {
  const auto database = environment.container() / "sync.db";
  vornet::test::makeSyncDatabase(database, {{"/x", 2}});
  startConfigured();
  BusClient waiting(bus->address());
  vornet::test::Database writer(database);
  writer.run("BEGIN EXCLUSIVE");
  for (auto* each : {&*client, &waiting}) ASSERT_THAT(each->requestBadges({url("x")}).texts(), ElementsAre(""));
  writer.run("COMMIT");
  EXPECT_THAT(client->requestBadges({url("x")}).texts(), ElementsAre("SYNCED"));
  client->forgetChanges();  // one may have come before the answer
  EXPECT_TRUE(waiting.waitForChange(url("x"), "SYNCED"));
  EXPECT_TRUE(client->requestBadges({}));  // what was sent before its answer has come
  EXPECT_EQ(client->signals(), 0u);
}

TEST_F(VornetVIExtTest, MoreThanCanBeLookedUpAgainIsRefused) {
  const auto database = environment.container() / "sync.db";
  vornet::test::makeSyncDatabase(database, {{"/x", 2}});
  startConfigured();
  vornet::test::Database writer(database);
  writer.run("BEGIN EXCLUSIVE");
  std::vector<std::string> batch(10'000);
  for (int call = 0; call < 3; ++call) {
    for (std::size_t i = 0; i < batch.size(); ++i) batch[i] = url(std::to_string(call) + "-" + std::to_string(i));
    EXPECT_EQ(client->requestBadges(batch).error, call < 2 ? "" : "Busy");
  }
  writer.run("COMMIT");
  EXPECT_TRUE(client->waitUntil([&] { return client->requestBadges(batch).error.empty(); }));
}

TEST_F(VornetVIExtTest, AClientThatLeavesIsForgottenAlsoWhileItsAnswersAreInDoubt) {
  const auto database = environment.container() / "sync.db";
  vornet::test::makeSyncDatabase(database, {{"/x", 2}});
  startConfigured();
  client->property("Version");
  const auto before = client->extensionsMatchRules();
  ASSERT_TRUE(before);
  vornet::test::Database writer(database);
  writer.run("BEGIN EXCLUSIVE");
  std::optional<BusClient> second(bus->address());
  ASSERT_THAT(second->requestBadges({url("x")}).texts(), ElementsAre(""));
  ASSERT_TRUE(client->waitUntil([&] { return client->extensionsMatchRules() > before; }));
  const auto failed = [&] { return logged("[SyncDB] pathSyncStatus: Cannot prepare SQL statement"); };
  const auto sofar = failed();
  ASSERT_TRUE(client->waitUntil([&] { return failed() > sofar; })) << "it is looked up again";
  second.reset();
  EXPECT_TRUE(client->waitUntil([&] { return client->extensionsMatchRules() == before; }));
}

TEST_F(VornetVIExtTest, AnAnswerIsNotRepeatedAsASignal) {
  vornet::test::makeSyncDatabase(environment.container() / "sync.db", {{"/x", 2}, {"/y", 1}});
  startConfigured();
  ASSERT_TRUE(client->beginObserving(url("")));
  for (int i = 0; i < 3; ++i) client->requestBadges({url("x"), url("y")});
  client->forgetChanges();
  client->property("Version");
  EXPECT_EQ(client->signals(), 0u);
}

TEST_F(VornetVIExtTest, AChangeFoundByOneClientsRequestIsToldToTheOthers) {
  const auto database = environment.container() / "sync.db";
  vornet::test::makeSyncDatabase(database, {{"/x", 1}});
  startConfigured();
  BusClient second(bus->address());
  ASSERT_TRUE(client->beginObserving(url("")));
  ASSERT_THAT(client->requestBadges({url("x")}).texts(), ElementsAre("PENDING"));
  vornet::test::Database(database).run("UPDATE ea SET status = 2");
  ASSERT_THAT(second.requestBadges({url("x")}).texts(), ElementsAre("SYNCED"));
  EXPECT_TRUE(client->waitForChange(url("x"), "SYNCED"));
}

TEST_F(VornetVIExtTest, AMenuThatWaitsForTheSyncApplicationDelaysNoBadge) {
  SyncApplication application;
  application.setMenu([](const WireRequest&) { return WireReply{.manner = WireReply::Manner::stall}; });
  vornet::test::makeSyncDatabase(environment.container() / "sync.db", {{"/x", 2}});
  startConfigured();
  int menus = 0;
  for (int i = 0; i < 12; ++i)  // more than there are threads for
    client->call("GetMenu", BusClient::urlArguments({url("x")}), [&menus](const BusReply&) { ++menus; });
  EXPECT_THAT(client->requestBadges({url("x")}).texts(), ElementsAre("SYNCED"));
  EXPECT_TRUE(client->beginObserving(url("")));
  EXPECT_TRUE(client->endObserving(url("")));
  EXPECT_EQ(menus, 0);
  EXPECT_TRUE(client->waitUntil([&] { return menus == 12; }));
}

TEST_F(VornetVIExtTest, TooManyMenusAtOnceAreRefusedAndBadgesGoOn) {
  SyncApplication application;
  application.setMenu([](const WireRequest&) { return WireReply{.manner = WireReply::Manner::stall}; });
  startConfigured();
  client->property("Version");
  int answered = 0;
  int busy = 0;
  for (int i = 0; i < 100; ++i) {
    client->call("GetMenu", BusClient::urlArguments({url("x")}), [&](const BusReply& reply) {
      ++answered;
      if (reply.error == "Busy") ++busy;
    });
  }
  EXPECT_TRUE(client->waitUntil([&] { return busy == 100 - 64; }));
  EXPECT_TRUE(client->requestBadges({url("x")}));
  // Asked to end, it drops the menus that wait: carried out, they would take longer than this test is patient.
  ::kill(client->extensionProcess(), SIGTERM);
  EXPECT_TRUE(client->waitUntil([&] { return client->extensionProcess() == 0 && answered == 100; }));
}

// --- Menus ----------------------------------------------------------------------------------------------------------

TEST_F(VornetVIExtTest, GivesTheFiveEntriesOfASelection) {
  SyncApplication application;
  application.setMenu([](const WireRequest&) { return WireReply{.body = R"({"1":true,"3":true,"4":false})"}; });
  startConfigured();
  std::vector<MenuEntry> entries;
  ASSERT_TRUE(client->menu({url("x"), url("d")}, entries));
  std::vector<std::string> shown;
  for (const auto& entry : entries) {
    shown.push_back(entry.title + "|" + entry.action + "|" + (entry.enabled ? "enabled" : "greyed") + "|" +
                    entry.image);
  }
  EXPECT_THAT(shown,
              ElementsAre("Share|share:|enabled|QMT", "Copy Link|copyLink:|greyed|QMT", "Comments|notes:|greyed|QMT",
                          "View versions|viewVersions:|greyed|QMT", "View in Cloud|viewInCloud:|enabled|QMT"));
  EXPECT_THAT(application.bodies("mac_populate_menu"), ElementsAre(R"({"paths":["/x","/d/"]})"));
}

TEST_F(VornetVIExtTest, GivesNoEntriesForASelectionOutsideTheSyncedFolder) {
  SyncApplication application;
  startConfigured();
  std::vector<MenuEntry> entries;
  EXPECT_TRUE(client->menu({"file:///etc"}, entries));
  EXPECT_THAT(entries, IsEmpty());
  EXPECT_TRUE(client->menu({url("x"), "file:///etc"}, entries));
  EXPECT_THAT(entries, IsEmpty());
  EXPECT_THAT(application.bodies("mac_populate_menu"), IsEmpty());
  EXPECT_EQ(client->menu({"nonsense"}, entries).error, "InvalidURL");
  EXPECT_EQ(client->menu({url("%FF")}, entries).error, "InvalidURL");
  EXPECT_EQ(client->menu(std::vector<std::string>(10'001, url("x")), entries).error, "TooManyURLs");
}

TEST_F(VornetVIExtTest, PerformsAnActionOnASelection) {
  SyncApplication application;
  startConfigured();
  EXPECT_TRUE(client->performAction("copyLink:", {url("a%20b"), url("d")}));
  EXPECT_THAT(application.bodies("select_context_menu"), ElementsAre(R"({"uid":"2","paths":["/a b","/d/"]})"));
}

TEST_F(VornetVIExtTest, RefusesUnknownActionsAndSelectionsThatItCannotServe) {
  SyncApplication application;
  startConfigured();
  for (const char* action : {"", "share", "enableVI:", "disableVI", "setFileSyncStatus:status:", "init"})
    EXPECT_EQ(client->performAction(action, {url("x")}).error, "UnknownAction") << action;
  EXPECT_EQ(client->performAction("share:", {"file:///etc"}).error, "OutsideObservedFolders");
  EXPECT_EQ(client->performAction("share:", {"nonsense"}).error, "InvalidURL");
  EXPECT_EQ(client->performAction("share:", std::vector<std::string>(10'001, url("x"))).error, "TooManyURLs");
  EXPECT_THAT(application.bodies("select_context_menu"), IsEmpty());
  EXPECT_EQ(client->property("ObservedFolders"), "['file://" + root + "/']");
}

TEST_F(VornetVIExtTest, AnActionWithoutSyncApplicationIsAnsweredAndLogged) {
  startConfigured();
  EXPECT_TRUE(client->performAction("share:", {url("x")}));
  EXPECT_THAT(logText(), HasSubstr("[Warning] [MenuActions] selectContextMenu: Unexpected error occured while fetching "
                                   "context menu: ResourceUnavailable\n"));
}

TEST_F(VornetVIExtTest, SelectionsInFlightNeverMix) {
  SyncApplication application;
  application.setMenu([](const WireRequest& request) {
    const bool first = request.body == R"({"paths":["/x"]})";
    return WireReply{.body = first ? R"({"1":true})" : R"({"3":true})"};
  });
  startConfigured();
  client->property("Version");
  int right = 0;
  int answered = 0;
  for (int i = 0; i < 60; ++i) {
    const bool first = i % 2 == 0;
    client->call("GetMenu", BusClient::urlArguments({url(first ? "x" : "y")}), [&, first](const BusReply& reply) {
      ++answered;
      if (!reply.value) return;
      gchar* text = g_variant_print(reply.value.get(), FALSE);
      const std::string printed(text);
      g_free(text);
      const bool share = printed.find("'share:', true") != std::string::npos;
      const bool cloud = printed.find("'viewInCloud:', true") != std::string::npos;
      if (share == first && cloud != first) ++right;
    });
  }
  EXPECT_TRUE(client->waitUntil([&] { return answered == 60; }));
  EXPECT_EQ(right, 60);
}

}  // namespace
