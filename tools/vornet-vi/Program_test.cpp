#include <gtest/gtest.h>

#include <algorithm>
#include <boost/json.hpp>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "DisplayText.hpp"
#include "ProgramRun.hpp"
#include "client/Paths.hpp"

/// The program itself, run against a message bus of its own.
namespace vornet::vi::test {
namespace {

using vornet::test::urlOf;

class ProgramTest : public ::testing::Test {
 protected:
  ProgramRun::Settings settings() const {
    ProgramRun::Settings settings;
    settings.busAddress = bus.address();
    return settings;
  }

  /// Runs the program to its end; its standard error is exactly one line, or empty when it succeeds.
  int run(const std::vector<std::string>& arguments) { return run(settings(), arguments); }
  int run(const ProgramRun::Settings& how, const std::vector<std::string>& arguments) {
    ProgramRun program{how, arguments};
    const int code = program.wait();
    output = program.output;
    lines = program.lines();
    errors = program.errors;
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), code == 0 ? 0 : 1) << errors;
    EXPECT_TRUE(code == 0 || errors.starts_with("vornet-vi: ")) << errors;
    return code;
  }

  static bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  }

  TestBus bus;
  ShownTestFolder root;
  std::string output;
  std::vector<std::string> lines;
  std::string errors;
};

// -- list

TEST_F(ProgramTest, ListShowsWhatTheExtensionAnswers) {
  TestExtension extension{bus, root.path()};
  extension.badges = {{urlOf(root.folder("Photos")), "SYNCED"},
                      {urlOf(root.file("b10", "12345")), "PENDING"},
                      {urlOf(root.file("b9")), "SKIPPED"},
                      {urlOf(root.file("a")), ""}};
  ASSERT_EQ(run({"list", root.path()}), 0) << errors;
  EXPECT_EQ(output,
            "✓ Synced            folder  -  Photos\n"
            "-                   file    0  a\n"
            "✗ Not synced        file    0  b9\n"
            "⟳ Sync in progress  file    5  b10\n");
  const std::string url = client::urlOfPath(root.path());
  EXPECT_EQ(extension.calls,
            (std::vector<std::string>{"BeginObserving " + url, "RequestBadges", "EndObserving " + url}));
}

TEST_F(ProgramTest, ListTakesAChangeToldBeforeTheAnswerAsTheOlderTruth) {
  TestExtension extension{bus, root.path()};
  const std::string file = root.file("a");
  extension.badges = {{urlOf(file), "SYNCED"}};
  extension.changesBeforeAnswer = {{urlOf(file), "PENDING"}};
  ASSERT_EQ(run({"list", root.path()}), 0) << errors;
  EXPECT_EQ(output, "✓ Synced  file  0  a\n");
}

TEST_F(ProgramTest, ListAsksForABigFolderInBatches) {
  TestExtension extension{bus, root.path()};
  for (int i = 0; i < 10'000; ++i) {
    const std::string path = root.file("file " + std::to_string(i));
    if (i % 3 == 0) extension.badges[urlOf(path)] = "SYNCED";
  }
  ASSERT_EQ(run({"list", "--json", root.path()}), 0) << errors;
  EXPECT_EQ(extension.requestSizes(), std::vector<std::size_t>(20, 500));
  ASSERT_EQ(lines.size(), 10'000U);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const auto object = boost::json::parse(lines[i]).as_object();
    // Ordered as people count.
    ASSERT_EQ(object.at("name").as_string(), "file " + std::to_string(i));
    ASSERT_EQ(object.at("badge"), i % 3 == 0 ? "SYNCED" : "");
  }
}

TEST_F(ProgramTest, ListEscapesNamesAndAsksForTheirExactBytes) {
  TestExtension extension{bus, root.path()};
  const std::string strange = root.file("a\n\x1b[2J\xFF é");
  extension.badges = {{urlOf(strange), "SYNCED"}};
  ASSERT_EQ(run({"list", root.path()}), 0) << errors;
  EXPECT_EQ(output, "✓ Synced  file  0  a\\n\\e[2J\\xff é\n");
  auto ascii = settings();
  ascii.locale = "C";
  ASSERT_EQ(run(ascii, {"list", root.path()}), 0) << errors;
  EXPECT_EQ(output, "+ Synced  file  0  a\\n\\e[2J\\xff \\u{e9}\n");
}

TEST_F(ProgramTest, ListShowsAFolderThatTheExtensionHasNoRoomToObserve) {
  TestExtension extension{bus, root.path()};
  extension.badges = {{urlOf(root.file("a")), "SYNCED"}};
  extension.refusals["BeginObserving"] = "TooManyFolders";
  ASSERT_EQ(run({"list", root.path()}), 0) << errors;
  EXPECT_EQ(output, "✓ Synced  file  0  a\n");
  EXPECT_EQ(extension.count("EndObserving " + client::urlOfPath(root.path())), 0U);
}

