#include <algorithm>
#include <boost/json.hpp>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>

#include "ProgramRun.hpp"

/// The program that watches a folder.
namespace vornet::vi::test {
namespace {

class WatchTest : public ServedTest {
 protected:
  void start(const std::vector<std::string>& arguments) { program.emplace(settings(), arguments); }
  /// Watches `folder`, the root unless given; it is listed when this returns.
  void watch(std::vector<std::string> options = {}, const std::string& folder = "") {
    options.insert(options.begin(), {"watch", "--json", folder.empty() ? root.path() : folder});
    start(options);
    ASSERT_TRUE(waitForEvents("watching"));
  }
  /// The user ends it; its exit code.
  int end(int signal = SIGINT) {
    program->sendSignal(signal);
    return program->wait();
  }

  /// Where the whole lines begin whose event is `event`.
  std::vector<std::size_t> linesOf(const std::string& event) const {
    std::vector<std::size_t> found;
    const auto& text = program->output;
    const auto prefix = R"({"event":")" + event + '"';
    const auto whole = text.rfind('\n') + 1;
    for (auto at = text.find(prefix); at < whole; at = text.find(prefix, at + 1)) found.push_back(at);
    return found;
  }
  std::vector<boost::json::object> events(const std::string& event) const {
    std::vector<boost::json::object> found;
    for (const auto at : linesOf(event))
      found.push_back(boost::json::parse(program->output.substr(at, program->output.find('\n', at) - at)).as_object());
    return found;
  }
  bool waitForEvents(const std::string& event, std::size_t count = 1) const {
    return runUntil([&] { return linesOf(event).size() >= count; });
  }

  /// Adds the files at once, so that the extension, which runs on this thread, can answer meanwhile.
  void addFiles(int count, const std::string& prefix = "") const {
    const ShownTestFolder made;
    for (int i = 0; i < count; ++i) made.file(prefix + std::to_string(i));
    for (const auto& file : std::filesystem::directory_iterator(made.path()))
      std::filesystem::rename(file.path(), root.path() + "/" + file.path().filename().string());
  }

  std::string ended() const { return "EndObserving " + urlOf(root.path()); }

