// The whole system: a folder kept by the stand-in sync application, the extension started on demand by a real message
// bus, and file managers: clients on that bus, the one for the terminal among them.
#include <gmock/gmock.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include "kelvane-sim/KelvaneSim.hpp"
#include "support/BusClient.hpp"
#include "support/Environment.hpp"
#include "support/PrivateBus.hpp"
#include "support/StartedProgram.hpp"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using vornet::sim::Fault;
using vornet::sim::KelvaneSim;
using vornet::test::BusClient;
using vornet::test::Environment;
using vornet::test::MenuEntry;
using vornet::test::PrivateBus;
using vornet::test::readFile;
using vornet::test::StartedProgram;
using vornet::test::writeFile;

namespace fs = std::filesystem;

constexpr auto PATIENCE = 30s;

class EndToEnd : public testing::Test {
 protected:
  EndToEnd() {
    fs::create_directories(root + "/folder");
    writeFile(root + "/file", "content");
    writeFile(root + "/other", "content");
    writeFile(root + "/folder/inside", "content");
  }
  ~EndToEnd() override {
    int process = 0;
    if (bus) {
      process = BusClient(bus->address()).extensionProcess();
      bus->stop();
    }
    vornet::test::waitForEnd(process);
    if (bus) EXPECT_THAT(readFile(bus->output()), Not(HasSubstr("Sanitizer"))) << "in the extension's process";
    if (HasFailure() && bus) std::fputs(readFile(bus->output()).c_str(), stderr);
  }

  KelvaneSim& makeApplication(std::chrono::milliseconds transferTime = 0ms) {
    application = std::make_unique<KelvaneSim>(KelvaneSim::Options{.root = root,
                                                                   .container = environment.container().string(),
                                                                   .state = environment.folder() / "state",
                                                                   .transferTime = transferTime});
    return *application;
  }
  /// Starts the application, with everything synced when this returns.
  void startSynced() {
    makeApplication().start();
    ASSERT_TRUE(application->waitUntilIdle(PATIENCE));
  }
  void startBus() {
    bus.emplace(environment.folder().path() / "bus");
    client.emplace(bus->address());
  }

  std::string url(const std::string& name) const { return "file://" + root + (name.empty() ? "" : "/" + name); }
  std::string logText() const { return readFile(environment.logFile()); }
  bool waitForLog(const std::string& text) {
    return client->waitUntil([&] { return logText().find(text) != std::string::npos; });
  }
  std::string badge(const std::string& name) {
    const auto badges = client->requestBadges({url(name)}).texts();
    return badges.empty() ? "no answer" : badges[0];
  }
  bool waitForBadge(const std::string& name, const std::string& identifier) {
    return client->waitUntil([&] { return badge(name) == identifier; });
  }

  /// Puts a folder on screen, asks for the badge of one of its items, and waits until its statuses have been fetched.
  void observe(const std::string& folder, const std::string& item) {
    ASSERT_TRUE(client->beginObserving(url(folder)));
    ASSERT_TRUE(waitForBadge(item, "SYNCED"));
    const std::string body = "{\"dir_name\":\"" + (folder.empty() ? "" : "/" + folder) + "/\"}";
    const auto polled = [&] {
      const auto requests = application->requests();
      return std::count_if(requests.begin(), requests.end(), [&](const auto& made) { return made.body == body; });
    };
    ASSERT_TRUE(client->waitUntil([&] { return polled() >= 1; }));
    pollNow();  // a second request for the folder shows that the answer to the first has been dealt with
    ASSERT_TRUE(client->waitUntil([&] { return polled() >= 2; }));
  }

  /// Has the extension poll every folder on screen at once: it does when a new one comes on screen.
  void pollNow() {
    const std::string name = "new" + std::to_string(++newFolders);
    fs::create_directories(root + "/" + name);
    ASSERT_TRUE(client->beginObserving(url(name)));
  }

  /// Runs a program of the build tree to its end. What it printed; `status` is its exit status.
  std::string run(const std::vector<std::string>& arguments) {
    const auto output = environment.folder() / ("output" + std::to_string(++runs));
    StartedProgram program(arguments, {"DBUS_SESSION_BUS_ADDRESS=" + bus->address()}, output);
    status = program.wait();
    return readFile(output);
  }

  Environment environment;
  const std::string root = environment.folder() / "root";
  std::unique_ptr<KelvaneSim> application;
  std::optional<PrivateBus> bus;
  std::optional<BusClient> client;
  int newFolders = 0;
  int runs = 0;
  int status = -1;
};

