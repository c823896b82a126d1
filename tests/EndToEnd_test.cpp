// The whole system: a folder kept by the stand-in sync application, the extension started on demand by a real message
// bus, and file managers: clients on that bus, the one for the terminal among them.
#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>

#include "kelvane-sim/KelvaneSim.hpp"
#include "support/ExtensionTest.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using sim::Fault;
using sim::KelvaneSim;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

class EndToEnd : public ExtensionTest {
 protected:
  EndToEnd() : ExtensionTest({"file", "other", "folder/", "folder/inside"}) {}

  KelvaneSim& makeApplication(std::chrono::milliseconds transferTime = 0ms) {
    application = std::make_unique<KelvaneSim>(
        KelvaneSim::Options{.root = root, .container = environment.container().string(), .transferTime = transferTime});
    return *application;
  }
  /// Starts the application, with everything synced when this returns.
  void startApplication() {
    makeApplication().start();
    ASSERT_TRUE(application->waitUntilIdle(PATIENCE));
  }
  void startSynced() {
    startApplication();
    start();
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
    pollNow();  // a second request for the folder shows that the answer to the first has been processed
    ASSERT_TRUE(client->waitUntil([&] { return polled() >= 2; }));
  }

  /// Has the extension poll every folder on screen at once: it does when a new one comes on screen.
  void pollNow() {
    const std::string name = "new" + std::to_string(++newFolders);
    fs::create_directories(root + "/" + name);
    ASSERT_TRUE(client->beginObserving(url(name)));
  }

  std::unique_ptr<KelvaneSim> application;
  int newFolders = 0;
};

// --- In the terminal ------------------------------------------------------------------------------------------------

TEST_F(EndToEnd, TheTerminalListsAllThreeBadgesAndNoneWhereThereIsNone) {
  writeFile(root + "/lock.tmp", "");
  fs::create_symlink("file", root + "/link");
  startSynced();
  application->setStatus("/other", 1);
  const auto [status, listed] = run({VORNET_VI, "list", root});
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
  start();
  const auto watch = launch({VORNET_VI, "watch", root, "--for", "60"});
  const auto shows = [&](const char* text) {
    return client->waitUntil([&] { return watch->output().find(text) != std::string::npos; });
  };
  ASSERT_TRUE(shows("Sync in progress  file"));
  ASSERT_TRUE(application->waitForRequest("get_icons_for_folder", PATIENCE));
  application->clearRequests();
  application->setStatus("/file", 2);
  ASSERT_TRUE(application->waitForRequest("get_icons_for_folder", PATIENCE));
  // It shows with the first poll after the change, or at the latest with the second, if the first was just being
  // answered.
  ASSERT_TRUE(shows("Synced  file"));
  EXPECT_LE(application->requests().size(), 2u);
  watch->signal(SIGINT);
  EXPECT_EQ(watch->wait(), 0);
}

TEST_F(EndToEnd, AMenuChoiceMadeInTheTerminalArrivesAtTheSyncApplication) {
  startSynced();
  const auto shown = run({VORNET_VI, "menu", root + "/file"});
  EXPECT_EQ(shown.status, 0);
  EXPECT_THAT(shown.output, testing::ContainsRegex("Share.*Copy Link.*Comments.*View versions.*View in Cloud"));
  EXPECT_EQ(run({VORNET_VI, "perform", "Copy Link", root + "/file"}).status, 0);
  ASSERT_TRUE(application->waitForActions(1, PATIENCE));
  EXPECT_EQ(readFile(environment.container() / "actions.jsonl"), "{\"action\":\"Copy Link\",\"paths\":[\"/file\"]}\n");

  EXPECT_EQ(run({VORNET_VI, "perform", "View versions", root + "/folder"}).status, 1);
  EXPECT_EQ(application->actions().size(), 1u);
  EXPECT_EQ(run({VORNET_VI, "perform", "No such thing", root + "/file"}).status, 1);
}