TEST_F(ProgramTest, ListTakesPathsRelativeToTheCurrentFolder) {
  TestExtension extension{bus, root.path()};
  root.folder("[a,b]");
  auto inside = settings();
  inside.currentFolder = root.path();
  ASSERT_EQ(run(inside, {"list", "./x/../[a,b]/"}), 0) << errors;
  ASSERT_EQ(run(inside, {"list", "[a,b]"}), 0) << errors;
  EXPECT_EQ(extension.count("BeginObserving " + client::urlOfPath(root.path() + "/[a,b]")), 2U);
}

TEST_F(ProgramTest, ListDoesNotResolveLinks) {
  TestExtension extension{bus, root.path()};
  root.folder("real");
  std::filesystem::create_symlink("real", root.path() + "/link");
  ASSERT_EQ(run({"list", root.path() + "/link"}), 0) << errors;
  EXPECT_EQ(extension.count("BeginObserving " + client::urlOfPath(root.path() + "/link")), 1U);
}

TEST_F(ProgramTest, ListOnATerminalFitsItAndIsColoured) {
  TestExtension extension{bus, root.path()};
  extension.badges = {{urlOf(root.file(std::string(200, 'x') + ".txt")), "SYNCED"}};
  auto terminal = settings();
  terminal.terminalColumns = 60;
  ASSERT_EQ(run(terminal, {"list", root.path()}), 0) << errors;
  EXPECT_TRUE(contains(output, "\x1b[32m✓ Synced\x1b[0m")) << output;
  EXPECT_TRUE(contains(output, "…")) << output;
  terminal.environment["NO_COLOR"] = "1";
  ASSERT_EQ(run(terminal, {"list", root.path()}), 0) << errors;
  EXPECT_FALSE(contains(output, "\x1b")) << output;
  for (std::string line : lines) {
    line.erase(std::remove(line.begin(), line.end(), '\r'), line.end());
    EXPECT_LE(displayWidth(line), 60U) << line;
  }
  ASSERT_EQ(run(terminal, {"list", "--color=always", root.path()}), 0) << errors;
  EXPECT_TRUE(contains(output, "\x1b[32m")) << output;
}

TEST_F(ProgramTest, ListNamesEachKindOfFailure) {
  TestExtension extension{bus, root.path()};
  EXPECT_EQ(run({"list", root.path() + "/missing"}), 1);
  EXPECT_EQ(errors, "vornet-vi: " + root.path() + "/missing: no such file or folder\n");
  const std::string file = root.file("file");
  EXPECT_EQ(run({"list", file}), 1);
  EXPECT_EQ(errors, "vornet-vi: " + file + ": not a folder\n");
  EXPECT_EQ(run({"list", ""}), 1);
  EXPECT_EQ(errors, "vornet-vi: an empty path names nothing\n");
  EXPECT_TRUE(extension.calls.empty());

  extension.refusals["BeginObserving"] = "OutsideObservedFolders";
  EXPECT_EQ(run({"list", "/"}), 1);
  EXPECT_EQ(errors, "vornet-vi: /: outside the observed folder " + root.path() + "\n");
  extension.refusals["BeginObserving"] = "NotAFolder";
  EXPECT_EQ(run({"list", root.path()}), 1);
  EXPECT_EQ(errors, "vornet-vi: " + root.path() + ": not a folder\n");
  extension.refusals["BeginObserving"] = "Busy";
  EXPECT_EQ(run({"list", root.path()}), 1);
  EXPECT_EQ(errors, "vornet-vi: the extension is too busy; try again later\n");
  EXPECT_EQ(output, "");
}

TEST_F(ProgramTest, ListSaysThatTheSyncApplicationIsNotConfigured) {
  TestExtension extension{bus, ""};
  extension.refusals["BeginObserving"] = "OutsideObservedFolders";
  EXPECT_EQ(run({"list", root.path()}), 1);
  EXPECT_EQ(errors, "vornet-vi: the sync application is not configured, so no folder is observed\n");
}

TEST_F(ProgramTest, ListSaysThatTheExtensionEnded) {
  TestExtension extension{bus, root.path()};
  root.file("a");
  extension.diesIn = "RequestBadges";
  EXPECT_EQ(run({"list", root.path()}), 1);
  EXPECT_EQ(errors, "vornet-vi: the extension ended before it answered\n");
}