// --- In the terminal ------------------------------------------------------------------------------------------------

TEST_F(EndToEnd, TheTerminalListsAllThreeBadgesAndNoneWhereThereIsNone) {
  writeFile(root + "/lock.tmp", "");
  fs::create_symlink("file", root + "/link");
  startSynced();
  application->setStatus("/other", 1);
  startBus();
  const auto listed = run({VORNET_VI, "list", root});
  EXPECT_EQ(status, 0);
  EXPECT_THAT(listed, testing::ContainsRegex("Sync in progress[^\n]*other\n"));
  EXPECT_THAT(listed, testing::ContainsRegex("Synced[^\n]*  file\n"));
  EXPECT_THAT(listed, testing::ContainsRegex("Synced[^\n]*folder\n"));
  EXPECT_THAT(listed, testing::ContainsRegex("Not synced[^\n]*lock.tmp\n"));
  EXPECT_THAT(listed, testing::ContainsRegex("- [^\n]*link\n"));
}

TEST_F(EndToEnd, TheTerminalShowsAFileTurnFromSyncInProgressToSynced) {
  makeApplication().start();
  application->setStatus("/file", 1);
  ASSERT_TRUE(application->waitUntilIdle(PATIENCE));
  startBus();
  const auto output = environment.folder() / "watch";
  StartedProgram watch({VORNET_VI, "watch", root, "--for", "60"}, {"DBUS_SESSION_BUS_ADDRESS=" + bus->address()},
                       output);
  ASSERT_TRUE(client->waitUntil([&] { return readFile(output).find("Sync in progress  file") != std::string::npos; }));
  ASSERT_TRUE(application->waitForRequest("get_icons_for_folder", PATIENCE));
  application->clearRequests();
  application->setStatus("/file", 2);
  ASSERT_TRUE(application->waitForRequest("get_icons_for_folder", PATIENCE));
  // It shows with the first poll after the change, or at the latest with the second, if the first was just being
  // answered.
  ASSERT_TRUE(client->waitUntil([&] { return readFile(output).find("Synced  file") != std::string::npos; }));
  EXPECT_LE(application->requests().size(), 2u);
  watch.signal(SIGINT);
  EXPECT_EQ(watch.wait(), 0);
}

TEST_F(EndToEnd, AMenuChoiceMadeInTheTerminalArrivesAtTheSyncApplication) {
  startSynced();
  startBus();
  const auto menu = run({VORNET_VI, "menu", root + "/file"});
  EXPECT_EQ(status, 0);
  EXPECT_THAT(menu, testing::ContainsRegex("Share.*Copy Link.*Comments.*View versions.*View in Cloud"));
  run({VORNET_VI, "perform", "Copy Link", root + "/file"});
  EXPECT_EQ(status, 0);
  ASSERT_TRUE(application->waitForActions(1, PATIENCE));
  EXPECT_THAT(run({KELVANE_SIM, "journal", "--state", environment.folder() / "state"}), HasSubstr("Copy Link: /file"));

  const auto refused = run({VORNET_VI, "perform", "View versions", root + "/folder"});
  EXPECT_EQ(status, 1);
  EXPECT_EQ(application->actions().size(), 1u);
  run({VORNET_VI, "perform", "No such thing", root + "/file"});
  EXPECT_EQ(status, 1);
}

TEST_F(EndToEnd, TheTerminalTellsHowThingsStand) {
  startSynced();
  startBus();
  EXPECT_THAT(run({VORNET_VI, "status"}), HasSubstr("not running"));
  run({VORNET_VI, "list", root});
  const auto running = run({VORNET_VI, "status"});
  EXPECT_THAT(running, HasSubstr(root));
  EXPECT_THAT(running, HasSubstr(environment.logFile().string()));
  EXPECT_THAT(running, HasSubstr("HTTP 200"));
  application->stop();
  EXPECT_THAT(run({VORNET_VI, "status"}), Not(HasSubstr("HTTP 200")));
}

TEST_F(EndToEnd, TheTerminalRefusesAFolderOutsideTheSyncedOne) {
  startSynced();
  startBus();
  const auto said = run({VORNET_VI, "list", "/etc"});
  EXPECT_EQ(status, 1);
  EXPECT_THAT(said, testing::StartsWith("vornet-vi: "));
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1);
}

