#include <boost/json.hpp>
#include <filesystem>
#include <fstream>
#include <optional>

#include "ProgramRun.hpp"
#include "support/Environment.hpp"
#include "support/LoopbackServer.hpp"

/// The command "status": its report on the extension, and on the sync application on its real port.
namespace vornet::vi::test {
namespace {

TEST_F(ServedTest, StatusShowsWhatRuns) {
  EXPECT_EQ(run({"status", "--json"}), 1) << "no sync application answers";
  const auto status = boost::json::parse(output).as_object();
  EXPECT_EQ(status.at("running"), true);
  EXPECT_EQ(status.at("pid"), getpid());
  EXPECT_EQ(status.at("version"), "1.2.3");
  EXPECT_EQ(status.at("log_file"), "/somewhere/vi.log");
  EXPECT_EQ(status.at("observed_folders"), (boost::json::array{urlOf(root.path())}));
  EXPECT_EQ(run({"status"}), 1);
  EXPECT_TRUE(contains(output, "Extension         running (pid " + std::to_string(getpid()) + ")\n")) << output;
  EXPECT_TRUE(contains(output, "Observed folder   " + root.path() + "\n")) << output;
  EXPECT_TRUE(contains(output, "Log file          /somewhere/vi.log\n")) << output;
}

TEST_F(ProgramTest, StatusSaysThatNothingIsInstalled) {
  EXPECT_EQ(run({"status"}), 1);
  EXPECT_TRUE(contains(output, "Extension         not installed\n")) << output;
  EXPECT_EQ(run({"status", "--start"}), 1);
  EXPECT_TRUE(contains(output, "The session bus cannot start the extension")) << output;
}

class StatusTest : public ProgramTest {
 protected:
  StatusTest() : ProgramTest(TestBus::STAYS) {}
};

TEST_F(StatusTest, StartsTheExtensionOnlyWhenAskedTo) {
  EXPECT_EQ(run({"status"}), 1);
  EXPECT_TRUE(contains(output, "not running (starts on demand)")) << output;
  EXPECT_EQ(bus.starts(), 0U);

  ProgramRun program(settings(), {"status", "--start"});
  ASSERT_TRUE(runUntil([&] { return bus.starts() > 0; }));
  const TestExtension extension(bus, root.path());
  EXPECT_EQ(program.wait(), 1);
  EXPECT_TRUE(contains(program.output, "running (pid ")) << program.output;
}

TEST_F(StatusTest, FailsWhenTheExtensionThatItStartedEnds) {
  ProgramRun program(settings(), {"status", "--start"});
  ASSERT_TRUE(runUntil([&] { return bus.starts() > 0; }));
  TestExtension extension(bus, root.path());
  extension.nonsense["ObservedFolders"] = [&extension] {
    extension.die();
    return g_variant_new_strv(nullptr, 0);
  };
  EXPECT_EQ(program.wait(), 1);
  EXPECT_TRUE(contains(program.output, "not running")) << program.output;
  EXPECT_TRUE(contains(program.output, "The extension ended as soon as it was started.")) << program.output;
}

/// Runs "status" with a group container whose log ends in `lastLines`.
class StopReasonTest : public ProgramTest {
 protected:
  StopReasonTest() : ProgramTest("exit 1") {
    std::filesystem::create_directories(log.parent_path());
    how.environment["VORNET_GROUP_CONTAINERS"] = root.path();
    write("");
  }
  void write(const std::string& lastLines) const {
    std::ofstream{log} << "2026-03-01 13:05:09.000 [Info] [FinderSync] init: Started new status manager\n" << lastLines;
  }
  boost::json::value reason() {
    EXPECT_EQ(run(how, {"status", "--json"}), 1) << "no sync application answers";
    return boost::json::parse(output).at("stop_reason");
  }

  static constexpr const char* FATAL = "2026-03-01 13:05:10.000 [Severe] : Fatal error: no text\x1b under root_dir\n";

