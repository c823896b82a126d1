// The whole system: a folder kept by the stand-in sync application, the extension started on demand by a real message
// bus, and file managers: clients on that bus, the one for the terminal among them.
#include <algorithm>

#include "support/DesktopTest.hpp"

namespace vornet::test {
namespace {

namespace fs = std::filesystem;
using sim::Fault;
using testing::AllOf;
using testing::ContainsRegex;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

class EndToEnd : public DesktopTest {
 protected:
  EndToEnd() : DesktopTest({"file", "other", "folder/", "folder/inside"}) {}

  void startSynced() {
    startApplication();
    start();
  }

  /// Puts a folder on screen, asks for the badge of one of its items, and waits until its statuses have been fetched.
  void observe(const std::string& folder, const std::string& item) {
    ASSERT_TRUE(client->beginObserving(url(folder)));
    ASSERT_TRUE(waitForBadge(item, "SYNCED"));
    const std::string body = "{\"dir_name\":\"" + (folder.empty() ? "" : "/" + folder) + "/\"}";
    const auto isPolled = [&](std::ptrdiff_t times) {
      return std::ranges::count(application->requests(), body, &sim::HttpRequest::body) >= times;
    };
    ASSERT_TRUE(client->waitUntil([&] { return isPolled(1); }));
    pollNow();  // a second request for the folder shows that the answer to the first has been processed
    ASSERT_TRUE(client->waitUntil([&] { return isPolled(2); }));
  }
};

// --- In the terminal ------------------------------------------------------------------------------------------------

TEST_F(EndToEnd, TheTerminalListsAllThreeBadgesAndNoneWhereThereIsNone) {
  writeFile(root + "/lock.tmp", "");
  fs::create_symlink("file", root + "/link");
  startSynced();
  application->setStatus("/other", 1);
  const auto [status, listed] = run({VORNET_VI, "list", root});
  EXPECT_EQ(status, 0);
  for (const char* line : {"Sync in progress[^\n]*other\n", "Synced[^\n]*  file\n", "Synced[^\n]*folder\n",
                           "Not synced[^\n]*lock.tmp\n", "- [^\n]*link\n"})
    EXPECT_THAT(listed, ContainsRegex(line));
}

TEST_F(EndToEnd, TheTerminalShowsAFileTurnFromSyncInProgressToSynced) {
  startApplication();
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
  EXPECT_THAT(shown.output, ContainsRegex("Share.*Copy Link.*Comments.*View versions.*View in Cloud"));
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

TEST_F(EndToEnd, OddNamesHaveTheirBadges) {
  const std::vector<std::string> names = {
      "with space",          "100%",    "a#b", "Gr\u00FC\u00DFe \U0001F600", "caf\u00E9", "cafe\u0301",
      std::string(255, 'x'), "quote\"s"};
  for (const auto& name : names) writeFile(root + "/folder/" + name, "");
  writeFile(root + "/folder/bytes\xFF", "");
  startSynced();
  // NFC and NFD are two names: each has its own status.
  application->setStatus("/folder/caf\u00E9", 1);
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
  // Lines in the log; "" for none.
  const char* poll = "";
  const char* menu = "";
  const char* action = "";

  friend void PrintTo(const FaultCase& tested, std::ostream* out) { *out << tested.name; }
};

constexpr const char* NOT_CONNECTED = "Skipping get_icons_for_fodler, ds not connected";
constexpr const char* NOT_PARSED = "Unable to parse VI status tuple from DS";
constexpr const char* NO_MENU = "Cannot populate context menu: ResourceUnavailable";
constexpr const char* BAD_MENU = "Cannot populate context menu: Error(\"";
constexpr const char* ACTION_LOST = "Unexpected error occured while fetching context menu: ResourceUnavailable";

const FaultCase FAILURES[] = {
    {Fault::refuse, "Refuse", NOT_CONNECTED, NO_MENU, ACTION_LOST},
    {Fault::stall, "Stall", NOT_CONNECTED, NO_MENU, ACTION_LOST},
    {Fault::drip, "Drip", NOT_CONNECTED, NO_MENU, ACTION_LOST},
    {Fault::dripHeaders, "DripHeaders", NOT_CONNECTED, NO_MENU, ACTION_LOST},
    {Fault::reset, "ResetMidBody", NOT_CONNECTED, NO_MENU, ACTION_LOST},
    {Fault::serverError, "Status500", "Cannot fetch directory status: unexpected HTTP code: 500)",
     "Cannot populate context menu: Non200Error(500)", "Cannot fetch context menu actions, unexpected status: 500"},
    {Fault::notJSON, "NotJSON", NOT_PARSED, BAD_MENU},
    {Fault::emptyBody, "EmptyBody", NOT_PARSED, BAD_MENU},
};
/// After which a poll leaves the folder alone.
const FaultCase NOT_FOUND{.fault = Fault::notFound,
                          .name = "Status404",
                          .menu = "Cannot populate context menu: Non200Error(404)",
                          .action = "Cannot fetch context menu actions, unexpected status: 404"};
const FaultCase WRONG_SHAPES[] = {
    {Fault::array, "Array"},
    {Fault::stringValues, "Texts"},
    {Fault::nested, "Nested"},
    {Fault::wrongValues, "WrongValues"},
};

class PollFault : public EndToEnd, public testing::WithParamInterface<FaultCase> {};
class MenuShapeFault : public PollFault {};
class CommandFault : public PollFault {};

constexpr testing::PrintToStringParamName NAMES{};
INSTANTIATE_TEST_SUITE_P(Failures, PollFault, testing::ValuesIn(FAILURES), NAMES);
INSTANTIATE_TEST_SUITE_P(WrongShapes, PollFault, testing::ValuesIn(WRONG_SHAPES), NAMES);
INSTANTIATE_TEST_SUITE_P(WrongShapes, MenuShapeFault, testing::ValuesIn(WRONG_SHAPES), NAMES);
INSTANTIATE_TEST_SUITE_P(Failures, CommandFault, testing::ValuesIn(FAILURES), NAMES);
INSTANTIATE_TEST_SUITE_P(NotFound, CommandFault, testing::Values(NOT_FOUND), NAMES);

TEST_P(PollFault, KeepsTheBadgesAndUpdatesThemAfterwards) {
  startSynced();
  observe("", "file");
  const int process = client->extensionProcess();
  application->clearRequests();

  application->setFault(GetParam().fault);
  application->setStatus("/file", 1);
  pollNow();
  if (*GetParam().poll)
    EXPECT_TRUE(waitForLog(GetParam().poll)) << logText();
  else
    EXPECT_TRUE(application->waitForRequest("get_icons_for_folder", PATIENCE));
  EXPECT_EQ(badge("file"), "SYNCED");

  application->setFault(Fault::none);
  pollNow();
  EXPECT_TRUE(client->waitForChange(url("file"), "PENDING"));
  EXPECT_EQ(badge("file"), "PENDING");
  EXPECT_EQ(client->extensionProcess(), process) << "the extension lives on";
}

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

TEST_P(CommandFault, GreysEveryEntryOfAMenuAndSaysWhy) {
  startSynced();
  application->setFault(GetParam().fault);
  EXPECT_THAT(menu({"file"}), AllOf(SizeIs(5), Each(testing::Field(&MenuEntry::enabled, false))));
  EXPECT_THAT(logText(), HasSubstr(GetParam().menu));
  application->setFault(Fault::none);
  EXPECT_TRUE(menu({"file"}).at(0).enabled);
}

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

TEST_P(CommandFault, OfAnActionIsLoggedAndTheNextActionArrives) {
  startSynced();
  application->setFault(GetParam().fault);
  EXPECT_TRUE(client->performAction("share:", {url("file")}));
  EXPECT_THAT(logText(), HasSubstr(GetParam().action));
  application->setFault(Fault::none);
  const auto before = application->actions().size();
  EXPECT_TRUE(client->performAction("copyLink:", {url("file")}));
  ASSERT_TRUE(application->waitForActions(before + 1, PATIENCE));
  EXPECT_EQ(application->actions().back().uid, "2");
  EXPECT_THAT(application->actions().back().paths, ElementsAre("/file"));
}

// --- Coming and going -----------------------------------------------------------------------------------------------

TEST_F(EndToEnd, AnExtensionKilledUnderLoadRestartsWithTheRightBadges) {
  std::vector<std::string> names;
  for (int i = 0; i < 300; ++i) writeFile(root + "/" + names.emplace_back("folder/" + std::to_string(i)), "");
  startSynced();
  for (int round = 0; round < 5; ++round) {
    ASSERT_TRUE(client->beginObserving(url("folder")));
    const int process = client->extensionProcess();
    int answered = 0;
    for (int i = 0; i < 60; ++i) {
      client->call("RequestBadges", BusClient::urlArguments(urls(names)), [&](const auto&) {
        if (++answered == 10) ::kill(process, SIGKILL);  // with fifty more on their way
      });
    }
    ASSERT_TRUE(client->waitUntil([&] { return answered == 60; }));
    EXPECT_THAT(badges(names), Each("SYNCED")) << "round " << round;
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
