// The beginning and the end of the extension process in bad surroundings: the built program on a real message bus.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>

#include "support/BusClient.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/LoopbackServer.hpp"
#include "support/PrivateBus.hpp"
#include "support/StartedProgram.hpp"
#include "support/Threads.hpp"

namespace {

using testing::AnyOf;
using testing::HasSubstr;
using vornet::test::BusClient;
using vornet::test::BusReply;
using vornet::test::Environment;
using vornet::test::Gate;
using vornet::test::LoopbackServer;
using vornet::test::MenuEntry;
using vornet::test::PrivateBus;
using vornet::test::readFile;
using vornet::test::StartedProgram;
using vornet::test::WireReply;
using vornet::test::WireRequest;
using vornet::test::writeFile;

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// An end takes 3.5 s at most; the rest is for a busy machine. Two requests one after the other would take 6 s.
constexpr std::chrono::milliseconds LONGEST_END{5000};

GVariant* urls(const std::vector<std::string>& texts) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_STRING_ARRAY);
  for (const auto& text : texts) g_variant_builder_add(&builder, "s", text.c_str());
  return g_variant_builder_end(&builder);
}

/// How many greyed entries the answer to GetMenu has; 0 when one is not greyed.
std::size_t disabledEntries(const BusReply& menu) {
  GVariant* entries = g_variant_get_child_value(menu.value.get(), 0);
  std::size_t count = g_variant_n_children(entries);
  for (gsize i = 0; i < g_variant_n_children(entries); ++i) {
    gboolean enabled = FALSE;
    g_variant_get_child(entries, i, "(ssbs)", nullptr, nullptr, &enabled, nullptr);
    if (enabled) count = 0;
  }
  g_variant_unref(entries);
  return count;
}

/// A pipe that is full and that nobody reads, for output.
class BlockedOutput {
 public:
  explicit BlockedOutput(std::string path) : path_(std::move(path)) {
    if (::mkfifo(path_.c_str(), 0600) != 0) throw std::runtime_error("no pipe");
    reader_ = ::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int writer = ::open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    while (::write(writer, "x", 1) == 1) continue;
    ::close(writer);
  }
  ~BlockedOutput() { ::close(reader_); }
  BlockedOutput(const BlockedOutput&) = delete;
  BlockedOutput& operator=(const BlockedOutput&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
  int reader_ = -1;
};

class ProcessLife : public testing::Test {
 protected:
  ProcessLife() {
    for (const char* name : {"d", "e"}) fs::create_directories(root + "/" + name);
    writeFile(root + "/x", "");
    vornet::test::writePreferences(environment.container() / "VornetKelvane.plist", root);
    bus.emplace(environment.folder().path() / "bus");
    client.emplace(bus->address());
  }
  ~ProcessLife() override {
    statuses.open();
    EXPECT_THAT(readFile(environment.folder() / "output"), testing::Not(HasSubstr("Sanitizer")));
    if (HasFailure()) std::fputs(readFile(environment.folder() / "output").c_str(), stderr);
  }

  /// Starts the extension, its output going to `output`, and waits until it serves the bus.
  void start(const std::string& output) { start({VORNET_EXTENSION}, output); }
  void start(const std::vector<std::string>& arguments, const std::string& output) {
    // An end that gives up waiting leaves threads, which is no leak.
    const char* options = std::getenv("TSAN_OPTIONS");
    extension = std::make_unique<StartedProgram>(
        arguments,
        std::vector<std::string>{"DBUS_SESSION_BUS_ADDRESS=" + bus->address(),
                                 "TSAN_OPTIONS=" + std::string(options ? options : "") + ":report_thread_leaks=0"},
        output);
    ASSERT_TRUE(client->waitUntil([this] { return client->extensionProcess() == extension->pid(); }));
    ASSERT_EQ(client->property("Version"), "'1.0.0'");  // it has its name before it has begun its log
  }
  void start() { start(environment.folder() / "output"); }

  std::string url(const std::string& name) const { return "file://" + root + "/" + name; }
  std::string logText() const { return readFile(environment.logFile()); }

  /// A sync application that answers menus never, and statuses when `statuses` opens.
  void serveStalling() {
    server.emplace([this](const WireRequest& request) {
      if (request.target == "/get_icons_for_folder" && statuses.passInTime()) return WireReply{.body = "{}"};
      return WireReply{.manner = WireReply::Manner::stall};
    });
  }
  std::size_t requests(const std::string& command) const {
    std::size_t count = 0;
    for (const auto& request : server->requests()) count += request.target == "/" + command ? 1 : 0;
    return count;
  }
  /// Has the worker and every thread for menus wait for the sync application, the worker first.
  void keepBusy() {
    serveStalling();
    ASSERT_TRUE(client->beginObserving(url("d")));
    ASSERT_TRUE(server->waitForRequests(1));
    ASSERT_TRUE(client->beginObserving(url("e")));
    for (int i = 0; i < 6; ++i) {
      client->call("GetMenu", BusClient::urlArguments({url("x")}),
                   [this](const BusReply& reply) { menus += reply ? 1 : 0; });
    }
    ASSERT_TRUE(client->waitUntil([this] { return requests("mac_populate_menu") == 4; }));
    ASSERT_EQ(requests("get_icons_for_folder"), 1u);
  }