TEST_F(ProgramTest, EveryCommandGivesUpOnAFrozenExtension) {
  TestExtension extension{bus, root.path()};
  extension.freeze();
  const std::string expected = "vornet-vi: the extension did not answer within 2 s\n";
  EXPECT_EQ(run({"list", "--timeout", "2", root.path()}), 1);
  EXPECT_EQ(errors, expected);
  EXPECT_EQ(run({"watch", "--timeout", "2", root.path()}), 1);
  EXPECT_EQ(errors, expected);
  EXPECT_EQ(run({"menu", "--timeout", "2", root.path()}), 1);
  EXPECT_EQ(errors, expected);
  EXPECT_EQ(run({"perform", "--timeout", "2", "Share", root.path()}), 1);
  EXPECT_EQ(errors, expected);
}

TEST_F(ProgramTest, EveryCommandSaysThatThereIsNoBus) {
  ProgramRun::Settings nowhere;
  nowhere.busAddress = "unix:path=" + root.path() + "/no-bus";
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"list", root.path()},
                                                    {"watch", root.path()},
                                                    {"menu", root.path()},
                                                    {"perform", "Share", root.path()},
                                                    {"status"}}) {
    EXPECT_EQ(run(nowhere, arguments), 1);
    EXPECT_TRUE(errors.starts_with("vornet-vi: no session bus: ")) << errors;
  }
  nowhere.busAddress.clear();
  EXPECT_EQ(run(nowhere, {"list", root.path()}), 1);
  EXPECT_TRUE(errors.starts_with("vornet-vi: no session bus: ")) << errors;
}

TEST_F(ProgramTest, AFrozenBusIsNotWaitedForForEver) {
  bus.freeze();
  EXPECT_EQ(run({"list", "--timeout", "0.2", root.path()}), 1);
  EXPECT_EQ(errors, "vornet-vi: the session bus does not answer\n");
}

TEST_F(ProgramTest, ListSaysThatTheExtensionIsNotInstalled) {
  EXPECT_EQ(run({"list", root.path()}), 1);
  EXPECT_EQ(errors, "vornet-vi: the extension is not installed (the session bus knows no such service)\n");
}

TEST_F(ProgramTest, WrongUsageEndsWithTwo) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{},
                                                    {"list"},
                                                    {"dance"},
                                                    {"list", "a", "b"},
                                                    {"menu"},
                                                    {"perform", "Share"},
                                                    {"--color", "blue", "status"},
                                                    {"list", "--timeout", "0", "a"},
                                                    {"watch", "--for", "-1", "a"},
                                                    {"status", "x"}}) {
    EXPECT_EQ(run(arguments), 2);
    EXPECT_EQ(output, "");
  }
}

TEST_F(ProgramTest, HelpIsThereForEveryCommand) {
  EXPECT_EQ(run({"--help"}), 0);
  for (const std::string command : {"list", "watch", "menu", "perform", "status"})
    EXPECT_TRUE(contains(output, command));
  for (const std::string command : {"list", "watch", "menu", "perform", "status"}) {
    EXPECT_EQ(run({command, "--help"}), 0);
    EXPECT_TRUE(contains(output, "Usage: vornet-vi " + command)) << output;
    for (const std::string& line : lines) EXPECT_LE(displayWidth(line), 80U) << line;
  }
}

TEST_F(ProgramTest, AReaderThatLeavesEndsTheListQuietly) {
  TestExtension extension{bus, root.path()};
  for (int i = 0; i < 2000; ++i) root.file(std::string(200, 'x') + std::to_string(i));
  ProgramRun program{settings(), {"list", root.path()}};
  program.closeOutput();
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(program.errors, "");
}

// -- watch

class WatchTest : public ProgramTest {
 protected:
  /// The JSON lines so far whose event is `event`.
  static std::vector<boost::json::object> events(const ProgramRun& program, const std::string& event) {
    std::vector<boost::json::object> found;
    for (const std::string& line : program.lines()) {
      boost::system::error_code incomplete;
      const auto value = boost::json::parse(line, incomplete);
      if (!incomplete && value.as_object().at("event").as_string() == event) found.push_back(value.as_object());
    }
    return found;
  }
  static bool waitForEvents(const ProgramRun& program, const std::string& event, std::size_t count = 1) {
    return waitUntil([&] { return events(program, event).size() >= count; });
  }
};

TEST_F(WatchTest, ShowsTheListThenOneLineAChange) {
  TestExtension extension{bus, root.path()};
  const std::string file = root.file("a");
  extension.badges = {{urlOf(file), "PENDING"}};
  ProgramRun program{settings(), {"watch", root.path()}};
  ASSERT_TRUE(waitUntil([&] { return contains(program.output, "\n"); }));
  extension.sendChanges({{urlOf(file), "SYNCED"},
                         {urlOf(root.path() + "/elsewhere/a"), "SKIPPED"},
                         {urlOf(root.path() + "/unknown"), "SKIPPED"}});
  ASSERT_TRUE(waitUntil([&] { return program.lines().size() == 2; }));
  extension.sendChanges({{urlOf(file), "SYNCED"}});  // no change
  extension.sendChanges({{urlOf(file), ""}});
  ASSERT_TRUE(waitUntil([&] { return program.lines().size() == 3; }));
  program.sendSignal(SIGINT);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(program.errors, "");
  EXPECT_EQ(program.output,
            "⟳ Sync in progress  file  0  a\n"
            "badge  ✓ Synced  a\n"
            "badge  -  a\n");
  EXPECT_EQ(extension.count("EndObserving " + client::urlOfPath(root.path())), 1U);
}

