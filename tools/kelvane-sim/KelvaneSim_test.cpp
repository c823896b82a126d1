// The stand-in as its users meet it: a folder on disk, replies over the wire, files in the container, the program.
#include "kelvane-sim/KelvaneSim.hpp"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <boost/asio.hpp>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>

#include "support/Databases.hpp"
#include "support/StartedProgram.hpp"
#include "support/TemporaryFolder.hpp"
#include "support/Threads.hpp"

namespace vornet::sim {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using boost::asio::ip::tcp;
using test::becomesTrue;
using test::readFile;
using test::StartedProgram;
using test::writeFile;
using testing::ElementsAre;
using testing::FieldsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr auto SOON = 30s;
const std::string ICONS = R"({"dir_name":"/"})";

/// A client that sees the bytes of the wire.
class Client {
 public:
  Client() : stream_("127.0.0.1", "8806") {}

  bool isConnected() const { return stream_.error() != boost::asio::error::connection_refused; }
  bool wasReset() const { return stream_.error() == boost::asio::error::connection_reset; }

  void askForIcons(bool keepAlive = false) { post("get_icons_for_folder", ICONS, keepAlive); }
  void post(const std::string& command, const std::string& body, bool keepAlive = false) {
    stream_ << "POST /" << command
            << " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: " << (keepAlive ? "keep-alive" : "close")
            << "\r\nContent-Length: " << body.size() << "\r\n\r\n"
            << body << std::flush;
  }
  /// All that comes until the connection ends.
  std::string rest() { return {std::istreambuf_iterator<char>(stream_), {}}; }
  /// The first `count` bytes; fewer if nothing comes for `patience`.
  std::string receive(std::size_t count, std::chrono::milliseconds patience = SOON) {
    std::string text(count, '\0');
    stream_.expires_after(patience);
    stream_.read(text.data(), static_cast<std::streamsize>(count));
    text.resize(static_cast<std::size_t>(stream_.gcount()));
    return text;
  }

 private:
  tcp::iostream stream_;
};

/// The body of the reply.
std::string icons() {
  Client client;
  client.askForIcons();
  const std::string reply = client.rest();
  return reply.substr(std::min(reply.size(), reply.find("\r\n\r\n") + 4));
}

class KelvaneSimTest : public testing::Test {
 protected:
  KelvaneSimTest() { fs::create_directories(root_); }

  void start(std::chrono::milliseconds transferTime = 0ms) {
    sim_.emplace(KelvaneSim::Options{.root = root_, .container = container_, .transferTime = transferTime});
    sim_->start();
  }
  /// A client that has asked for icons while the application misbehaves so.
  Client askDuring(Fault fault) {
    sim_->setFault(fault);
    Client client;
    client.askForIcons();
    return client;
  }
  void settle() { ASSERT_TRUE(sim_->waitUntilIdle(SOON)); }
  bool becomes(const std::string& path, std::optional<int> code) const {
    return becomesTrue([&] { return sim_->status(path) == code; });
  }

