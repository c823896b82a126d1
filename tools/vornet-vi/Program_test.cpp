#include <boost/json.hpp>
#include <filesystem>

#include "DisplayText.hpp"
#include "ProgramRun.hpp"

/// The program on a private message bus: "list", "menu" and "perform", and what all commands share.
namespace vornet::vi::test {
namespace {

/// Those that call the extension, without the path that each takes last.
const std::vector<std::vector<std::string>> CALLING_COMMANDS{{"list"}, {"watch"}, {"menu"}, {"perform", "Share"}};

std::vector<std::string> join(std::vector<std::string> words, const std::vector<std::string>& more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

TEST_F(ServedTest, ListShowsWhatTheExtensionAnswers) {
  extension.badges = {{urlOf(root.folder("Photos")), "SYNCED"},
                      {urlOf(root.file("b10", "12345")), "PENDING"},
                      {urlOf(root.file("b9")), "SKIPPED"},
                      {urlOf(root.file("a")), ""}};
  EXPECT_EQ(outputOf({"list", root.path()}),
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
  EXPECT_EQ(outputOf({"list", root.path()}), "✓ Synced  file  0  a\n");
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
  EXPECT_EQ(outputOf({"list", root.path()}), "✓ Synced  file  0  a\\n\\e[2J\\xff é\n");
  settings.locale = "C";
  EXPECT_EQ(outputOf({"list", root.path()}), "+ Synced  file  0  a\\n\\e[2J\\xff \\u{e9}\n");
}

TEST_F(ServedTest, ListShowsAFolderThatTheExtensionHasNoRoomToObserve) {
  extension.badges = {{urlOf(root.file("a")), "SYNCED"}};
  extension.refusals["BeginObserving"] = "TooManyFolders";
  EXPECT_EQ(outputOf({"list", root.path()}), "✓ Synced  file  0  a\n");
  EXPECT_EQ(extension.count("EndObserving " + urlOf(root.path())), 0U);
}

TEST_F(ServedTest, ListTakesPathsRelativeToTheCurrentFolder) {
  root.folder("[a,b]");
  settings.currentFolder = root.path();
  ASSERT_EQ(run({"list", "./x/../[a,b]/"}), 0) << errors;
  ASSERT_EQ(run({"list", "[a,b]"}), 0) << errors;
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
  settings.terminalColumns = 60;
  const std::string coloured = outputOf({"list", root.path()});
  EXPECT_TRUE(contains(coloured, "\x1b[32m✓ Synced\x1b[0m")) << coloured;
  EXPECT_TRUE(contains(coloured, "…")) << coloured;
  settings.environment["NO_COLOR"] = "1";
  const std::string plain = outputOf({"list", root.path()});
  EXPECT_FALSE(contains(plain, "\x1b")) << plain;
  for (std::string line : lines) {
    std::erase(line, '\r');
    EXPECT_LE(displayWidth(line), 60U) << line;
  }
  EXPECT_TRUE(contains(outputOf({"list", "--color=always", root.path()}), "\x1b[32m")) << output;
}

TEST_F(ServedTest, ListNamesEachKindOfFailure) {
  const std::string missing = root.path() + "/missing";
  const std::string file = root.file("file");
  EXPECT_EQ(failureOf({"list", missing}), missing + ": no such file or folder");
  EXPECT_EQ(failureOf({"list", file}), file + ": not a folder");
  EXPECT_EQ(failureOf({"list", ""}), "an empty path names nothing");
  EXPECT_TRUE(extension.calls.empty());

  extension.refusals["BeginObserving"] = "OutsideObservedFolders";
  EXPECT_EQ(failureOf({"list", "/"}), "/: outside the observed folder " + root.path());
  extension.refusals["BeginObserving"] = "NotAFolder";
  EXPECT_EQ(failureOf({"list", root.path()}), root.path() + ": not a folder");
  extension.refusals["BeginObserving"] = "Busy";
  EXPECT_EQ(failureOf({"list", root.path()}), "the extension is too busy; try again later");
  EXPECT_EQ(output, "");
}

TEST_F(ProgramTest, ListSaysThatTheSyncApplicationIsNotConfigured) {
  TestExtension extension{bus, ""};
  extension.refusals["BeginObserving"] = "OutsideObservedFolders";
  EXPECT_EQ(failureOf({"list", root.path()}), "the sync application is not configured, so no folder is observed");
}

TEST_F(ServedTest, ListSaysThatTheExtensionEnded) {
  root.file("a");
  extension.diesIn = "RequestBadges";
  EXPECT_EQ(failureOf({"list", root.path()}), "the extension ended before it answered");
}

TEST_F(ServedTest, EveryCommandGivesUpOnAFrozenExtension) {
  extension.freeze();
  for (const auto& command : CALLING_COMMANDS)
    EXPECT_EQ(failureOf(join(command, {root.path(), "--timeout", "2"})), "the extension did not answer within 2 s");
}

TEST_F(ProgramTest, EveryCommandSaysThatThereIsNoBus) {
  const auto expectNoBus = [&](const std::vector<std::string>& arguments) {
    EXPECT_TRUE(failureOf(arguments).starts_with("no session bus: ")) << arguments[0] << ": " << errors;
  };
  settings.busAddress = "unix:path=" + root.path() + "/no-bus";
  for (const auto& command : CALLING_COMMANDS) expectNoBus(join(command, {root.path()}));
  expectNoBus({"status"});
  settings.busAddress.clear();
  expectNoBus({"list", root.path()});
}

TEST_F(ProgramTest, AFrozenBusTimesOut) {
  bus.freeze();
  EXPECT_EQ(failureOf({"list", "--timeout", "0.2", root.path()}), "the session bus does not answer");
}

TEST_F(ProgramTest, ListSaysThatTheExtensionIsNotInstalled) {
  EXPECT_EQ(failureOf({"list", root.path()}), "the extension is not installed (the session bus knows no such service)");
}

TEST_F(ProgramTest, ListSaysThatTheExtensionCouldNotBeStarted) {
  bus.install("exit 1");
  EXPECT_TRUE(failureOf({"list", root.path()}).starts_with("the extension could not be started: ")) << errors;
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

TEST_F(ServedTest, AReaderThatLeavesEndsTheListQuietly) {
  for (int i = 0; i < 2000; ++i) root.file(std::string(200, 'x') + std::to_string(i));
  ProgramRun program{settings, {"list", root.path()}};
  program.closeOutput();
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(program.errors, "");
}

TEST_F(ServedTest, MenuShowsTheEntriesInOrder) {
  const std::string a = root.file("a b");
  const std::string b = root.file("[x,y]");
  EXPECT_EQ(outputOf({"menu", a, b}),
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
  settings.currentFolder = root.path();
  ASSERT_EQ(run({"menu", "[x,y]", "list", "--", "-z"}), 0) << errors;
  EXPECT_EQ(extension.calls,
            (std::vector<std::string>{"GetMenu " + urlOf(root.path() + "/[x,y]") + " " + urlOf(root.path() + "/list") +
                                      " " + urlOf(root.path() + "/-z")}));
}

TEST_F(ServedTest, MenuRefusesMissingAndOutsideItems) {
  const std::string inside = root.file("a");
  const std::string missing = root.path() + "/missing";
  EXPECT_EQ(failureOf({"menu", missing}), missing + ": no such file or folder");
  EXPECT_EQ(failureOf({"menu", inside, "/usr"}), "/usr: outside the observed folder " + root.path());
}

TEST_F(ServedTest, PerformPassesTheActionOn) {
  const std::string a = root.file("a");
  const std::string b = root.file("b");
  EXPECT_EQ(outputOf({"perform", "copy link", a, b}), "Copy Link  " + a + "\nCopy Link  " + b + "\n");
  const std::string urls = urlOf(a) + " " + urlOf(b);
  EXPECT_EQ(extension.calls, (std::vector<std::string>{"GetMenu " + urls, "PerformAction copyLink: " + urls}));
  EXPECT_EQ(boost::json::parse(outputOf({"perform", "share", "--json", a})),
            (boost::json::object{{"title", "Share"}, {"action", "share:"}, {"items", {urlOf(a)}}}));
}

TEST_F(ServedTest, PerformRefusesAGreyedOrAbsentEntry) {
  const std::string a = root.file("a");
  EXPECT_EQ(failureOf({"perform", "Comments", a}), "\"Comments\" is not available for this selection");
  EXPECT_EQ(failureOf({"perform", "Dance\x1b", a}), "the menu has no entry \"Dance\\e\"");
  EXPECT_EQ(extension.count("PerformAction notes: " + urlOf(a)), 0U);
}

}  // namespace
}  // namespace vornet::vi::test