TEST_F(WatchTest, ShowsNewAndVanishedEntries) {
  TestExtension extension{bus, root.path()};
  const std::string old = root.file("old");
  extension.badges = {
      {urlOf(old), "SYNCED"}, {urlOf(root.path() + "/new"), "PENDING"}, {urlOf(root.path() + "/renamed"), "SKIPPED"}};
  ProgramRun program{settings(), {"watch", "--json", root.path()}};
  ASSERT_TRUE(waitForEvents(program, "watching"));
  root.file("new");
  ASSERT_TRUE(waitForEvents(program, "new"));
  EXPECT_EQ(events(program, "new")[0].at("name"), "new");
  EXPECT_EQ(events(program, "new")[0].at("badge"), "PENDING");
  std::filesystem::rename(root.path() + "/new", root.path() + "/renamed");
  ASSERT_TRUE(waitForEvents(program, "gone", 1));
  ASSERT_TRUE(waitForEvents(program, "new", 2));
  EXPECT_EQ(events(program, "gone")[0].at("name"), "new");
  EXPECT_EQ(events(program, "new")[1].at("name"), "renamed");
  EXPECT_EQ(events(program, "new")[1].at("badge"), "SKIPPED");
  std::filesystem::remove(old);
  ASSERT_TRUE(waitForEvents(program, "gone", 2));
  EXPECT_EQ(events(program, "gone")[1].at("name"), "old");
  program.sendSignal(SIGTERM);
  EXPECT_EQ(program.wait(), 0);
}

TEST_F(WatchTest, AsksForManyNewEntriesInBatches) {
  TestExtension extension{bus, root.path()};
  ProgramRun program{settings(), {"watch", "--json", root.path()}};
  ASSERT_TRUE(waitForEvents(program, "watching"));
  for (int i = 0; i < 2000; ++i) root.file(std::to_string(i));
  ASSERT_TRUE(waitForEvents(program, "new", 2000));
  const auto sizes = extension.requestSizes();
  EXPECT_LE(*std::max_element(sizes.begin(), sizes.end()), 500U);
  program.sendSignal(SIGINT);
  EXPECT_EQ(program.wait(), 0);
}

TEST_F(WatchTest, EndsByItselfAfterTheTimeGiven) {
  TestExtension extension{bus, root.path()};
  EXPECT_EQ(run({"watch", "--for", "2", root.path()}), 0) << errors;
  EXPECT_EQ(extension.count("EndObserving " + client::urlOfPath(root.path())), 1U);
}

TEST_F(WatchTest, SaysWhenTheTimeWasTooShortForAnAnswer) {
  TestExtension extension{bus, root.path()};
  extension.freeze();
  EXPECT_EQ(run({"watch", "--for", "0.1", root.path()}), 1);
  EXPECT_EQ(errors, "vornet-vi: the time was up before the extension had answered\n");
}

TEST_F(WatchTest, CanBeInterruptedWhileTheExtensionIsFrozen) {
  TestExtension extension{bus, root.path()};
  extension.freeze();
  ProgramRun program{settings(), {"watch", root.path()}};
  ASSERT_TRUE(waitUntil([&] { return !extension.calls.empty(); }));
  program.sendSignal(SIGINT);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(program.output + program.errors, "");
}

TEST_F(WatchTest, AsksAnewWhenTheExtensionComesBack) {
  const std::string file = root.file("a");
  root.file("b");
  auto first = std::make_unique<TestExtension>(bus, root.path());
  first->badges = {{urlOf(file), "PENDING"}};
  ProgramRun program{settings(), {"watch", "--json", root.path()}};
  ASSERT_TRUE(waitForEvents(program, "watching"));
  first.reset();
  ASSERT_TRUE(waitForEvents(program, "extension"));
  EXPECT_EQ(events(program, "extension")[0].at("running"), false);
  root.file("c");  // new while nobody answers

  TestExtension second{bus, root.path()};
  second.badges = {{urlOf(file), "SYNCED"}};
  ASSERT_TRUE(waitForEvents(program, "extension", 2));
  ASSERT_TRUE(waitForEvents(program, "badge"));
  ASSERT_TRUE(waitForEvents(program, "new"));
  EXPECT_EQ(events(program, "badge")[0].at("name"), "a");
  EXPECT_EQ(events(program, "badge")[0].at("was"), "PENDING");
  EXPECT_EQ(events(program, "badge")[0].at("badge"), "SYNCED");
  EXPECT_EQ(events(program, "new")[0].at("name"), "c");
  second.sendChanges({{urlOf(file), "SKIPPED"}});
  ASSERT_TRUE(waitForEvents(program, "badge", 2));
  program.sendSignal(SIGINT);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(events(program, "badge").size(), 2U);
  EXPECT_EQ(second.count("EndObserving " + client::urlOfPath(root.path())), 1U);
}

