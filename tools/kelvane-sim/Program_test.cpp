// The program as its users meet it: arguments, exit codes, output, signals.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <vector>

#include "kelvane-sim/FileDescriptor.hpp"
#include "kelvane-sim/RawClient.hpp"
#include "kelvane-sim/TestFolder.hpp"

extern char** environ;

namespace vornet::sim {
namespace {

using ::testing::HasSubstr;
using testing::RawClient;
using testing::TestFolder;

// One run of the program; standard output and standard error come back together.
class Program {
 public:
  explicit Program(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), KELVANE_SIM_PROGRAM);
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    std::array<int, 2> pipe{};
    EXPECT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0);
    output_.reset(pipe[0]);
    const FileDescriptor writer(pipe[1]);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, writer.get(), STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, writer.get(), STDERR_FILENO);
    EXPECT_EQ(::posix_spawn(&process_, argv[0], &actions, nullptr, argv.data(), environ), 0);
    ::posix_spawn_file_actions_destroy(&actions);
  }
  ~Program() {
    if (process_ > 0) {
      ::kill(process_, SIGKILL);
      ::waitpid(process_, nullptr, 0);
    }
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  bool waitForText(const std::string& wanted) {
    while (text.find(wanted) == std::string::npos)
      if (!readMore()) return false;
    return true;
  }

  void signal(int number) const { ::kill(process_, number); }

  /// The exit code; -1 when it did not end by itself.
  int exitCode() {
    while (readMore()) {
    }
    int status = 0;
    ::waitpid(process_, &status, 0);
    process_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  /// The port of the line "started".
  std::uint16_t port() const {
    const std::string_view mark = "127.0.0.1:";
    return static_cast<std::uint16_t>(std::stoul(text.substr(text.find(mark) + mark.size())));
  }

  std::string text;

 private:
  bool readMore() {
    pollfd wait{output_.get(), POLLIN, 0};
    if (::poll(&wait, 1, 30'000) <= 0) return false;
    std::array<char, 4096> chunk{};
    const ssize_t length = ::read(output_.get(), chunk.data(), chunk.size());
    if (length <= 0) return false;
    text.append(chunk.data(), static_cast<std::size_t>(length));
    return true;
  }

  FileDescriptor output_;
  pid_t process_ = -1;
};

class ProgramTest : public ::testing::Test {
 protected:
  ProgramTest() { files_.makeFolder("/root"); }
  std::vector<std::string> runArguments() const {
    return {"run", files_.path("/root"), "--container", container_, "--port", "0", "--transfer-time", "0.01"};
  }
  int statusNow(std::uint16_t port) const {
    RawClient client(port);
    if (client.connectError() != 0) return -1;
    client.post("get_icons_for_folder", R"({"dir_name":"/"})");
    client.readUntil([](const std::string& text) { return text.size() >= 12; });
    return client.received.size() < 12 ? 0 : std::stoi(client.received.substr(9, 3));
  }

  TestFolder files_;
  const std::string container_ = files_.path("/container");
};

TEST_F(ProgramTest, TellsWhatHappensAndEndsCleanlyOnASignal) {
  for (const int number : {SIGINT, SIGTERM}) {
    Program program(runArguments());
    ASSERT_TRUE(program.waitForText("container  ")) << program.text;
    const std::string name = "file" + std::to_string(number);
    files_.write("/root/" + name, "1");
    EXPECT_TRUE(program.waitForText("pending    /" + name)) << program.text;
    EXPECT_TRUE(program.waitForText("synced     /" + name)) << program.text;
    program.signal(number);
    EXPECT_EQ(program.exitCode(), 0);
    EXPECT_THAT(program.text, HasSubstr("stopped\n"));
  }
}

TEST_F(ProgramTest, ShowsTheJournalWhileItRunsAndAfterwards) {
  {
    Program empty({"journal", "--container", container_});
    EXPECT_EQ(empty.exitCode(), 0);
    EXPECT_EQ(empty.text, "no actions yet\n");
  }
  Program program(runArguments());
  ASSERT_TRUE(program.waitForText("started"));
  ASSERT_TRUE(program.waitForText("container  "));
  RawClient client(program.port());
  client.post("select_context_menu", R"({"uid":"3","paths":["/a","/b/"]})");
  EXPECT_EQ(client.readReply(), "{}");
  EXPECT_TRUE(program.waitForText("action     View in Cloud: /a, /b/"));
  Program journal({"journal", "--container", container_});
  EXPECT_EQ(journal.exitCode(), 0);
  EXPECT_THAT(journal.text, HasSubstr("  View in Cloud: /a /b/\n"));
}

TEST_F(ProgramTest, FaultsAreSwitchedWhileItRuns) {
  Program program(runArguments());
  ASSERT_TRUE(program.waitForText("container  "));
  const auto set = [&](const std::string& fault) {
    return Program({"fault", fault, "--container", container_}).exitCode();
  };
  EXPECT_EQ(set("500"), 0);
  EXPECT_TRUE(program.waitForText("fault      500\n"));
  EXPECT_EQ(statusNow(program.port()), 500);
  EXPECT_EQ(set("refuse"), 0);
  EXPECT_EQ(statusNow(program.port()), -1);
  EXPECT_EQ(set("none"), 0);
  EXPECT_EQ(statusNow(program.port()), 200);
}

TEST_F(ProgramTest, StatusesAreSetWhileItRuns) {
  files_.write("/root/a b", "1");
  auto arguments = runArguments();
  arguments.emplace_back("--synced");
  Program program(arguments);
  ASSERT_TRUE(program.waitForText("container  "));
  const auto statuses = [&] {
    RawClient client(program.port());
    client.post("get_icons_for_folder", R"({"dir_name":"/"})");
    return client.readReply();
  };
  const auto set = [&](const std::string& path, const std::string& status) {
    return Program({"status", path, status, "--container", container_}).exitCode();
  };
  EXPECT_EQ(set("/a b", "-1"), 0);
  EXPECT_TRUE(program.waitForText("status     -1 /a b"));
  EXPECT_EQ(statuses(), R"({"/a b":-1})");
  EXPECT_EQ(set("/a b", "2"), 0);
  EXPECT_EQ(statuses(), R"({"/a b":2})");
  EXPECT_EQ(set("a b", "1"), 1) << "no cloud path";
  EXPECT_EQ(set("/a\nb", "1"), 1) << "more than one line";
  EXPECT_EQ(statuses(), R"({"/a b":2})");
}

TEST_F(ProgramTest, AFaultForNobodyFails) {
  Program program({"fault", "stall", "--container", container_});
  EXPECT_EQ(program.exitCode(), 1);
  EXPECT_THAT(program.text, HasSubstr("no kelvane-sim is running"));
}

TEST_F(ProgramTest, AContainerOfAnotherApplicationIsRefusedUnlessForced) {
  files_.makeFolder("/container");
  const std::string foreign =
      "<plist version=\"1.0\"><dict><key>root_dir</key><string>/home/ann</string></dict></plist>";
  files_.write("/container/VornetKelvane.plist", foreign);
  Program refused(runArguments());
  EXPECT_EQ(refused.exitCode(), 1);
  EXPECT_EQ(refused.text, "kelvane-sim: cannot use the container " + container_ +
                              ": its VornetKelvane.plist was written by another application; choose another folder "
                              "with --container, or give --force to replace that application's files\n");
  std::ifstream file(container_ + "/VornetKelvane.plist");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), foreign);

  auto arguments = runArguments();
  arguments.push_back("--force");
  Program forced(arguments);
  EXPECT_TRUE(forced.waitForText("container  ")) << forced.text;
}

TEST_F(ProgramTest, FailuresAreOneLineAndExitCode1) {
  Program missing({"run", files_.path("/missing"), "--container", container_, "--port", "0"});
  EXPECT_EQ(missing.exitCode(), 1);
  EXPECT_EQ(missing.text, "kelvane-sim: cannot sync " + files_.path("/missing") + ": No such file or directory\n");
  Program first(runArguments());
  ASSERT_TRUE(first.waitForText("container  "));
  Program taken(
      {"run", files_.path("/root"), "--container", files_.path("/other"), "--port", std::to_string(first.port())});
  EXPECT_EQ(taken.exitCode(), 1);
  EXPECT_EQ(taken.text,
            "kelvane-sim: cannot listen on 127.0.0.1:" + std::to_string(first.port()) + ": Address already in use\n");
}

TEST_F(ProgramTest, WrongUsageIsExitCode2AndHelpIs0) {
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{},
                                             {"dance"},
                                             {"run"},
                                             {"run", files_.path("/root"), "--port", "70000"},
                                             {"run", files_.path("/root"), "--transfer-time", "-1"},
                                             {"fault", "bogus"},
                                             {"status", "/a"},
                                             {"status", "/a", "synced"},
                                             {"status", "/a", "1.5"}}) {
    EXPECT_EQ(Program(arguments).exitCode(), 2) << ::testing::PrintToString(arguments);
  }
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"--help"}, {"run", "--help"}, {"fault", "--help"}}) {
    Program help(arguments);
    EXPECT_EQ(help.exitCode(), 0);
    EXPECT_THAT(help.text, HasSubstr("Usage:"));
  }
}

TEST_F(ProgramTest, NamesCannotForgeLinesOnTheTerminal) {
  Program program(runArguments());
  ASSERT_TRUE(program.waitForText("container  "));
  files_.write("/root/a\nstarted\x1B[2J", "1");
  EXPECT_TRUE(program.waitForText("not synced /a\\x0astarted\\x1b[2J\n")) << program.text;
}

}  // namespace
}  // namespace vornet::sim