TEST_F(EndToEnd, TheTerminalShowsTheStatus) {
  startSynced();
  EXPECT_THAT(run({VORNET_VI, "status"}).output, HasSubstr("not running"));
  run({VORNET_VI, "list", root});
  const auto running = run({VORNET_VI, "status"}).output;
  EXPECT_THAT(running, HasSubstr(root));
  EXPECT_THAT(running, HasSubstr(environment.logFile().string()));
  EXPECT_THAT(running, HasSubstr("HTTP 200"));
  application->stop();
  EXPECT_THAT(run({VORNET_VI, "status"}).output, Not(HasSubstr("HTTP 200")));
}

TEST_F(EndToEnd, TheTerminalRefusesAFolderOutsideTheSyncedOne) {
  startSynced();
  const auto [status, said] = run({VORNET_VI, "list", "/etc"});
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
  const auto [status, listed] = run({VORNET_VI, "--json", "list", root + "/folder"});
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
  const char* logged;  // a poll's line in the log; "" for none

  friend void PrintTo(const FaultCase& tested, std::ostream* out) { *out << tested.name; }
};

class PollFault : public EndToEnd, public testing::WithParamInterface<FaultCase> {};

TEST_P(PollFault, KeepsTheBadgesAndUpdatesThemAfterwards) {
  startSynced();
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

  application->setFault(Fault::none);
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
        FaultCase{Fault::refuse, "Refuse", NOT_CONNECTED}, FaultCase{Fault::stall, "Stall", NOT_CONNECTED},
        FaultCase{Fault::drip, "Drip", NOT_CONNECTED}, FaultCase{Fault::dripHeaders, "DripHeaders", NOT_CONNECTED},
        FaultCase{Fault::reset, "ResetMidBody", NOT_CONNECTED},
        FaultCase{Fault::serverError, "Status500", "Cannot fetch directory status: unexpected HTTP code: 500)"},
        FaultCase{Fault::notJSON, "NotJSON", NOT_PARSED}, FaultCase{Fault::emptyBody, "EmptyBody", NOT_PARSED},
        FaultCase{Fault::array, "Array", ""}, FaultCase{Fault::stringValues, "Texts", ""},
        FaultCase{Fault::nested, "Nested", ""}, FaultCase{Fault::wrongValues, "WrongValues", ""}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(EndToEnd, AFolderAnsweredWith404IsLeftAloneUntilItComesOnScreenAgain) {
  startSynced();
  observe("folder", "folder/inside");
  application->setFault(Fault::notFound);
  pollNow();
  ASSERT_TRUE(waitForLog("Directory " + root + "/folder does not exist (404), ignoring subscription"));
  application->setFault(Fault::none);
  application->setStatus("/folder/inside", 0);
  ASSERT_TRUE(client->endObserving(url("folder")));
  ASSERT_TRUE(client->beginObserving(url("folder")));
  pollNow();
  EXPECT_TRUE(client->waitForChange(url("folder/inside"), "SKIPPED"));
}

TEST_F(EndToEnd, AReplyOfAHundredThousandEntriesIsTaken) {
  startSynced();
  application->setFault(Fault::hugeReply);
  observe("", "file");
  application->setStatus("/file", 0);
  pollNow();
  EXPECT_TRUE(client->waitForChange(url("file"), "SKIPPED"));
}

class MenuFault : public EndToEnd, public testing::WithParamInterface<FaultCase> {};

TEST_P(MenuFault, GreysEveryEntryAndSaysWhy) {
  startSynced();
  application->setFault(GetParam().fault);
  EXPECT_THAT(menu({"file"}), testing::AllOf(SizeIs(5), testing::Each(testing::Field(&MenuEntry::enabled, false))));
  EXPECT_THAT(logText(), HasSubstr(GetParam().logged));
  application->setFault(Fault::none);
  EXPECT_TRUE(menu({"file"}).at(0).enabled);
}

INSTANTIATE_TEST_SUITE_P(
    EndToEnd, MenuFault,
    testing::Values(FaultCase{Fault::refuse, "Refuse", "Cannot populate context menu: ResourceUnavailable"},
                    FaultCase{Fault::stall, "Stall", "Cannot populate context menu: ResourceUnavailable"},
                    FaultCase{Fault::drip, "Drip", "Cannot populate context menu: ResourceUnavailable"},
                    FaultCase{Fault::reset, "ResetMidBody", "Cannot populate context menu: ResourceUnavailable"},
                    FaultCase{Fault::notFound, "Status404", "Cannot populate context menu: Non200Error(404)"},
                    FaultCase{Fault::serverError, "Status500", "Cannot populate context menu: Non200Error(500)"},
                    FaultCase{Fault::notJSON, "NotJSON", "Cannot populate context menu: Error(\""},
                    FaultCase{Fault::emptyBody, "EmptyBody", "Cannot populate context menu: Error(\""}),
    [](const auto& tested) { return std::string(tested.param.name); });

class MenuShapeFault : public EndToEnd, public testing::WithParamInterface<FaultCase> {};

TEST_P(MenuShapeFault, StopsTheExtensionWhichRestartsWithTheNextCall) {
  startSynced();
  const int stopped = process();
  application->setFault(GetParam().fault);
  std::vector<MenuEntry> entries;
  EXPECT_EQ(client->menu({url("file")}, entries).error, "NoReply");
  application->setFault(Fault::none);
  EXPECT_TRUE(menu({"file"}).at(0).enabled);
  EXPECT_NE(client->extensionProcess(), stopped);
}

INSTANTIATE_TEST_SUITE_P(EndToEnd, MenuShapeFault,
                         testing::Values(FaultCase{Fault::array, "Array", ""},
                                         FaultCase{Fault::stringValues, "Texts", ""},
                                         FaultCase{Fault::nested, "Nested", ""},
                                         FaultCase{Fault::wrongValues, "WrongValues", ""}),
                         [](const auto& tested) { return std::string(tested.param.name); });

class ActionFault : public EndToEnd, public testing::WithParamInterface<FaultCase> {};

TEST_P(ActionFault, IsLoggedAndTheNextActionArrives) {
  startSynced();
  application->setFault(GetParam().fault);
  EXPECT_TRUE(client->performAction("share:", {url("file")}));
  EXPECT_THAT(logText(), HasSubstr(GetParam().logged));
  application->setFault(Fault::none);
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
        FaultCase{Fault::refuse, "Refuse", ACTION_LOST}, FaultCase{Fault::stall, "Stall", ACTION_LOST},
        FaultCase{Fault::drip, "Drip", ACTION_LOST}, FaultCase{Fault::reset, "ResetMidBody", ACTION_LOST},
        FaultCase{Fault::serverError, "Status500", "Cannot fetch context menu actions, unexpected status: 500"},
        FaultCase{Fault::notFound, "Status404", "Cannot fetch context menu actions, unexpected status: 404"},
        FaultCase{Fault::notJSON, "NotJSON", ""}, FaultCase{Fault::emptyBody, "EmptyBody", ""}),
    [](const auto& tested) { return std::string(tested.param.name); });