TEST_F(WatchTest, AsksNowAndThenWhereTheExtensionHasNoRoomToObserve) {
  TestExtension extension{bus, root.path()};
  const std::string file = root.file("a");
  const std::string begin = "BeginObserving " + client::urlOfPath(root.path());
  extension.badges = {{urlOf(file), "PENDING"}};
  extension.refusals["BeginObserving"] = "TooManyFolders";
  ProgramRun program{settings(), {"watch", "--json", root.path()}};
  ASSERT_TRUE(waitForEvents(program, "watching"));
  extension.badges[urlOf(file)] = "SYNCED";  // nobody tells
  ASSERT_TRUE(waitForEvents(program, "badge"));
  EXPECT_EQ(events(program, "badge")[0].at("badge"), "SYNCED");
  EXPECT_EQ(extension.count(begin), 2U);

  extension.refusals.clear();
  ASSERT_TRUE(waitUntil([&] { return extension.count(begin) == 3; }));
  extension.sendChanges({{urlOf(file), "SKIPPED"}});
  ASSERT_TRUE(waitForEvents(program, "badge", 2));
  program.sendSignal(SIGINT);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(events(program, "extension").size(), 0U);
  EXPECT_EQ(extension.count("EndObserving " + client::urlOfPath(root.path())), 1U);
}

TEST_F(WatchTest, AsksAgainWhatTheExtensionWasTooBusyFor) {
  TestExtension extension{bus, root.path()};
  const std::string file = root.file("a");
  extension.badges = {{urlOf(file), "SYNCED"}, {urlOf(root.path() + "/b"), "PENDING"}};
  extension.busyRequests = 1;
  ProgramRun program{settings(), {"watch", "--json", root.path()}};
  ASSERT_TRUE(waitForEvents(program, "watching"));
  extension.busyRequests = 1;
  root.file("b");
  ASSERT_TRUE(waitForEvents(program, "new"));
  EXPECT_EQ(events(program, "new")[0].at("badge"), "PENDING");
  program.sendSignal(SIGINT);
  EXPECT_EQ(program.wait(), 0) << program.errors;
}

TEST_F(WatchTest, EndsWhenTheFolderVanishes) {
  TestExtension extension{bus, root.path()};
  const std::string folder = root.folder("f");
  ProgramRun program{settings(), {"watch", "--json", folder}};
  ASSERT_TRUE(waitForEvents(program, "watching"));
  std::filesystem::remove(folder);
  EXPECT_EQ(program.wait(), 1);
  EXPECT_EQ(program.errors, "vornet-vi: " + folder + ": the folder vanished\n");
}

TEST_F(WatchTest, EndsWhenTheBusGoesAway) {
  auto extension = std::make_unique<TestExtension>(bus, root.path());
  ProgramRun program{settings(), {"watch", "--json", root.path()}};
  ASSERT_TRUE(waitForEvents(program, "watching"));
  bus.stop();
  EXPECT_EQ(program.wait(), 1);
  EXPECT_EQ(program.errors, "vornet-vi: the session bus went away\n");
}

TEST_F(WatchTest, EndsQuietlyWhenItsReaderLeaves) {
  TestExtension extension{bus, root.path()};
  ProgramRun program{settings(), {"watch", "--json", root.path()}};
  ASSERT_TRUE(waitForEvents(program, "watching"));
  program.closeOutput();
  EXPECT_EQ(program.wait(), 0);
}

TEST(WatchRestartTest, DoesNotStartAnExtensionThatEndsAtOnceInALoop) {
  ShownTestFolder root;
  const std::string starts = root.path() + "/starts";
  TestBus bus{"echo x >> " + starts + "; exit 1"};
  ShownTestFolder watched;
  auto extension = std::make_unique<TestExtension>(bus, watched.path());
  ProgramRun::Settings settings;
  settings.busAddress = bus.address();
  ProgramRun program{settings, {"watch", "--for", "5", watched.path()}};
  ASSERT_TRUE(waitUntil([&] { return !extension->calls.empty(); }));
  watched.file("shown");
  ASSERT_TRUE(waitUntil([&] { return program.output.find("shown") != std::string::npos; }));
  extension.reset();
  EXPECT_EQ(program.wait(), 0) << program.errors;
  EXPECT_NE(program.output.find("extension  stopped\n"), std::string::npos);
  std::ifstream record{starts};
  const std::string all{std::istreambuf_iterator<char>{record}, {}};
  const auto count = std::count(all.begin(), all.end(), 'x');
  EXPECT_GE(count, 1);
  EXPECT_LE(count, 4);
}