  /// Waits for the end of the extension, which must not take long: its exit status. That is 1 where it gave up waiting,
  /// as it does 3.4 s after it was asked; a busy machine may make it do so after requests.
  int end() {
    const auto begun = std::chrono::steady_clock::now();
    const int status = extension->wait();
    const auto taken = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begun);
    EXPECT_LT(taken.count(), LONGEST_END.count());
    RecordProperty("milliseconds", static_cast<int>(taken.count()));
    return status;
  }
  int endWhenAsked() {
    extension->signal(SIGTERM);
    return end();
  }

  Environment environment;
  const std::string root = environment.folder() / "root";
  Gate statuses;
  std::size_t menus = 0;  // answered
  std::optional<LoopbackServer> server;
  std::optional<PrivateBus> bus;
  std::optional<BusClient> client;
  std::unique_ptr<StartedProgram> extension;
};

using EndOfProcess = ProcessLife;
using StartOfProcess = ProcessLife;

// --- The end --------------------------------------------------------------------------------------------------------

TEST_F(EndOfProcess, ComesInTimeWhenIdle) {
  start();
  EXPECT_EQ(endWhenAsked(), 0);
}

TEST_F(EndOfProcess, ComesInTimeInRequestsWithEveryMenuAnsweredAndNoFurtherFolderPolled) {
  start();
  keepBusy();
  extension->signal(SIGTERM);
  ASSERT_TRUE(client->waitUntil([this] { return client->extensionProcess() == 0; }));
  statuses.open();  // the worker could go on to the next folder now, while the menus still wait
  EXPECT_EQ(end(), 0);
  EXPECT_EQ(requests("get_icons_for_folder"), 1u);
  EXPECT_TRUE(client->waitUntil([this] { return menus == 6; }));
}

TEST_F(EndOfProcess, ComesLongBeforeTheTimeOutOfRequestsUnderWayWhoseCallsAreAnswered) {
  start();
  serveStalling();
  std::vector<MenuEntry> entries;
  const auto begun = Clock::now();
  ASSERT_TRUE(client->menu({url("x")}, entries));
  const auto wholeRequest = Clock::now() - begun;  // until its own time-out
  ASSERT_TRUE(client->beginObserving(url("d")));
  std::optional<BusReply> menu;
  std::optional<BusReply> action;
  client->call("GetMenu", BusClient::urlArguments({url("x")}), [&](const BusReply& reply) { menu = reply; });
  client->call("PerformAction", g_variant_new("(s@as)", "copyLink:", urls({url("x")})),
               [&](const BusReply& reply) { action = reply; });
  ASSERT_TRUE(client->waitUntil([this] {
    return requests("get_icons_for_folder") == 1 && requests("mac_populate_menu") == 2 &&
           requests("select_context_menu") == 1;
  }));

  const auto asked = Clock::now();
  EXPECT_EQ(endWhenAsked(), 0);
  EXPECT_LT((Clock::now() - asked) * 3, wholeRequest * 2) << "it waited for its requests";
  ASSERT_TRUE(client->waitUntil([&] { return menu && action; }));
  EXPECT_EQ(menu->error, "");
  ASSERT_TRUE(menu->value);
  EXPECT_EQ(disabledEntries(*menu), 5u);
  EXPECT_EQ(action->error, "");
  EXPECT_EQ(requests("mac_populate_menu"), 2u);
  EXPECT_EQ(requests("select_context_menu"), 1u);
}

TEST_F(EndOfProcess, ComesInTimeWhenNobodyReadsTheOutput) {
  const BlockedOutput output(environment.folder() / "blocked");
  start(output.path());
  EXPECT_EQ(endWhenAsked(), 0);
}

TEST_F(EndOfProcess, ComesInTimeInRequestsWhenNobodyReadsTheOutput) {
  const BlockedOutput output(environment.folder() / "blocked");
  start(output.path());
  keepBusy();
  EXPECT_THAT(endWhenAsked(), AnyOf(0, 1));
}

TEST_F(EndOfProcess, ComesInTimeWhenTheBusGoesDuringRequests) {
  const BlockedOutput output(environment.folder() / "blocked");
  start(output.path());
  keepBusy();
  bus->stop();
  EXPECT_THAT(end(), AnyOf(0, 1));
}

TEST_F(EndOfProcess, ComesInTimeWhenAskedToAfterTheBusHasGone) {
  start();
  keepBusy();
  bus->stop();
  EXPECT_THAT(endWhenAsked(), AnyOf(0, 1));
}