  std::optional<ProgramRun> program;
};

TEST_F(WatchTest, ShowsTheListThenOneLineAChange) {
  const std::string file = root.file("a");
  extension.badges = {{urlOf(file), "PENDING"}};
  start({"watch", root.path()});
  ASSERT_TRUE(runUntil([&] { return contains(program->output, "\n"); }));
  extension.sendChanges({{urlOf(file), "SYNCED"},
                         {urlOf(root.path() + "/elsewhere/a"), "SKIPPED"},
                         {urlOf(root.path() + "/unknown"), "SKIPPED"}});
  ASSERT_TRUE(runUntil([&] { return program->lines().size() == 2; }));
  extension.sendChanges({{urlOf(file), "SYNCED"}});  // no change
  extension.sendChanges({{urlOf(file), ""}});
  ASSERT_TRUE(runUntil([&] { return program->lines().size() == 3; }));
  EXPECT_EQ(end(), 0) << program->errors;
  EXPECT_EQ(program->output,
            "⟳ Sync in progress  file  0  a\n"
            "badge  ✓ Synced  a\n"
            "badge  -  a\n");
  EXPECT_EQ(extension.count(ended()), 1U);
}

TEST_F(WatchTest, ShowsNewAndVanishedEntries) {
  const std::string old = root.file("old");
  extension.badges = {
      {urlOf(old), "SYNCED"}, {urlOf(root.path() + "/new"), "PENDING"}, {urlOf(root.path() + "/renamed"), "SKIPPED"}};
  watch();
  root.file("new");
  ASSERT_TRUE(waitForEvents("new"));
  EXPECT_EQ(events("new")[0].at("name"), "new");
  EXPECT_EQ(events("new")[0].at("badge"), "PENDING");
  std::filesystem::rename(root.path() + "/new", root.path() + "/renamed");
  ASSERT_TRUE(waitForEvents("gone", 1));
  ASSERT_TRUE(waitForEvents("new", 2));
  EXPECT_EQ(events("gone")[0].at("name"), "new");
  EXPECT_EQ(events("new")[1].at("name"), "renamed");
  EXPECT_EQ(events("new")[1].at("badge"), "SKIPPED");
  std::filesystem::remove(old);
  ASSERT_TRUE(waitForEvents("gone", 2));
  EXPECT_EQ(events("gone")[1].at("name"), "old");
  EXPECT_EQ(end(SIGTERM), 0) << program->errors;
}

TEST_F(WatchTest, AsksForManyNewEntriesInBatches) {
  watch();
  addFiles(2000);
  ASSERT_TRUE(waitForEvents("new", 2000));
  const auto sizes = extension.requestSizes();
  EXPECT_LE(*std::max_element(sizes.begin(), sizes.end()), 500U);
  EXPECT_EQ(end(), 0) << program->errors;
}

TEST_F(WatchTest, EndsByItselfAfterTheTimeGiven) {
  EXPECT_EQ(run({"watch", "--for", "2", root.path()}), 0) << errors;
  EXPECT_EQ(extension.count(ended()), 1U);
}

TEST_F(WatchTest, SaysWhenTheTimeWasTooShortForAnAnswer) {
  extension.freeze();
  EXPECT_EQ(run({"watch", "--for", "0.1", root.path()}), 1);
  EXPECT_EQ(errors, "vornet-vi: the time ran out before the extension answered\n");
}

TEST_F(WatchTest, CanBeInterruptedWhileTheExtensionIsFrozen) {
  extension.freeze();
  start({"watch", root.path()});
  ASSERT_TRUE(runUntil([&] { return !extension.calls.empty(); }));
  EXPECT_EQ(end(), 0) << program->errors;
  EXPECT_EQ(program->output + program->errors, "");
}

TEST_F(WatchTest, AsksAgainWhenTheExtensionComesBack) {
  const std::string file = root.file("a");
  root.file("b");
  extension.badges = {{urlOf(file), "PENDING"}};
  watch();
  extension.die();
  ASSERT_TRUE(waitForEvents("extension"));
  EXPECT_EQ(events("extension")[0].at("running"), false);
  root.file("c");  // new while nobody answers

  TestExtension second{bus, root.path()};
  second.badges = {{urlOf(file), "SYNCED"}};
  ASSERT_TRUE(waitForEvents("extension", 2));
  ASSERT_TRUE(waitForEvents("badge"));
  ASSERT_TRUE(waitForEvents("new"));
  EXPECT_EQ(events("badge")[0].at("name"), "a");
  EXPECT_EQ(events("badge")[0].at("was"), "PENDING");
  EXPECT_EQ(events("badge")[0].at("badge"), "SYNCED");
  EXPECT_EQ(events("new")[0].at("name"), "c");
  second.sendChanges({{urlOf(file), "SKIPPED"}});
  ASSERT_TRUE(waitForEvents("badge", 2));
  EXPECT_EQ(end(), 0) << program->errors;
  EXPECT_EQ(events("badge").size(), 2U);
  EXPECT_EQ(second.count(ended()), 1U);
}

TEST_F(WatchTest, AsksRepeatedlyWhereTheExtensionHasNoRoomToObserve) {
  const std::string file = root.file("a");
  const std::string begin = "BeginObserving " + urlOf(root.path());
  extension.badges = {{urlOf(file), "PENDING"}};
  extension.refusals["BeginObserving"] = "TooManyFolders";
  watch();
  extension.badges[urlOf(file)] = "SYNCED";  // without a signal
  ASSERT_TRUE(waitForEvents("badge"));
  EXPECT_EQ(events("badge")[0].at("badge"), "SYNCED");
  EXPECT_EQ(extension.count(begin), 2U);

  extension.refusals.clear();
  ASSERT_TRUE(runUntil([&] { return extension.count(begin) == 3; }));
  extension.sendChanges({{urlOf(file), "SKIPPED"}});
  ASSERT_TRUE(waitForEvents("badge", 2));
  EXPECT_EQ(end(), 0) << program->errors;
  EXPECT_EQ(events("extension").size(), 0U);
  EXPECT_EQ(extension.count(ended()), 1U);
}

TEST_F(WatchTest, RetriesWhatTheExtensionWasTooBusyFor) {
  const std::string file = root.file("a");
  extension.badges = {{urlOf(file), "SYNCED"}, {urlOf(root.path() + "/b"), "PENDING"}};
  extension.busyRequests = 1;
  watch();
  extension.busyRequests = 1;
  root.file("b");
  ASSERT_TRUE(waitForEvents("new"));
  EXPECT_EQ(events("new")[0].at("badge"), "PENDING");
  EXPECT_EQ(end(), 0) << program->errors;
}

TEST_F(WatchTest, ItsReaderMayTakeLongerThanAnAnswer) {
  watch({"--timeout", "3"});
  program->holdOutput();
  addFiles(2000, std::string(200, 'x'));  // more than a pipe holds
  ASSERT_TRUE(runUntil([&] { return !extension.badgeRequests.empty(); }));
  const auto release = std::chrono::steady_clock::now() + std::chrono::seconds(4);
  ASSERT_TRUE(runUntil([&] { return std::chrono::steady_clock::now() > release; }));
  program->releaseOutput();
  EXPECT_TRUE(waitForEvents("new", 2000)) << program->errors;
  EXPECT_EQ(end(), 0) << program->errors;
}

TEST_F(WatchTest, EndsWhenTheFolderVanishes) {
  const std::string folder = root.folder("f");
  watch({}, folder);
  std::filesystem::remove(folder);
  EXPECT_EQ(program->wait(), 1);
  EXPECT_EQ(program->errors, R"({"error":{"kind":"failed","message":")" + folder + ": the folder vanished\"}}\n");
}