TEST_F(EndToEnd, OddNamesHaveTheirBadges) {
  const std::vector<std::string> names = {"with space",
                                          "100%",
                                          "a#b",
                                          "Gr\xC3\xBC\xC3\x9F"
                                          "e \xF0\x9F\x98\x80",
                                          "caf\xC3\xA9",
                                          "cafe\xCC\x81",
                                          std::string(255, 'x'),
                                          "quote\"s"};
  for (const auto& name : names) writeFile(root + "/folder/" + name, "");
  writeFile(root + "/folder/bytes\xFF", "");
  startSynced();
  // NFC and NFD are two names: each has its own status.
  application->setStatus("/folder/caf\xC3\xA9", 1);
  startBus();
  const auto listed = run({VORNET_VI, "--json", "list", root + "/folder"});
  EXPECT_EQ(status, 0);
  EXPECT_THAT(listed, HasSubstr("with%20space"));
  std::size_t synced = 0;
  for (auto at = listed.find("\"SYNCED\""); at != std::string::npos; at = listed.find("\"SYNCED\"", at + 1)) ++synced;
  // All but the pending one, the one that no sync application takes, and the one whose bytes are not UTF-8; and
  // "inside".
  EXPECT_EQ(synced, names.size() - 2 + 1);
}

// --- Faults of the sync application ---------------------------------------------------------------------------------

struct FaultCase {
  Fault fault;
  const char* name;
  const char* logged;  // what a poll says of it; "" when it says nothing

  friend void PrintTo(const FaultCase& tested, std::ostream* out) { *out << tested.name; }
};

class PollFault : public EndToEnd, public testing::WithParamInterface<FaultCase> {};

TEST_P(PollFault, KeepsTheBadgesAndEverythingIsRightAgainAfterwards) {
  startSynced();
  startBus();
  observe("", "file");
  const int process = client->extensionProcess();
  application->clearRequests();

  application->setFault(GetParam().fault);
  application->setStatus("/file", 1);
  pollNow();
  if (*GetParam().logged)
    EXPECT_TRUE(waitForLog(GetParam().logged)) << logText();
  else
    EXPECT_TRUE(application->waitForRequest("get_icons_for_folder", PATIENCE));
  EXPECT_EQ(badge("file"), "SYNCED");

  application->setFault(Fault::NONE);
  pollNow();
  EXPECT_TRUE(client->waitForChange(url("file"), "PENDING"));
  EXPECT_EQ(badge("file"), "PENDING");
  EXPECT_EQ(client->extensionProcess(), process) << "the extension lives on";
}