  const std::filesystem::path log = root.path() + "/com.vornet.KelvaneSync/log/vi.log";
  ProgramRun::Settings how = settings();
};

TEST_F(StopReasonTest, IsShownWhileTheExtensionDoesNotRun) {
  write(FATAL);
  EXPECT_EQ(run(how, {"status"}), 1);
  EXPECT_TRUE(contains(output, "Stopped because   no text\\e under root_dir\n")) << output;
  EXPECT_EQ(reason(), "no text\x1b under root_dir");
  how.terminalColumns = 80;
  EXPECT_EQ(run(how, {"status"}), 1);
  EXPECT_TRUE(contains(output, "no text\\e under root_dir")) << output;
}

TEST_F(StopReasonTest, IsShownWhenTheExtensionCannotBeStarted) {
  bus.install("printf '2026-03-01 13:05:10.000 [Severe] : Fatal error: it cannot be\\n' > " + log.string() +
              "; kill -ABRT $$");
  EXPECT_EQ(run(how, {"status", "--start"}), 1);
  EXPECT_TRUE(contains(output, "Stopped because   it cannot be\n")) << output;
  EXPECT_TRUE(contains(output, "The extension could not be started: ")) << output;
}

TEST_F(StopReasonTest, IsAbsentWhenTheExtensionRunsOrEndedOtherwise) {
  EXPECT_EQ(reason(), nullptr);
  EXPECT_EQ(run(how, {"status"}), 1);
  EXPECT_FALSE(contains(output, "Stopped because"));
  std::filesystem::remove(log);
  EXPECT_EQ(reason(), nullptr);
  write(FATAL);
  const TestExtension extension(bus, "/");
  EXPECT_EQ(reason(), nullptr);
}

TEST_F(StopReasonTest, IsTheLastOneOfALongLogThatGoesOnForAFewLines) {
  std::string others;
  for (int i = 0; i < 1000; ++i)
    others += "2026-03-01 13:05:09.000 [Info] [FinderSync] beginObserving: Directory enter: /root\n";
  write(others + FATAL + "2026-03-01 13:05:10.000 [Info] [FinderSync] beginObserving: Directory enter: /root\n");
  EXPECT_EQ(reason(), "no text\x1b under root_dir");
}

TEST_F(StopReasonTest, IsLookedForWhereTheContainerIs) {
  write(FATAL);
  how.environment["VORNET_GROUP_CONTAINERS"] = "relative";
  how.environment["XDG_DATA_HOME"] = root.path() + "/data";
  EXPECT_EQ(reason(), nullptr);
  std::filesystem::create_directories(root.path() + "/data/group-containers");
  const auto container = log.parent_path().parent_path();
  std::filesystem::rename(container, root.path() + "/data/group-containers/com.vornet.KelvaneSync");
  EXPECT_EQ(reason(), "no text\x1b under root_dir");
  how.environment["XDG_DATA_HOME"] = "";
  how.environment["HOME"] = root.path() + "/home";
  std::filesystem::create_directories(root.path() + "/home/.local");
  std::filesystem::rename(root.path() + "/data", root.path() + "/home/.local/share");
  EXPECT_EQ(reason(), "no text\x1b under root_dir");
}

// -- The sync application

class StatusOfSyncApplicationTest : public ProgramTest {
 protected:
  boost::json::object state() {
    auto how = settings();
    how.environment = {{"http_proxy", "http://127.0.0.1:1"}};
    EXPECT_EQ(run(how, {"status", "--json"}), 1) << "the extension is not installed";
    return boost::json::parse(output).at("sync_application").as_object();
  }
};

TEST_F(StatusOfSyncApplicationTest, AnyReplyIsAnAnswer) {
  const LoopbackServer server([](const WireRequest&) { return WireReply{.status = 404}; });
  const auto found = state();
  EXPECT_EQ(found.at("outcome"), "answers");
  EXPECT_EQ(found.at("http_status"), 404);
}

TEST_F(StatusOfSyncApplicationTest, SilenceIsNoRefusal) {
  {
    const LoopbackServer server([](const WireRequest&) { return WireReply{.manner = WireReply::Manner::stall}; });
    EXPECT_EQ(state().at("outcome"), "timed out");
  }
  EXPECT_EQ(state().at("outcome"), "refused");
}

}  // namespace
}  // namespace vornet::vi::test