TEST_F(EndOfProcess, ComesInTimeThoughALookUpHangs) {
  ASSERT_EQ(::mkfifo((environment.container() / "sync.db").c_str(), 0600), 0);  // to open it is to wait for a writer
  start();
  client->call("RequestBadges", BusClient::urlArguments({url("x")}), [](const BusReply&) {});
  EXPECT_EQ(client->property("Version"), "'1.0.0'");  // the call above has arrived
  EXPECT_THAT(endWhenAsked(), AnyOf(0, 1));
}

// --- The beginning --------------------------------------------------------------------------------------------------

TEST_F(StartOfProcess, WithClosedStandardDescriptorsTheLogIsWrittenOnceAndNothingElseInTheirPlace) {
  start({"/bin/sh", "-c", "exec " VORNET_EXTENSION " <&- >&- 2>&-"}, environment.folder() / "output");
  const fs::path descriptors = "/proc/" + std::to_string(extension->pid()) + "/fd";
  for (const char* descriptor : {"0", "1", "2"})
    EXPECT_EQ(fs::read_symlink(descriptors / descriptor), "/dev/null") << descriptor;
  ASSERT_TRUE(client->beginObserving(url("d")));
  std::istringstream lines(logText());
  std::size_t entered = 0;
  std::size_t opened = 0;
  for (std::string line; std::getline(lines, line);) {
    entered += line.find("Directory enter: ") != std::string::npos ? 1 : 0;
    opened += line.find("writing to log to") != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(entered, 1u) << logText();
  EXPECT_EQ(opened, 0u) << "a line for the console alone";
  EXPECT_EQ(endWhenAsked(), 0);
}

TEST_F(StartOfProcess, AFullDiskNeitherEndsItNorJoinsTwoLinesOfTheLog) {
  start();
  ASSERT_TRUE(client->waitUntil([this] { return logText().ends_with("Finder plugin enabled\n"); }));
  const auto before = logText();
  rlimit limit{};
  ASSERT_EQ(::prlimit(extension->pid(), RLIMIT_FSIZE, nullptr, &limit), 0);
  const rlimit full{before.size() + 10, limit.rlim_max};
  ASSERT_EQ(::prlimit(extension->pid(), RLIMIT_FSIZE, &full, nullptr), 0);
  ASSERT_TRUE(client->beginObserving(url("d")));
  ASSERT_EQ(::prlimit(extension->pid(), RLIMIT_FSIZE, &limit, nullptr), 0);
  ASSERT_TRUE(client->endObserving(url("d")));
  ASSERT_THAT(logText(), HasSubstr("Directory exit: "));
  const auto after = logText().substr(before.size());
  EXPECT_EQ(after.find('\n'), 10u) << after;
  EXPECT_EQ(after.substr(0, 5), after.substr(11, 5)) << "a line begins with the year: " << after;
  EXPECT_EQ(endWhenAsked(), 0);
}

TEST_F(StartOfProcess, ItBeginsWithAPipeWithoutAReaderInPlaceOfItsLog) {
  fs::create_directories(environment.logFile().parent_path());
  ASSERT_EQ(::mkfifo(environment.logFile().c_str(), 0600), 0);
  start();
  EXPECT_TRUE(fs::is_regular_file(environment.logFile()));
  EXPECT_THAT(logText(), HasSubstr("Logger initialized on level: INFO\n"));
}

TEST_F(StartOfProcess, ItsLogKeepsOutTheLastLinesOfTheOneBefore) {
  start();
  keepBusy();
  for (int i = 0; i < 40; ++i) client->call("GetMenu", BusClient::urlArguments({url("x")}), [](const BusReply&) {});
  EXPECT_EQ(client->property("Version"), "'1.0.0'");  // the calls above have arrived
  const auto first = std::move(extension);
  first->signal(SIGTERM);  // it gives up one menu after another
  ASSERT_TRUE(client->waitUntil([&] { return client->extensionProcess() != first->pid(); }));
  start();
  EXPECT_THAT(first->wait(), AnyOf(0, 1));
  EXPECT_THAT(logText(), HasSubstr("PID: " + std::to_string(extension->pid()) + "\n"));
  EXPECT_THAT(logText(), testing::Not(HasSubstr("Cannot populate context menu"))) << "the first one's";
}

TEST_F(StartOfProcess, WithAFolderInPlaceOfItsLogItSaysSoAndServes) {
  fs::create_directories(environment.logFile());
  start();
  EXPECT_EQ(client->property("Version"), "'1.0.0'");
  EXPECT_TRUE(client->waitUntil([this] {
    return readFile(environment.folder() / "output")
               .find("[Error] : Attempt to open log file for writing failed: Optional(\"Is a directory\")\n") !=
           std::string::npos;
  }));
}

}  // namespace
