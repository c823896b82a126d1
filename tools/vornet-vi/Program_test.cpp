#include <algorithm>
#include <boost/json.hpp>
#include <filesystem>

#include "DisplayText.hpp"
#include "ProgramRun.hpp"

/// The program on a private message bus: "list", "menu" and "perform", and what all commands share.
namespace vornet::vi::test {
namespace {

TEST_F(ServedTest, ListShowsWhatTheExtensionAnswers) {
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
  const std::string url = urlOf(root.path());
  EXPECT_EQ(extension.calls,
            (std::vector<std::string>{"BeginObserving " + url, "RequestBadges", "EndObserving " + url}));
}

TEST_F(ServedTest, ListPrefersAnAnswerToAnEarlierChange) {
  const std::string file = root.file("a");
  extension.badges = {{urlOf(file), "SYNCED"}};
  extension.changesBeforeAnswer = {{urlOf(file), "PENDING"}};
  ASSERT_EQ(run({"list", root.path()}), 0) << errors;
  EXPECT_EQ(output, "✓ Synced  file  0  a\n");
}

TEST_F(ServedTest, ListAsksForABigFolderInBatches) {
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

TEST_F(ServedTest, ListEscapesNamesAndAsksForTheirExactBytes) {
  const std::string strange = root.file("a\n\x1b[2J\xFF é");
  extension.badges = {{urlOf(strange), "SYNCED"}};
  ASSERT_EQ(run({"list", root.path()}), 0) << errors;
  EXPECT_EQ(output, "✓ Synced  file  0  a\\n\\e[2J\\xff é\n");
  auto ascii = settings();
  ascii.locale = "C";
  ASSERT_EQ(run(ascii, {"list", root.path()}), 0) << errors;
  EXPECT_EQ(output, "+ Synced  file  0  a\\n\\e[2J\\xff \\u{e9}\n");
}

TEST_F(ServedTest, ListShowsAFolderThatTheExtensionHasNoRoomToObserve) {
  extension.badges = {{urlOf(root.file("a")), "SYNCED"}};
  extension.refusals["BeginObserving"] = "TooManyFolders";
  ASSERT_EQ(run({"list", root.path()}), 0) << errors;
  EXPECT_EQ(output, "✓ Synced  file  0  a\n");
  EXPECT_EQ(extension.count("EndObserving " + urlOf(root.path())), 0U);
}

TEST_F(ServedTest, ListTakesPathsRelativeToTheCurrentFolder) {
  root.folder("[a,b]");
  auto inside = settings();
  inside.currentFolder = root.path();
  ASSERT_EQ(run(inside, {"list", "./x/../[a,b]/"}), 0) << errors;
  ASSERT_EQ(run(inside, {"list", "[a,b]"}), 0) << errors;
  EXPECT_EQ(extension.count("BeginObserving " + urlOf(root.path() + "/[a,b]")), 2U);
}

TEST_F(ServedTest, ListDoesNotResolveLinks) {
  root.folder("real");
  std::filesystem::create_symlink("real", root.path() + "/link");
  ASSERT_EQ(run({"list", root.path() + "/link"}), 0) << errors;
  EXPECT_EQ(extension.count("BeginObserving " + urlOf(root.path() + "/link")), 1U);
}

TEST_F(ServedTest, ListOnATerminalFitsItAndIsColoured) {
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

TEST_F(ServedTest, ListNamesEachKindOfFailure) {
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

TEST_F(ServedTest, ListSaysThatTheExtensionEnded) {
  root.file("a");
  extension.diesIn = "RequestBadges";
  EXPECT_EQ(run({"list", root.path()}), 1);
  EXPECT_EQ(errors, "vornet-vi: the extension ended before it answered\n");
}

TEST_F(ServedTest, EveryCommandGivesUpOnAFrozenExtension) {
  extension.freeze();
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"list"}, {"watch"}, {"menu"}, {"perform", "Share"}}) {
    auto arguments = command;
    arguments.insert(arguments.end(), {root.path(), "--timeout", "2"});
    EXPECT_EQ(run(arguments), 1) << command[0];
    EXPECT_EQ(errors, "vornet-vi: the extension did not answer within 2 s\n");
  }
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

TEST_F(ProgramTest, AFrozenBusTimesOut) {
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

TEST_F(ServedTest, AReaderThatLeavesEndsTheListQuietly) {
  for (int i = 0; i < 2000; ++i) root.file(std::string(200, 'x') + std::to_string(i));
  ProgramRun program{settings(), {"list", root.path()}};
  program.closeOutput();
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(program.errors, "");
}

TEST_F(ServedTest, MenuShowsTheEntriesInOrder) {
  const std::string a = root.file("a b");
  const std::string b = root.file("[x,y]");
  ASSERT_EQ(run({"menu", a, b}), 0) << errors;
  EXPECT_EQ(output,
            "enabled  Share          share:\n"
            "enabled  Copy Link      copyLink:\n"
            "greyed   Comments       notes:\n"
            "greyed   View versions  viewVersions:\n"
            "enabled  View in Cloud  viewInCloud:\n");
  EXPECT_EQ(extension.calls, (std::vector<std::string>{"GetMenu " + urlOf(a) + " " + urlOf(b)}));
  ASSERT_EQ(run({"--json", "menu", a}), 0) << errors;
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_EQ(boost::json::parse(lines[2]),
            (boost::json::object{{"title", "Comments"}, {"action", "notes:"}, {"enabled", false}, {"image", "QMT"}}));
}

TEST_F(ServedTest, MenuTakesPathsLiterally) {
  root.file("[x,y]");
  root.file("-z");
  root.file("list");
  auto inside = settings();
  inside.currentFolder = root.path();
  ASSERT_EQ(run(inside, {"menu", "[x,y]", "list", "--", "-z"}), 0) << errors;
  EXPECT_EQ(extension.calls,
            (std::vector<std::string>{"GetMenu " + urlOf(root.path() + "/[x,y]") + " " + urlOf(root.path() + "/list") +
                                      " " + urlOf(root.path() + "/-z")}));
}

TEST_F(ServedTest, MenuRefusesMissingAndOutsideItems) {
  const std::string inside = root.file("a");
  EXPECT_EQ(run({"menu", root.path() + "/missing"}), 1);
  EXPECT_EQ(errors, "vornet-vi: " + root.path() + "/missing: no such file or folder\n");
  EXPECT_EQ(run({"menu", inside, "/usr"}), 1);
  EXPECT_EQ(errors, "vornet-vi: /usr: outside the observed folder " + root.path() + "\n");
}

TEST_F(ServedTest, PerformPassesTheActionOn) {
  const std::string a = root.file("a");
  const std::string b = root.file("b");
  ASSERT_EQ(run({"perform", "copy link", a, b}), 0) << errors;
  const std::string urls = urlOf(a) + " " + urlOf(b);
  EXPECT_EQ(extension.calls, (std::vector<std::string>{"GetMenu " + urls, "PerformAction copyLink: " + urls}));
  EXPECT_EQ(output, "Copy Link  " + a + "\nCopy Link  " + b + "\n");
  ASSERT_EQ(run({"perform", "share", "--json", a}), 0) << errors;
  EXPECT_EQ(boost::json::parse(output),
            (boost::json::object{{"title", "Share"}, {"action", "share:"}, {"items", {urlOf(a)}}}));
}

TEST_F(ServedTest, PerformRefusesAGreyedOrAbsentEntry) {
  const std::string a = root.file("a");
  EXPECT_EQ(run({"perform", "Comments", a}), 1);
  EXPECT_EQ(errors, "vornet-vi: \"Comments\" is not available for this selection\n");
  EXPECT_EQ(run({"perform", "Dance\x1b", a}), 1);
  EXPECT_EQ(errors, "vornet-vi: the menu has no entry \"Dance\\e\"\n");
  EXPECT_EQ(extension.count("PerformAction notes: " + urlOf(a)), 0U);
}

class UnstartableTest : public ProgramTest {
 protected:
  UnstartableTest() : ProgramTest("exit 1") {}
};

TEST_F(UnstartableTest, ListSaysThatTheExtensionCouldNotBeStarted) {
  EXPECT_EQ(run({"list", root.path()}), 1);
  EXPECT_TRUE(errors.starts_with("vornet-vi: the extension could not be started: ")) << errors;
}

}  // namespace
}  // namespace vornet::vi::test
