#include <gmock/gmock.h>

#include <boost/json.hpp>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>

#include "ProgramRun.hpp"

/// The program that watches a folder.
namespace vornet::vi::test {
namespace {

using testing::ElementsAre;

class WatchTest : public ServedTest {
 protected:
  void start(const std::vector<std::string>& arguments) { program.emplace(settings, arguments); }
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

  /// The whole lines whose event is `event`.
  std::vector<std::string> linesOf(const std::string& event) const {
    auto found = program->lines();
    std::erase_if(found, [prefix = R"({"event":")" + event + '"'](const std::string& line) {
      return !line.starts_with(prefix) || !line.ends_with('}');
    });
    return found;
  }
  /// "NAME BADGE", and " was BADGE" where the badge before is known, of each of them.
  std::vector<std::string> items(const std::string& event) const {
    std::vector<std::string> found;
    for (const auto& line : linesOf(event)) {
      const auto object = boost::json::parse(line).as_object();
      const auto text = [&](const char* key) { return std::string(object.at(key).as_string()); };
      found.push_back(text("name") + " " + text("badge") + (object.contains("was") ? " was " + text("was") : ""));
    }
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
  std::filesystem::rename(root.path() + "/new", root.path() + "/renamed");
  ASSERT_TRUE(waitForEvents("gone"));
  ASSERT_TRUE(waitForEvents("new", 2));
  std::filesystem::remove(old);
  ASSERT_TRUE(waitForEvents("gone", 2));
  EXPECT_THAT(items("new"), ElementsAre("new PENDING", "renamed SKIPPED"));
  EXPECT_THAT(items("gone"), ElementsAre("new PENDING", "old SYNCED"));
  EXPECT_EQ(end(SIGTERM), 0) << program->errors;
}

TEST_F(WatchTest, AsksForManyNewEntriesInBatches) {
  watch();
  addFiles(2000);
  ASSERT_TRUE(waitForEvents("new", 2000));
  EXPECT_THAT(extension.requestSizes(), AllOf(Not(testing::IsEmpty()), testing::Each(testing::Le(500U))));
  EXPECT_EQ(end(), 0) << program->errors;
}

TEST_F(WatchTest, EndsByItselfAfterTheTimeGiven) {
  EXPECT_EQ(run({"watch", "--for", "2", root.path()}), 0) << errors;
  EXPECT_EQ(extension.count(ended()), 1U);
}

TEST_F(WatchTest, SaysWhenTheTimeWasTooShortForAnAnswer) {
  extension.freeze();
  EXPECT_EQ(failureOf({"watch", "--for", "0.1", root.path()}), "the time ran out before the extension answered");
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
  EXPECT_THAT(program->output, testing::HasSubstr("{\"event\":\"extension\",\"running\":false}\n"));
  root.file("c");  // new while nobody answers

  TestExtension second{bus, root.path()};
  second.badges = {{urlOf(file), "SYNCED"}};
  ASSERT_TRUE(waitForEvents("extension", 2));
  ASSERT_TRUE(waitForEvents("badge"));
  ASSERT_TRUE(waitForEvents("new"));
  second.sendChanges({{urlOf(file), "SKIPPED"}});
  ASSERT_TRUE(waitForEvents("badge", 2));
  EXPECT_EQ(end(), 0) << program->errors;
  EXPECT_THAT(items("badge"), ElementsAre("a SYNCED was PENDING", "a SKIPPED was SYNCED"));
  EXPECT_THAT(items("new"), ElementsAre("c "));
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
  EXPECT_THAT(items("badge"), ElementsAre("a SYNCED was PENDING"));
  EXPECT_EQ(extension.count(begin), 2U);

  extension.refusals.clear();
  ASSERT_TRUE(runUntil([&] { return extension.count(begin) == 3; }));
  extension.sendChanges({{urlOf(file), "SKIPPED"}});
  ASSERT_TRUE(waitForEvents("badge", 2));
  EXPECT_EQ(end(), 0) << program->errors;
  EXPECT_THAT(linesOf("extension"), testing::IsEmpty());
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
  EXPECT_THAT(items("new"), ElementsAre("b PENDING"));
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
  /// Watches the root with `options` until the extension has gone.
  void watchAnExtensionThatEnds(std::vector<std::string> options = {}) {
    TestExtension extension(bus, root.path());
    root.file("shown");
    options.insert(options.begin(), {"watch", root.path()});
    program.emplace(settings, options);
    ASSERT_TRUE(runUntil([&] { return contains(program->output, "shown"); }));
    extension.die();
    ASSERT_TRUE(runUntil([&] { return contains(program->output, "extension  stopped\n"); }));
  }

  std::optional<ProgramRun> program;
};

TEST_F(WatchRestartTest, DoesNotStartAnExtensionThatEndsAtOnceInALoop) {
  bus.install("exit 1");
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
