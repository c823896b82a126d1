#include <gmock/gmock.h>

#include <boost/json.hpp>
#include <filesystem>

#include "ProgramRun.hpp"
#include "support/LoopbackServer.hpp"

/// The command "status": its report on the extension, and on the sync application on its real port.
namespace vornet::vi::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;

TEST_F(ServedTest, StatusShowsWhatRuns) {
  EXPECT_EQ(run({"status", "--json"}), 1) << "no sync application answers";
  const auto status = boost::json::parse(output).as_object();
  EXPECT_EQ(status.at("running"), true);
  EXPECT_EQ(status.at("pid"), getpid());
  EXPECT_EQ(status.at("version"), "1.2.3");
  EXPECT_EQ(status.at("log_file"), "/somewhere/vi.log");
  EXPECT_EQ(status.at("observed_folders"), (boost::json::array{urlOf(root.path())}));
  EXPECT_EQ(run({"status"}), 1);
  EXPECT_THAT(output, AllOf(HasSubstr("Extension         running (pid " + std::to_string(getpid()) + ")\n"),
                            HasSubstr("Observed folder   " + root.path() + "\n"),
                            HasSubstr("Log file          /somewhere/vi.log\n")));
}

TEST_F(ProgramTest, StatusSaysThatNothingIsInstalled) {
  EXPECT_EQ(run({"status"}), 1);
  EXPECT_THAT(output, HasSubstr("Extension         not installed\n"));
  EXPECT_EQ(run({"status", "--start"}), 1);
  EXPECT_THAT(output, HasSubstr("The session bus cannot start the extension"));
}

class StatusTest : public ProgramTest {
 protected:
  StatusTest() : ProgramTest(TestBus::STAYS) {}
};

TEST_F(StatusTest, StartsTheExtensionOnlyWhenAskedTo) {
  EXPECT_EQ(run({"status"}), 1);
  EXPECT_THAT(output, HasSubstr("not running (starts on demand)"));
  EXPECT_EQ(bus.starts(), 0U);

  ProgramRun program(settings, {"status", "--start"});
  ASSERT_TRUE(runUntil([&] { return bus.starts() > 0; }));
  const TestExtension extension(bus, root.path());
  EXPECT_EQ(program.wait(), 1);
  EXPECT_THAT(program.output, HasSubstr("running (pid "));
}

TEST_F(StatusTest, FailsWhenTheExtensionThatItStartedEnds) {
  ProgramRun program(settings, {"status", "--start"});
  ASSERT_TRUE(runUntil([&] { return bus.starts() > 0; }));
  TestExtension extension(bus, root.path());
  extension.nonsense["ObservedFolders"] = [&extension] {
    extension.die();
    return g_variant_new_strv(nullptr, 0);
  };
  EXPECT_EQ(program.wait(), 1);
  EXPECT_THAT(program.output,
              AllOf(HasSubstr("not running"), HasSubstr("The extension ended as soon as it was started.")));
}

/// Runs "status" with a group container whose log ends in what a test writes.
class StopReasonTest : public ProgramTest {
 protected:
  StopReasonTest() {
    settings.environment["VORNET_GROUP_CONTAINERS"] = root.path();
    write("");
  }
  void write(const std::string& lastLines) const {
    vornet::test::writeFile(
        log, "2026-03-01 13:05:09.000 [Info] [FinderSync] init: Started new status manager\n" + lastLines);
  }
  boost::json::value reason() {
    EXPECT_EQ(run({"status", "--json"}), 1) << "no sync application answers";
    return boost::json::parse(output).at("stop_reason");
  }

  static constexpr const char* FATAL = "2026-03-01 13:05:10.000 [Severe] : Fatal error: no text\x1b under root_dir\n";

  const std::filesystem::path log = root.path() + "/com.vornet.KelvaneSync/log/vi.log";
};

TEST_F(StopReasonTest, IsShownWhileTheExtensionDoesNotRun) {
  write(FATAL);
  EXPECT_EQ(reason(), "no text\x1b under root_dir");
  EXPECT_EQ(run({"status"}), 1);
  EXPECT_THAT(output, HasSubstr("Stopped because   no text\\e under root_dir\n"));
  settings.terminalColumns = 80;
  EXPECT_EQ(run({"status"}), 1);
  EXPECT_THAT(output, HasSubstr("no text\\e under root_dir"));
}

TEST_F(StopReasonTest, IsShownWhenTheExtensionCannotBeStarted) {
  bus.install("printf '2026-03-01 13:05:10.000 [Severe] : Fatal error: it cannot be\\n' > " + log.string() +
              "; kill -ABRT $$");
  EXPECT_EQ(run({"status", "--start"}), 1);
  EXPECT_THAT(output,
              AllOf(HasSubstr("Stopped because   it cannot be\n"), HasSubstr("The extension could not be started: ")));
}