// --- Coming and going -----------------------------------------------------------------------------------------------

TEST_F(EndToEnd, AnExtensionKilledUnderLoadRestartsWithTheRightBadges) {
  for (int i = 0; i < 300; ++i) writeFile(root + "/folder/" + std::to_string(i), "");
  startSynced();
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
  start();
  EXPECT_EQ(client->property("ObservedFolders"), "[]");
  startApplication();
  ASSERT_TRUE(client->waitUntil([&] { return client->property("ObservedFolders") == observed(); }));
  ASSERT_TRUE(client->beginObserving(url()));
  EXPECT_TRUE(waitForBadge("file", "SYNCED"));
}

TEST_F(EndToEnd, AStoppedSyncApplicationLeavesTheBadgesAndARestartedOneChangesThem) {
  startSynced();
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

TEST_F(EndToEnd, ABadgeAnsweredBeforeTheFolderWasFetchedIsCorrectedThen) {
  startSynced();
  application->setFault(Fault::serverError);
  ASSERT_TRUE(client->beginObserving(url()));
  ASSERT_TRUE(waitForBadge("file", "SYNCED"));  // from the database
  ASSERT_TRUE(waitForLog("unexpected HTTP code: 500)"));
  application->setStatus("/file", 1);
  application->setFault(Fault::none);
  pollNow();
  // The first fetch reports no changes; the badge still changes.
  EXPECT_TRUE(client->waitForChange(url("file"), "PENDING"));
}

TEST_F(EndToEnd, FilesThatAppearAndChangeGetTheirBadgesAutomatically) {
  startSynced();
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
}  // namespace vornet::test