constexpr const char* NOT_CONNECTED = "Skipping get_icons_for_fodler, ds not connected";
constexpr const char* NOT_PARSED = "Unable to parse VI status tuple from DS";
INSTANTIATE_TEST_SUITE_P(
    EndToEnd, PollFault,
    testing::Values(
        FaultCase{Fault::REFUSE, "Refuse", NOT_CONNECTED}, FaultCase{Fault::STALL, "Stall", NOT_CONNECTED},
        FaultCase{Fault::DRIP, "Drip", NOT_CONNECTED}, FaultCase{Fault::DRIP_HEADERS, "DripHeaders", NOT_CONNECTED},
        FaultCase{Fault::RESET, "ResetMidBody", NOT_CONNECTED},
        FaultCase{Fault::SERVER_ERROR, "Status500", "Cannot fetch directory status: unexpected HTTP code: 500)"},
        FaultCase{Fault::NOT_JSON, "NotJSON", NOT_PARSED}, FaultCase{Fault::EMPTY_BODY, "EmptyBody", NOT_PARSED},
        FaultCase{Fault::ARRAY, "Array", ""}, FaultCase{Fault::STRING_VALUES, "Texts", ""},
        FaultCase{Fault::NESTED, "Nested", ""}, FaultCase{Fault::WRONG_VALUES, "WrongValues", ""}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(EndToEnd, AFolderAnsweredWith404IsLeftAloneUntilItComesOnScreenAnew) {
  startSynced();
  startBus();
  observe("folder", "folder/inside");
  application->setFault(Fault::NOT_FOUND);
  pollNow();
  ASSERT_TRUE(waitForLog("Directory " + root + "/folder does not exist (404), ignoring subscription"));
  application->setFault(Fault::NONE);
  application->setStatus("/folder/inside", 0);
  ASSERT_TRUE(client->endObserving(url("folder")));
  ASSERT_TRUE(client->beginObserving(url("folder")));
  pollNow();
  EXPECT_TRUE(client->waitForChange(url("folder/inside"), "SKIPPED"));
}

TEST_F(EndToEnd, AReplyOfAHundredThousandEntriesIsTaken) {
  startSynced();
  startBus();
  application->setFault(Fault::HUGE_REPLY);
  observe("", "file");
  application->setStatus("/file", 0);
  pollNow();
  EXPECT_TRUE(client->waitForChange(url("file"), "SKIPPED"));
}

class MenuFault : public EndToEnd, public testing::WithParamInterface<FaultCase> {};

TEST_P(MenuFault, GreysEveryEntryAndSaysWhy) {
  startSynced();
  startBus();
  application->setFault(GetParam().fault);
  std::vector<MenuEntry> entries;
  ASSERT_TRUE(client->menu({url("file")}, entries));
  ASSERT_EQ(entries.size(), 5u);
  for (const auto& entry : entries) EXPECT_FALSE(entry.enabled) << entry.title;
  EXPECT_THAT(logText(), HasSubstr(GetParam().logged));
  application->setFault(Fault::NONE);
  ASSERT_TRUE(client->menu({url("file")}, entries));
  EXPECT_TRUE(entries[0].enabled);
}

INSTANTIATE_TEST_SUITE_P(
    EndToEnd, MenuFault,
    testing::Values(FaultCase{Fault::REFUSE, "Refuse", "Cannot populate context menu: ResourceUnavailable"},
                    FaultCase{Fault::STALL, "Stall", "Cannot populate context menu: ResourceUnavailable"},
                    FaultCase{Fault::DRIP, "Drip", "Cannot populate context menu: ResourceUnavailable"},
                    FaultCase{Fault::RESET, "ResetMidBody", "Cannot populate context menu: ResourceUnavailable"},
                    FaultCase{Fault::NOT_FOUND, "Status404", "Cannot populate context menu: Non200Error(404)"},
                    FaultCase{Fault::SERVER_ERROR, "Status500", "Cannot populate context menu: Non200Error(500)"},
                    FaultCase{Fault::NOT_JSON, "NotJSON", "Cannot populate context menu: Error(\""},
                    FaultCase{Fault::EMPTY_BODY, "EmptyBody", "Cannot populate context menu: Error(\""}),
    [](const auto& tested) { return std::string(tested.param.name); });

class MenuShapeFault : public EndToEnd, public testing::WithParamInterface<FaultCase> {};

TEST_P(MenuShapeFault, StopsTheExtensionWhichIsBackWithTheNextCall) {
  startSynced();
  startBus();
  client->property("Version");
  const int process = client->extensionProcess();
  application->setFault(GetParam().fault);
  std::vector<MenuEntry> entries;
  EXPECT_EQ(client->menu({url("file")}, entries).error, "NoReply");
  application->setFault(Fault::NONE);
  ASSERT_TRUE(client->menu({url("file")}, entries));
  EXPECT_TRUE(entries[0].enabled);
  EXPECT_NE(client->extensionProcess(), process);
}

INSTANTIATE_TEST_SUITE_P(EndToEnd, MenuShapeFault,
                         testing::Values(FaultCase{Fault::ARRAY, "Array", ""},
                                         FaultCase{Fault::STRING_VALUES, "Texts", ""},
                                         FaultCase{Fault::NESTED, "Nested", ""},
                                         FaultCase{Fault::WRONG_VALUES, "WrongValues", ""}),
                         [](const auto& tested) { return std::string(tested.param.name); });

class ActionFault : public EndToEnd, public testing::WithParamInterface<FaultCase> {};

TEST_P(ActionFault, IsLoggedAndTheNextActionArrives) {
  startSynced();
  startBus();
  application->setFault(GetParam().fault);
  EXPECT_TRUE(client->performAction("share:", {url("file")}));
  EXPECT_THAT(logText(), HasSubstr(GetParam().logged));
  application->setFault(Fault::NONE);
  const auto before = application->actions().size();
  EXPECT_TRUE(client->performAction("copyLink:", {url("file")}));
  ASSERT_TRUE(application->waitForActions(before + 1, PATIENCE));
  EXPECT_EQ(application->actions().back().uid, "2");
  EXPECT_THAT(application->actions().back().paths, ElementsAre("/file"));
}

constexpr const char* ACTION_LOST = "Unexpected error occured while fetching context menu: ResourceUnavailable";
INSTANTIATE_TEST_SUITE_P(
    EndToEnd, ActionFault,
    testing::Values(
        FaultCase{Fault::REFUSE, "Refuse", ACTION_LOST}, FaultCase{Fault::STALL, "Stall", ACTION_LOST},
        FaultCase{Fault::DRIP, "Drip", ACTION_LOST}, FaultCase{Fault::RESET, "ResetMidBody", ACTION_LOST},
        FaultCase{Fault::SERVER_ERROR, "Status500", "Cannot fetch context menu actions, unexpected status: 500"},
        FaultCase{Fault::NOT_FOUND, "Status404", "Cannot fetch context menu actions, unexpected status: 404"},
        FaultCase{Fault::NOT_JSON, "NotJSON", ""}, FaultCase{Fault::EMPTY_BODY, "EmptyBody", ""}),
    [](const auto& tested) { return std::string(tested.param.name); });

// --- Coming and going -----------------------------------------------------------------------------------------------

TEST_F(EndToEnd, KilledUnderLoadTheExtensionIsBackAndItsBadgesAreRight) {
  for (int i = 0; i < 300; ++i) writeFile(root + "/folder/" + std::to_string(i), "");
  startSynced();
  startBus();
  std::vector<std::string> urls;
  for (int i = 0; i < 300; ++i) urls.push_back(url("folder/" + std::to_string(i)));
  for (int round = 0; round < 5; ++round) {
    ASSERT_TRUE(client->beginObserving(url("folder")));
    const int process = client->extensionProcess();
    int answered = 0;
    for (int i = 0; i < 60; ++i) {
      client->call("RequestBadges", BusClient::urlArguments(urls), [&](const auto&) {
        if (++answered == 10) ::kill(process, SIGKILL);  // with fifty more on their way
      });
    }
    ASSERT_TRUE(client->waitUntil([&] { return answered == 60; }));
    const auto badges = client->requestBadges(urls).texts();
    EXPECT_EQ(std::count(badges.begin(), badges.end(), "SYNCED"), 300) << "round " << round;
  }
}

TEST_F(EndToEnd, ASyncApplicationStartedLateIsFound) {
  startBus();
  EXPECT_EQ(client->property("ObservedFolders"), "[]");
  startSynced();
  ASSERT_TRUE(client->waitUntil([&] { return client->property("ObservedFolders") == "['" + url("") + "/']"; }));
  ASSERT_TRUE(client->beginObserving(url("")));
  EXPECT_TRUE(waitForBadge("file", "SYNCED"));
}

TEST_F(EndToEnd, AStoppedSyncApplicationLeavesTheBadgesAndARestartedOneChangesThem) {
  startSynced();
  startBus();
  observe("", "file");
  application->stop();
  pollNow();
  ASSERT_TRUE(waitForLog(NOT_CONNECTED));
  EXPECT_EQ(badge("file"), "SYNCED");
  application->setStatus("/file", 1);
  application->start();
  pollNow();
  EXPECT_TRUE(client->waitForChange(url("file"), "PENDING"));
}

TEST_F(EndToEnd, ABadgeAnsweredBeforeTheFolderWasFetchedIsPutRightWhenItIs) {
  startSynced();
  startBus();
  application->setFault("get_icons_for_folder", Fault::SERVER_ERROR);
  ASSERT_TRUE(client->beginObserving(url("")));
  ASSERT_TRUE(waitForBadge("file", "SYNCED"));  // from the database
  ASSERT_TRUE(waitForLog("unexpected HTTP code: 500)"));
  application->setStatus("/file", 1);
  application->setFault("get_icons_for_folder", Fault::NONE);
  pollNow();
  // The first fetch reports no changes; the badge turns all the same.
  EXPECT_TRUE(client->waitForChange(url("file"), "PENDING"));
}

TEST_F(EndToEnd, FilesThatAppearAndChangeGetTheirBadgesByThemselves) {
  startSynced();
  startBus();
  observe("", "file");
  writeFile(root + "/fresh", "content");
  writeFile(root + "/lock.tmp", "content");
  ASSERT_TRUE(application->waitUntilIdle(PATIENCE));
  pollNow();
  EXPECT_TRUE(client->waitForChange(url("fresh"), "SYNCED"));
  EXPECT_TRUE(client->waitForChange(url("lock.tmp"), "SKIPPED"));
  EXPECT_EQ(badge("file"), "SYNCED");
}

}  // namespace