TEST_F(StopReasonTest, IsAbsentWhenTheExtensionRunsOrEndedOtherwise) {
  EXPECT_EQ(reason(), nullptr);
  EXPECT_EQ(run({"status"}), 1);
  EXPECT_THAT(output, testing::Not(HasSubstr("Stopped because")));
  std::filesystem::remove(log);
  EXPECT_EQ(reason(), nullptr);
  write(FATAL);
  const TestExtension extension(bus, "/");
  EXPECT_EQ(reason(), nullptr);
}

TEST_F(StopReasonTest, IsTheLastOneOfALongLogThatGoesOnForAFewLines) {
  const std::string line = "2026-03-01 13:05:09.000 [Info] [FinderSync] beginObserving: Directory enter: /root\n";
  std::string others;
  for (int i = 0; i < 1000; ++i) others += line;
  write(others + FATAL + line);
  EXPECT_EQ(reason(), "no text\x1b under root_dir");
}

TEST_F(StopReasonTest, IsLookedForWhereTheContainerIs) {
  write(FATAL);
  settings.environment["VORNET_GROUP_CONTAINERS"] = "relative";
  settings.environment["XDG_DATA_HOME"] = root.path() + "/data";
  EXPECT_EQ(reason(), nullptr);
  std::filesystem::create_directories(root.path() + "/data/group-containers");
  const auto container = log.parent_path().parent_path();
  std::filesystem::rename(container, root.path() + "/data/group-containers/com.vornet.KelvaneSync");
  EXPECT_EQ(reason(), "no text\x1b under root_dir");
  settings.environment["XDG_DATA_HOME"] = "";
  settings.environment["HOME"] = root.path() + "/home";
  std::filesystem::create_directories(root.path() + "/home/.local");
  std::filesystem::rename(root.path() + "/data", root.path() + "/home/.local/share");
  EXPECT_EQ(reason(), "no text\x1b under root_dir");
}

// -- The sync application

class StatusOfSyncApplicationTest : public ProgramTest {
 protected:
  /// As the program finds the sync application that answers with `reply`, or none.
  boost::json::object stateWith(const std::optional<WireReply>& reply) {
    std::optional<LoopbackServer> server;
    if (reply) server.emplace([&](const WireRequest&) { return *reply; });
    EXPECT_EQ(run({"status", "--json"}), 1) << "the extension is not installed";
    if (reply) requests = server->requests();
    return boost::json::parse(output).at("sync_application").as_object();
  }

  std::vector<WireRequest> requests;
};

TEST_F(StatusOfSyncApplicationTest, PostsTheSameRequestAsTheExtension) {
  EXPECT_EQ(stateWith(WireReply{.body = "{}"}).at("http_status"), 200);
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(requests[0].method, "POST");
  EXPECT_EQ(requests[0].target, "/get_icons_for_folder");
  EXPECT_EQ(requests[0].header("Content-Type"), std::vector<std::string>{"application/json"});
  EXPECT_EQ(requests[0].body, R"({"dir_name":"/"})");
}

TEST_F(StatusOfSyncApplicationTest, AnyReplyIsAnAnswer) {
  for (const int status : {404, 500}) {
    const auto found = stateWith(WireReply{.status = status});
    EXPECT_EQ(found.at("outcome"), "answers");
    EXPECT_EQ(found.at("http_status"), status);
  }
}

TEST_F(StatusOfSyncApplicationTest, ProxiesOfTheEnvironmentAreIgnored) {
  settings.environment = {{"http_proxy", "http://127.0.0.1:1"}, {"ALL_PROXY", "http://127.0.0.1:1"}};
  EXPECT_EQ(stateWith(WireReply()).at("outcome"), "answers");
}

TEST_F(StatusOfSyncApplicationTest, SilenceIsNoRefusal) {
  EXPECT_EQ(stateWith(WireReply{.manner = WireReply::Manner::stall}).at("outcome"), "timed out");
  EXPECT_EQ(stateWith(std::nullopt).at("outcome"), "refused");
}

TEST_F(StatusOfSyncApplicationTest, AReplyThatIsNotHTTPIsAFailure) {
  const auto found = stateWith(WireReply{.raw = "SSH-2.0-x\r\n"});
  EXPECT_EQ(found.at("outcome"), "failed");
  EXPECT_NE(found.at("problem"), "");
}

}  // namespace
}  // namespace vornet::vi::test