TEST_F(WatchTest, EndsWhenTheBusGoesAway) {
  watch();
  bus.stop();
  EXPECT_EQ(program->wait(), 1);
  EXPECT_EQ(program->errors, "{\"error\":{\"kind\":\"no-bus\",\"message\":\"the session bus went away\"}}\n");
}

TEST_F(WatchTest, EndsQuietlyWhenItsReaderLeaves) {
  watch();
  program->closeOutput();
  EXPECT_EQ(program->wait(), 0);
}

class WatchRestartTest : public ProgramTest {
 protected:
  explicit WatchRestartTest(const std::string& startCommand = "") : ProgramTest(startCommand) {}

  /// Watches the root with `options` until the extension has gone.
  void watchAnExtensionThatEnds(std::vector<std::string> options = {}) {
    TestExtension extension(bus, root.path());
    root.file("shown");
    options.insert(options.begin(), {"watch", root.path()});
    program.emplace(settings(), options);
    ASSERT_TRUE(runUntil([&] { return contains(program->output, "shown"); }));
    extension.die();
    ASSERT_TRUE(runUntil([&] { return contains(program->output, "extension  stopped\n"); }));
  }

  std::optional<ProgramRun> program;
};

class WatchRestartLoopTest : public WatchRestartTest {
 protected:
  WatchRestartLoopTest() : WatchRestartTest("exit 1") {}
};

TEST_F(WatchRestartLoopTest, DoesNotStartAnExtensionThatEndsAtOnceInALoop) {
  watchAnExtensionThatEnds({"--for", "5"});
  EXPECT_EQ(program->wait(), 0) << program->errors;
  EXPECT_GE(bus.starts(), 1U);
  EXPECT_LE(bus.starts(), 4U);
}

TEST_F(WatchRestartTest, KeepsRetryingAnExtensionThatIsNotInstalled) {
  watchAnExtensionThatEnds();
  g_usleep(500'000);  // the first attempt, made at once, is to fail; the test passes as well when it comes too late
  bus.install("exit 1");
  EXPECT_TRUE(runUntil([&] { return bus.starts() > 0; }));
  program->sendSignal(SIGINT);
  EXPECT_EQ(program->wait(), 0);
  EXPECT_EQ(program->errors, "");
}

}  // namespace
}  // namespace vornet::vi::test