TEST(WatchRestartTest, GoesOnLookingForAnExtensionThatIsNotInstalled) {
  const TestBus bus;
  const ShownTestFolder watched;
  const ShownTestFolder other;
  auto extension = std::make_unique<TestExtension>(bus, watched.path());
  ProgramRun::Settings settings;
  settings.busAddress = bus.address();
  watched.file("shown");
  ProgramRun program{settings, {"watch", watched.path()}};
  ASSERT_TRUE(waitUntil([&] { return program.output.find("shown") != std::string::npos; }));
  extension.reset();
  ASSERT_TRUE(waitUntil([&] { return program.output.find("extension  stopped\n") != std::string::npos; }));
  g_usleep(500'000);  // the first attempt, made at once, is to fail; the test passes as well when it comes too late
  bus.install("touch " + other.path() + "/started");
  EXPECT_TRUE(waitUntil([&] {
    g_usleep(1000);
    g_main_context_wakeup(nullptr);
    return std::filesystem::exists(other.path() + "/started");
  }));
  program.sendSignal(SIGINT);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(program.errors, "");
}

// -- menu and perform

TEST_F(ProgramTest, MenuShowsTheEntriesInOrder) {
  TestExtension extension{bus, root.path()};
  const std::string a = root.file("a b");
  const std::string b = root.file("[x,y]");
  ASSERT_EQ(run({"menu", a, b}), 0) << errors;
  EXPECT_EQ(output,
            "enabled  Share          share:\n"
            "enabled  Copy Link      copyLink:\n"
            "greyed   Comments       notes:\n"
            "greyed   View versions  viewVersions:\n"
            "enabled  View in Cloud  viewInCloud:\n");
  EXPECT_EQ(extension.calls,
            (std::vector<std::string>{"GetMenu " + client::urlOfPath(a) + " " + client::urlOfPath(b)}));
  ASSERT_EQ(run({"--json", "menu", a}), 0) << errors;
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_EQ(boost::json::parse(lines[2]),
            (boost::json::object{{"title", "Comments"}, {"action", "notes:"}, {"enabled", false}, {"image", "QMT"}}));
}

TEST_F(ProgramTest, MenuTakesPathsWordForWord) {
  TestExtension extension{bus, root.path()};
  root.file("[x,y]");
  root.file("-z");
  root.file("list");
  auto inside = settings();
  inside.currentFolder = root.path();
  ASSERT_EQ(run(inside, {"menu", "[x,y]", "list", "--", "-z"}), 0) << errors;
  EXPECT_EQ(extension.calls, (std::vector<std::string>{"GetMenu " + client::urlOfPath(root.path() + "/[x,y]") + " " +
                                                       client::urlOfPath(root.path() + "/list") + " " +
                                                       client::urlOfPath(root.path() + "/-z")}));
}

TEST_F(ProgramTest, MenuRefusesWhatIsMissingOrOutside) {
  TestExtension extension{bus, root.path()};
  const std::string inside = root.file("a");
  EXPECT_EQ(run({"menu", root.path() + "/missing"}), 1);
  EXPECT_EQ(errors, "vornet-vi: " + root.path() + "/missing: no such file or folder\n");
  EXPECT_EQ(run({"menu", inside, "/usr"}), 1);
  EXPECT_EQ(errors, "vornet-vi: /usr: outside the observed folder " + root.path() + "\n");
}

TEST_F(ProgramTest, PerformPassesTheActionOn) {
  TestExtension extension{bus, root.path()};
  const std::string a = root.file("a");
  const std::string b = root.file("b");
  ASSERT_EQ(run({"perform", "copy link", a, b}), 0) << errors;
  const std::string urls = client::urlOfPath(a) + " " + client::urlOfPath(b);
  EXPECT_EQ(extension.calls, (std::vector<std::string>{"GetMenu " + urls, "PerformAction copyLink: " + urls}));
  EXPECT_EQ(output, "Copy Link  " + a + "\nCopy Link  " + b + "\n");
  ASSERT_EQ(run({"perform", "share", "--json", a}), 0) << errors;
  EXPECT_EQ(boost::json::parse(output),
            (boost::json::object{{"title", "Share"}, {"action", "share:"}, {"items", {client::urlOfPath(a)}}}));
}

TEST_F(ProgramTest, PerformRefusesAGreyedOrAbsentEntry) {
  TestExtension extension{bus, root.path()};
  const std::string a = root.file("a");
  EXPECT_EQ(run({"perform", "Comments", a}), 1);
  EXPECT_EQ(errors, "vornet-vi: \"Comments\" is not available for this selection\n");
  EXPECT_EQ(run({"perform", "Dance\x1b", a}), 1);
  EXPECT_EQ(errors, "vornet-vi: the menu has no entry \"Dance\\e\"\n");
  EXPECT_EQ(extension.count("PerformAction notes: " + client::urlOfPath(a)), 0U);
}

// -- status

TEST_F(ProgramTest, StatusTellsWhatRuns) {
  TestExtension extension{bus, root.path()};
  ASSERT_EQ(run({"status", "--json"}), 0) << errors;
  const auto status = boost::json::parse(output).as_object();
  EXPECT_EQ(status.at("running"), true);
  EXPECT_EQ(status.at("pid"), getpid());
  EXPECT_EQ(status.at("version"), "1.2.3");
  EXPECT_EQ(status.at("log_file"), "/somewhere/vi.log");
  EXPECT_EQ(status.at("observed_folders"), (boost::json::array{client::urlOfPath(root.path())}));
  ASSERT_EQ(run({"status"}), 0) << errors;
  EXPECT_TRUE(contains(output, "Extension         running (pid " + std::to_string(getpid()) + ")\n")) << output;
  EXPECT_TRUE(contains(output, "Observed folder   " + root.path() + "\n")) << output;
  EXPECT_TRUE(contains(output, "Log file          /somewhere/vi.log\n")) << output;
}

TEST_F(ProgramTest, StatusSaysThatNothingIsInstalled) {
  ASSERT_EQ(run({"status"}), 0) << errors;
  EXPECT_TRUE(contains(output, "Extension         not installed\n")) << output;
  EXPECT_EQ(run({"status", "--start"}), 1);
  EXPECT_EQ(errors, "vornet-vi: the extension is not installed (the session bus knows no such service)\n");
}

TEST(StatusTest, StartsTheExtensionOnlyWhenAskedTo) {
  ShownTestFolder root;
  const std::string starts = root.path() + "/starts";
  // What the bus starts stays until the folder is removed.
  TestBus bus{"echo x >> " + starts + "; while [ -d " + root.path() + " ]; do sleep 0.1; done"};
  ProgramRun::Settings settings;
  settings.busAddress = bus.address();
  {
    ProgramRun program{settings, {"status"}};
    EXPECT_EQ(program.wait(), 0) << program.errors;
    EXPECT_NE(program.output.find("not running (starts on demand)"), std::string::npos) << program.output;
  }
  EXPECT_FALSE(std::filesystem::exists(starts));

  ProgramRun program{settings, {"status", "--start"}};
  ASSERT_TRUE(waitUntil([&] {
    g_usleep(1000);
    g_main_context_wakeup(nullptr);
    return std::filesystem::exists(starts);
  }));
  TestExtension extension{bus, root.path()};
  EXPECT_EQ(program.wait(), 0) << program.errors;
  EXPECT_NE(program.output.find("running (pid "), std::string::npos) << program.output;
}

TEST(StatusTest, FailsWhenTheExtensionThatItStartedEnds) {
  ShownTestFolder root;
  const std::string starts = root.path() + "/starts";
  TestBus bus{"echo x >> " + starts + "; while [ -d " + root.path() + " ]; do sleep 0.1; done"};
  ProgramRun::Settings settings;
  settings.busAddress = bus.address();
  ProgramRun program{settings, {"status", "--start"}};
  ASSERT_TRUE(waitUntil([&] {
    g_usleep(1000);
    g_main_context_wakeup(nullptr);
    return std::filesystem::exists(starts);
  }));
  TestExtension extension{bus, root.path()};
  extension.nonsense["ObservedFolders"] = [&extension] {
    extension.die();
    return g_variant_new_strv(nullptr, 0);
  };
  EXPECT_EQ(program.wait(), 1);
  EXPECT_NE(program.output.find("not running"), std::string::npos) << program.output;
  EXPECT_TRUE(program.errors.starts_with("vornet-vi: the extension ended as soon as it was started")) << program.errors;
}

TEST(StatusTest, SaysThatTheExtensionCouldNotBeStarted) {
  TestBus bus{"exit 1"};
  ShownTestFolder root;
  ProgramRun::Settings settings;
  settings.busAddress = bus.address();
  ProgramRun program{settings, {"list", root.path()}};
  EXPECT_EQ(program.wait(), 1);
  EXPECT_TRUE(program.errors.starts_with("vornet-vi: the extension could not be started: ")) << program.errors;
}

/// Runs "status" with a group container whose log ends in `lastLines`.
class StopReasonTest : public ::testing::Test {
 protected:
  StopReasonTest() {
    std::filesystem::create_directories(log.parent_path());
    settings.environment["VORNET_GROUP_CONTAINERS"] = containers.path();
    write("");
  }
  void write(const std::string& lastLines) const {
    std::ofstream{log} << "2026-03-01 13:05:09.000 [Info] [FinderSync] init: Started new status manager\n" << lastLines;
  }
  std::string run(const TestBus& bus, const std::vector<std::string>& arguments, int code = 0) {
    settings.busAddress = bus.address();
    ProgramRun program{settings, arguments};
    EXPECT_EQ(program.wait(), code) << program.errors;
    errors = program.errors;
    return program.output;
  }

  static constexpr const char* FATAL = "2026-03-01 13:05:10.000 [Severe] : Fatal error: no text\x1b under root_dir\n";

  ShownTestFolder containers;
  const std::filesystem::path log = containers.path() + "/com.vornet.KelvaneSync/log/vi.log";
  ProgramRun::Settings settings;
  std::string errors;
};

TEST_F(StopReasonTest, IsShownWhileTheExtensionDoesNotRun) {
  TestBus bus{"exit 1"};
  write(FATAL);
  EXPECT_NE(run(bus, {"status"}).find("Stopped because   no text\\e under root_dir\n"), std::string::npos);
  EXPECT_EQ(boost::json::parse(run(bus, {"status", "--json"})).at("stop_reason"), "no text\x1b under root_dir");
  settings.terminalColumns = 80;
  EXPECT_NE(run(bus, {"status"}).find("no text\\e under root_dir"), std::string::npos);
}

TEST_F(StopReasonTest, IsShownWhenTheExtensionCannotBeStarted) {
  TestBus bus{std::string{"printf '2026-03-01 13:05:10.000 [Severe] : Fatal error: it cannot be\\n' > "} +
              log.string() + "; kill -ABRT $$"};
  const auto output = run(bus, {"status", "--start"}, 1);
  EXPECT_NE(output.find("Stopped because   it cannot be\n"), std::string::npos) << output;
  EXPECT_TRUE(errors.starts_with("vornet-vi: the extension could not be started: ")) << errors;
}

TEST_F(StopReasonTest, IsAbsentWhenTheExtensionRunsOrEndedOtherwise) {
  TestBus bus{"exit 1"};
  EXPECT_EQ(boost::json::parse(run(bus, {"status", "--json"})).at("stop_reason"), nullptr);
  EXPECT_EQ(run(bus, {"status"}).find("Stopped because"), std::string::npos);
  std::filesystem::remove(log);
  EXPECT_EQ(boost::json::parse(run(bus, {"status", "--json"})).at("stop_reason"), nullptr);
  write(FATAL);
  TestExtension extension{bus, "/"};
  EXPECT_EQ(boost::json::parse(run(bus, {"status", "--json"})).at("stop_reason"), nullptr);
}

TEST_F(StopReasonTest, IsTheLastOneOfALongLogThatGoesOnForAFewLines) {
  TestBus bus{"exit 1"};
  std::string lines;
  for (int i = 0; i < 1000; ++i)
    lines += "2026-03-01 13:05:09.000 [Info] [FinderSync] beginObserving: Directory enter: /root\n";
  write(lines + FATAL + "2026-03-01 13:05:10.000 [Info] [FinderSync] beginObserving: Directory enter: /root\n");
  EXPECT_EQ(boost::json::parse(run(bus, {"status", "--json"})).at("stop_reason"), "no text\x1b under root_dir");
}

TEST_F(StopReasonTest, IsLookedForWhereTheContainerIs) {
  TestBus bus{"exit 1"};
  write(FATAL);
  settings.environment["VORNET_GROUP_CONTAINERS"] = "relative";
  settings.environment["XDG_DATA_HOME"] = containers.path() + "/data";
  EXPECT_EQ(boost::json::parse(run(bus, {"status", "--json"})).at("stop_reason"), nullptr);
  std::filesystem::create_directories(containers.path() + "/data/group-containers");
  const auto container = log.parent_path().parent_path();
  std::filesystem::rename(container, containers.path() + "/data/group-containers/com.vornet.KelvaneSync");
  EXPECT_EQ(boost::json::parse(run(bus, {"status", "--json"})).at("stop_reason"), "no text\x1b under root_dir");
  settings.environment["XDG_DATA_HOME"] = "";
  settings.environment["HOME"] = containers.path() + "/home";
  std::filesystem::create_directories(containers.path() + "/home/.local");
  std::filesystem::rename(containers.path() + "/data", containers.path() + "/home/.local/share");
  EXPECT_EQ(boost::json::parse(run(bus, {"status", "--json"})).at("stop_reason"), "no text\x1b under root_dir");
}

}  // namespace
}  // namespace vornet::vi::test