  const test::TemporaryFolder disk_;
  const std::string root_ = disk_ / "root", container_ = disk_ / "container";
  std::optional<KelvaneSim> sim_;
};

// --- The folder

TEST_F(KelvaneSimTest, FilesBecomeSyncedOneAfterTheOther) {
  writeFile(root_ + "/a/x", "1");
  start(100ms);
  EXPECT_EQ(sim_->status("/a/x"), CODE_PENDING);
  settle();
  EXPECT_EQ(sim_->status("/"), CODE_SYNCED);
}

TEST_F(KelvaneSimTest, NoticesChangesInTheFolderAutomatically) {
  writeFile(root_ + "/a/x", "1");
  start();
  writeFile(root_ + "/b/y", "1");
  EXPECT_TRUE(becomes("/b/y", CODE_SYNCED));
  fs::rename(root_ + "/a", root_ + "/b/a");
  EXPECT_TRUE(becomes("/b/a/x", CODE_SYNCED));
  EXPECT_TRUE(becomes("/a", std::nullopt));
  fs::remove_all(root_ + "/b");
  EXPECT_TRUE(becomes("/b", std::nullopt));
  fs::rename(root_, disk_ / "elsewhere");
  settle();
  EXPECT_EQ(icons(), "{}");
}

TEST_F(KelvaneSimTest, AChangedFileIsPendingAgain) {
  writeFile(root_ + "/x", "1");
  sim_.emplace(KelvaneSim::Options{
      .root = root_, .container = container_, .transferTime = 10min, .parallelTransfers = 1, .assumeSynced = true});
  sim_->start();
  EXPECT_EQ(sim_->status("/x"), CODE_SYNCED);
  writeFile(root_ + "/x", "12");
  EXPECT_TRUE(becomes("/x", CODE_PENDING));
  EXPECT_FALSE(sim_->waitUntilIdle(50ms));
}

TEST_F(KelvaneSimTest, NeverWritesIntoTheFolder) {
  writeFile(root_ + "/x", "content");
  const auto before = fs::last_write_time(root_);
  start();
  settle();
  sim_->stop();
  EXPECT_EQ(fs::last_write_time(root_), before);
  EXPECT_EQ(readFile(root_ + "/x"), "content");
}

// --- Control by tests

TEST_F(KelvaneSimTest, AStatusThatIsSetShowsAtOnceAndOverARestart) {
  writeFile(root_ + "/a/x", "1");
  start();
  sim_->setStatus("/a/x", 0);
  EXPECT_EQ(icons(), R"({"/a":0})");
  settle();
  EXPECT_THAT(readFile(container_ + "/sync.db"), HasSubstr("/a/x"));
  sim_->stop();
  EXPECT_FALSE(Client().isConnected());
  EXPECT_FALSE(sim_->waitUntilIdle(10ms));
  writeFile(root_ + "/y", "1");
  sim_->start();
  EXPECT_EQ(icons(), R"({"/a":0,"/y":2})");
}

TEST_F(KelvaneSimTest, RequestsAndActionsAreRecordedAndCanBeWaitedFor) {
  start();
  EXPECT_FALSE(sim_->waitForRequest("select_context_menu", 10ms));
  icons();
  Client client;
  client.post("select_context_menu", R"({"uid":"3","paths":["/a"]})");
  EXPECT_THAT(client.rest(), StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_TRUE(sim_->waitForRequest("select_context_menu", SOON));
  EXPECT_TRUE(sim_->waitForActions(1, SOON));
  EXPECT_THAT(sim_->actions()[0].paths, ElementsAre("/a"));
  EXPECT_EQ(readFile(container_ + "/actions.jsonl"), "{\"action\":\"View in Cloud\",\"paths\":[\"/a\"]}\n");
  EXPECT_THAT(sim_->requests(), ElementsAre(FieldsAre("POST", "/get_icons_for_folder", ICONS), testing::_));
  sim_->clearRequests();
  EXPECT_TRUE(sim_->requests().empty());
}

TEST_F(KelvaneSimTest, AFailedStartSaysWhyAndLeavesTheContainerAlone) {
  start();
  KelvaneSim second({.root = root_, .container = disk_ / "second"});
  EXPECT_THAT([&] { second.start(); },
              testing::ThrowsMessage<std::runtime_error>("cannot listen on 127.0.0.1:8806: Address already in use"));
  EXPECT_TRUE(fs::is_empty(disk_ / "second"));
  sim_->stop();
  fs::remove_all(root_);
  EXPECT_THROW(sim_->start(), std::runtime_error);
  EXPECT_FALSE(Client().isConnected());
}

TEST_F(KelvaneSimTest, RepliesStayConsistentWhileTheFolderChanges) {
  start();
  const auto writer = std::async(std::launch::async, [this] {
    for (int i = 0; i < 200; ++i) {
      const std::string folder = root_ + "/d" + std::to_string(i % 5);
      writeFile(folder + "/x" + std::to_string(i), "1");
      if (i % 7 == 0) fs::remove_all(folder);
    }
  });
  while (writer.wait_for(0s) != std::future_status::ready) EXPECT_THAT(icons(), StartsWith("{"));
  settle();
  for (const auto& entry : fs::recursive_directory_iterator(root_))
    EXPECT_EQ(sim_->status(entry.path().string().substr(root_.size())), CODE_SYNCED) << entry.path();
}

// --- The wire

TEST_F(KelvaneSimTest, OneConnectionServesManyRequests) {
  writeFile(root_ + "/x", "1");
  start();
  const std::string whole =
      "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 8\r\nConnection: "
      "keep-alive\r\n\r\n{\"/x\":2}";
  Client client;
  for (int i = 0; i < 3; ++i) {
    client.askForIcons(true);
    EXPECT_EQ(client.receive(whole.size()), whole);
  }
}

TEST_F(KelvaneSimTest, RefusingClosesThePortUntilItIsOver) {
  start();
  sim_->setFault(Fault::refuse);
  EXPECT_FALSE(Client().isConnected());
  sim_->stop();
  sim_->start();
  EXPECT_FALSE(Client().isConnected());
  sim_->setFault(Fault::none);
  EXPECT_EQ(icons(), "{}");
}

TEST_F(KelvaneSimTest, StallReadsTheRequestAndSaysNothing) {
  start();
  Client client = askDuring(Fault::stall);
  ASSERT_TRUE(sim_->waitForRequest("get_icons_for_folder", SOON));
  EXPECT_EQ(client.receive(1, 200ms), "");
}

TEST_F(KelvaneSimTest, DripsNeverEndInTheBodyOrTheHeaders) {
  start();
  const std::string head =
      "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 1000000000\r\nConnection: close\r\n\r\n";
  EXPECT_EQ(askDuring(Fault::drip).receive(head.size() + 3), head + "   ");
  EXPECT_EQ(askDuring(Fault::dripHeaders).receive(28), "HTTP/1.1 200 OK\r\nX-Drip:    ");
}

TEST_F(KelvaneSimTest, ResetBreaksTheConnectionWithinTheBody) {
  start();
  Client client = askDuring(Fault::reset);
  client.rest();
  EXPECT_TRUE(client.wasReset());
}

TEST_F(KelvaneSimTest, StoppingDoesNotWaitForClients) {
  start();
  Client idle;
  std::vector<Client> held;
  for (const Fault fault : {Fault::stall, Fault::drip, Fault::dripHeaders}) {
    sim_->clearRequests();
    held.push_back(askDuring(fault));
    ASSERT_TRUE(sim_->waitForRequest("get_icons_for_folder", SOON));
  }
  // No client does anything from here on; only the server can end this.
  const auto stopped = std::async(std::launch::async, [&] { sim_->stop(); });
  ASSERT_EQ(stopped.wait_for(SOON), std::future_status::ready);
  for (auto& client : held) client.rest();
  idle.rest();
}

// --- The program

class Program : public KelvaneSimTest {
 protected:
  Program() { EXPECT_EQ(::mkfifo(input_.c_str(), 0600), 0); }

  /// Runs it with `arguments`, after the options that it always needs; its input is input_.
  StartedProgram run(const std::string& arguments) {
    const std::string command = "exec " KELVANE_SIM " --container '" + container_ + "' " + arguments;
    return StartedProgram({"sh", "-c", command}, {}, output_);
  }
  /// Expects that `signal` ends it in order.
  static void end(StartedProgram& program, int signal = SIGTERM) {
    program.signal(signal);
    EXPECT_EQ(program.wait(), 0);
  }
  void waitForOutput(const std::string& wanted) const {
    becomesTrue([&] { return readFile(output_) == wanted; });
    EXPECT_EQ(readFile(output_), wanted);
  }

  const std::string input_ = disk_ / "input", output_ = disk_ / "output";
};

TEST_F(Program, SetsStatusesUntilASignalEndsIt) {
  writeFile(root_ + "/a b", "1");
  auto program = run("'" + root_ + "' --synced <'" + input_ + "'");
  std::ofstream commands(input_);
  waitForOutput("started\n");
  EXPECT_EQ(icons(), R"({"/a b":2})");
  commands << "-1 /a b\n" << std::flush;
  waitForOutput("started\nok\n");
  EXPECT_EQ(icons(), R"({"/a b":-1})");
  commands << "x /a b\n1.5 /a b\n1 a\n2 /a b\n" << std::flush;
  waitForOutput(
      "started\nok\nerror: not \"CODE PATH\": x /a b\nerror: not \"CODE PATH\": 1.5 /a b\n"
      "error: not \"CODE PATH\": 1 a\nok\n");
  EXPECT_EQ(icons(), R"({"/a b":2})");
  commands.close();
  EXPECT_EQ(icons(), R"({"/a b":2})");
  end(program);
}

TEST_F(Program, RunsWithoutInputToo) {
  auto program = run("'" + root_ + "' --transfer-time 0 --parallel 7");
  waitForOutput("started\n");
  EXPECT_EQ(icons(), "{}");
  end(program, SIGINT);
}

TEST_F(Program, FailuresAreOneLine) {
  EXPECT_EQ(run("'" + root_ + "/missing'").wait(), 1);
  EXPECT_EQ(readFile(output_), "kelvane-sim: cannot sync " + root_ + "/missing: it is not a folder\n");
  for (const std::string wrong : {"", "a b", ". --transfer-time -1", ". --parallel 0", ". --fault stall"})
    EXPECT_EQ(run(wrong).wait(), 2) << wrong;
}

TEST_F(Program, ReplacesAnotherApplicationsFilesOnlyWhenForced) {
  const std::string preferences = container_ + "/VornetKelvane.plist", statuses = container_ + "/sync.db";
  fs::create_directories(container_);
  test::writePreferences(preferences, disk_ / "theirs");
  test::makeSyncDatabase(statuses, {{"/theirs", 2}});
  const std::string before = readFile(preferences) + readFile(statuses);
  EXPECT_EQ(run("'" + root_ + "'").wait(), 1);
  EXPECT_THAT(readFile(output_), StartsWith("kelvane-sim: " + preferences + " was written by another application: "));
  EXPECT_TRUE(readFile(preferences) + readFile(statuses) == before);
  {
    KelvaneSim running({.root = root_, .container = disk_ / "other"});  // as the other application is
    running.start();
    EXPECT_EQ(run("'" + root_ + "' --force").wait(), 1);
    EXPECT_TRUE(readFile(preferences) + readFile(statuses) == before);
  }
  fs::remove(output_);
  auto program = run("'" + root_ + "' --force");
  waitForOutput("started\n");
  EXPECT_THAT(readFile(preferences) + readFile(statuses), testing::Not(HasSubstr("theirs")));
  end(program);
}

TEST_F(Program, HelpFitsEightyColumnsAndLooksTheSameUnderEveryCLI11) {
  EXPECT_EQ(run("--help").wait(), 0);
  EXPECT_THAT(readFile(output_), testing::Not(testing::ContainsRegex("[^\n]{81}")));
  EXPECT_THAT(readFile(output_),
              testing::EndsWith("\n"
                                "Usage: kelvane-sim [OPTIONS] DIR\n"
                                "\n"
                                "Positionals:\n"
                                "  DIR REQUIRED                The synced folder\n"
                                "\n"
                                "Options:\n"
                                "  -h,--help                   Print this help and exit\n"
                                "  --container FOLDER REQUIRED The group container, for preferences and statuses\n"
                                "  --transfer-time SECONDS=1.5 Duration of the transfer of one file\n"
                                "  --parallel NUMBER=4         Number of simultaneous transfers\n"
                                "  --synced                    Treat the files found at the start as synced\n"
                                "  --force                     Replace another application's files\n"));
}

}  // namespace
}  // namespace vornet::sim
