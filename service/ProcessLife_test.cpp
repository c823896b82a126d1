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

#include "support/ExtensionTest.hpp"
#include "support/SyncApplication.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using testing::AnyOf;
using testing::Each;
using testing::Field;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

// An end takes 3.5 s at most; the rest is for a busy machine. Two requests one after the other would take 6 s.
constexpr std::chrono::milliseconds LONGEST_END{5000};

class ProcessLife : public ExtensionTest {
 protected:
  ProcessLife() { startConfigured(); }
  ~ProcessLife() override {
    statuses.open();
    extension.reset();
    if (blocked_ >= 0) ::close(blocked_);
  }

  /// A pipe that is full and that nobody reads, for output.
  std::string blockedOutput() {
    const std::string path = environment.folder() / "blocked";
    EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
    blocked_ = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    while (::write(blocked_, "x", 1) == 1) continue;
    return path;
  }

  /// Starts the extension, with its output in `output`, and waits until it serves the bus.
  void startExtension(const fs::path& output = {}) { startExtension({VORNET_EXTENSION}, output); }
  void startExtension(const std::vector<std::string>& command, const fs::path& output = {}) {
    // An end that gives up waiting leaves threads, which is no leak.
    const char* options = std::getenv("TSAN_OPTIONS");
    extension =
        launch(command, {"TSAN_OPTIONS=" + std::string(options ? options : "") + ":report_thread_leaks=0"}, output);
    ASSERT_TRUE(client->waitUntil([this] { return client->extensionProcess() == extension->pid(); }));
    ASSERT_EQ(process(), extension->pid());  // it has its name before it has begun its log
  }

  /// A sync application that never answers menus, and answers statuses once `statuses` opens.
  void serveStalling() {
    server.emplace();
    for (const char* command : {"mac_populate_menu", "select_context_menu"}) server->stall(command);
    server->setAnswer("get_icons_for_folder", answerAfter(statuses, "{}"));
  }
  std::size_t requests(const std::string& command) const { return server->bodies(command).size(); }

  /// Has the worker and every thread for menus wait for the sync application, the worker first.
  void keepBusy() {
    serveStalling();
    ASSERT_TRUE(client->beginObserving(url("d")));
    ASSERT_TRUE(server->waitForRequests(1));
    ASSERT_TRUE(client->beginObserving(url("e")));
    for (int i = 0; i < 6; ++i) askForMenu("x", [menus = menus](const BusReply& reply) { *menus += reply ? 1 : 0; });
    ASSERT_TRUE(client->waitUntil([this] { return requests("mac_populate_menu") == 4; }));
    ASSERT_EQ(requests("get_icons_for_folder"), 1u);
  }

  /// Waits for the end of the extension, which must not take long: its exit status. That is 1 where it gave up waiting,
  /// as it does 3.3 s after it was asked; a busy machine may make it do so after requests.
  int end() {
    const auto begun = Clock::now();
    const int status = extension->wait();
    EXPECT_LT(Clock::now() - begun, LONGEST_END);
    return status;
  }
  int endWhenAsked() {
    extension->signal(SIGTERM);
    return end();
  }

  const fs::path logFile = container / "log/vi.log";
  Gate statuses;
  // How many were answered. The client, which outlives this, ends the other calls.
  const std::shared_ptr<std::size_t> menus = std::make_shared<std::size_t>(0);
  std::optional<SyncApplication> server;
  std::unique_ptr<StartedProgram> extension;

 private:
  int blocked_ = -1;
};

using EndOfProcess = ProcessLife;
using StartOfProcess = ProcessLife;

// --- The end --------------------------------------------------------------------------------------------------------

TEST_F(EndOfProcess, ComesInTimeDuringRequestsWithEveryMenuAnsweredAndNoFurtherFolderPolled) {
  startExtension();
  keepBusy();
  extension->signal(SIGTERM);
  ASSERT_TRUE(client->waitUntil([this] { return client->extensionProcess() == 0; }));
  statuses.open();  // the worker could go on to the next folder now, while the menus still wait
  EXPECT_EQ(end(), 0);
  EXPECT_EQ(requests("get_icons_for_folder"), 1u);
  EXPECT_TRUE(client->waitUntil([this] { return *menus == 6; }));
}

TEST_F(EndOfProcess, ComesLongBeforeTheTimeOutOfRequestsInFlightAndAnswersTheirCalls) {
  startExtension();
  serveStalling();
  const auto begun = Clock::now();
  menu({"x"});
  const auto wholeRequest = Clock::now() - begun;  // until its own time-out
  ASSERT_TRUE(client->beginObserving(url("d")));
  std::optional<BusReply> shown;
  std::optional<BusReply> action;
  askForMenu("x", [&](const BusReply& reply) { shown = reply; });
  client->call("PerformAction", BusClient::actionArguments("copyLink:", {url("x")}),
               [&](const BusReply& reply) { action = reply; });
  ASSERT_TRUE(client->waitUntil([this] {
    return requests("get_icons_for_folder") == 1 && requests("mac_populate_menu") == 2 &&
           requests("select_context_menu") == 1;
  }));

  const auto asked = Clock::now();
  EXPECT_EQ(endWhenAsked(), 0);
  EXPECT_LT((Clock::now() - asked) * 3, wholeRequest * 2) << "it waited for its requests";
  ASSERT_TRUE(client->waitUntil([&] { return shown && action; }));
  EXPECT_EQ(shown->error, "");
  EXPECT_THAT(shown->entries(), testing::AllOf(SizeIs(5), Each(Field(&MenuEntry::enabled, false))));
  EXPECT_EQ(action->error, "");
  EXPECT_EQ(requests("mac_populate_menu"), 2u);
  EXPECT_EQ(requests("select_context_menu"), 1u);
}

enum Condition : unsigned { ASKED = 1, BUSY = 2, BUS_GONE = 4, OUTPUT_BLOCKED = 8 };

class EndOfProcessInTime : public ProcessLife, public testing::WithParamInterface<std::pair<const char*, unsigned>> {};

TEST_P(EndOfProcessInTime, Comes) {
  const auto conditions = GetParam().second;
  startExtension(conditions & OUTPUT_BLOCKED ? blockedOutput() : "");
  if (conditions & BUSY) keepBusy();
  if (conditions & BUS_GONE) bus.reset();
  if (conditions & ASKED) extension->signal(SIGTERM);
  EXPECT_THAT(end(), AnyOf(0, conditions & BUSY ? 1 : 0));
}

INSTANTIATE_TEST_SUITE_P(
    Endings, EndOfProcessInTime,
    testing::Values(std::pair("WhenIdle", ASKED), std::pair("WhenNobodyReadsTheOutput", ASKED | OUTPUT_BLOCKED),
                    std::pair("WhenTheBusGoes", BUS_GONE),
                    std::pair("WhenTheBusGoesDuringRequests", BUS_GONE | BUSY | OUTPUT_BLOCKED),
                    std::pair("DuringRequestsWhenNobodyReadsTheOutput", ASKED | BUSY | OUTPUT_BLOCKED),
                    std::pair("WhenAskedToAfterTheBusHasGone", ASKED | BUSY | BUS_GONE)),
    [](const auto& ending) { return ending.param.first; });

TEST_F(EndOfProcess, ComesInTimeThoughALookUpHangs) {
  ASSERT_EQ(::mkfifo(database().c_str(), 0600), 0);  // opening it waits for a writer
  startExtension();
  client->call("RequestBadges", BusClient::urlArguments({url("x")}), [](const BusReply&) {});
  EXPECT_EQ(process(), extension->pid());  // the call above has arrived
  EXPECT_THAT(endWhenAsked(), AnyOf(0, 1));
}

// --- The beginning --------------------------------------------------------------------------------------------------

TEST_F(StartOfProcess, WithClosedStandardDescriptorsTheLogIsWrittenOnceAndNothingElseInTheirPlace) {
  startExtension({"/bin/sh", "-c", "exec " VORNET_EXTENSION " <&- >&- 2>&-"});
  const fs::path descriptors = "/proc/" + std::to_string(extension->pid()) + "/fd";
  for (const char* descriptor : {"0", "1", "2"})
    EXPECT_EQ(fs::read_symlink(descriptors / descriptor), "/dev/null") << descriptor;
  ASSERT_TRUE(client->beginObserving(url("d")));
  EXPECT_EQ(logged("Directory enter: "), 1u) << logText();
  EXPECT_EQ(logged("writing to log to"), 0u) << "a line for the console alone";
  EXPECT_EQ(endWhenAsked(), 0);
}

TEST_F(StartOfProcess, AtRestItHasAtMostEightThreadsThoughItUsedMore) {
  startExtension();
  keepBusy();
  const fs::path tasks = "/proc/" + std::to_string(extension->pid()) + "/task";
  const auto threads = [&] { return std::distance(fs::directory_iterator(tasks), {}); };
  EXPECT_GT(threads(), 8);
  statuses.open();
  EXPECT_TRUE(client->waitUntil([&] { return threads() <= 8; }));
}

TEST_F(StartOfProcess, AFullDiskNeitherEndsItNorJoinsTwoLinesOfTheLog) {
  startExtension();
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

TEST_F(StartOfProcess, ItStartsWithAPipeWithoutAReaderInPlaceOfItsLog) {
  fs::create_directories(logFile.parent_path());
  ASSERT_EQ(::mkfifo(logFile.c_str(), 0600), 0);
  startExtension();
  EXPECT_TRUE(fs::is_regular_file(logFile));
  EXPECT_THAT(logText(), HasSubstr("Logger initialized on level: INFO\n"));
}

TEST_F(StartOfProcess, ItsLogHasNoLinesOfTheProcessBefore) {
  startExtension();
  keepBusy();
  for (int i = 0; i < 40; ++i) askForMenu("x");
  EXPECT_EQ(process(), extension->pid());  // the calls above have arrived
  const auto first = std::move(extension);
  first->signal(SIGTERM);  // it gives up one menu after another
  ASSERT_TRUE(client->waitUntil([&] { return client->extensionProcess() != first->pid(); }));
  startExtension();
  EXPECT_THAT(first->wait(), AnyOf(0, 1));
  EXPECT_THAT(logText(), HasSubstr("PID: " + std::to_string(extension->pid()) + "\n"));
  EXPECT_THAT(logText(), Not(HasSubstr("Cannot populate context menu"))) << "the first one's";
}

TEST_F(StartOfProcess, WithAFolderInPlaceOfItsLogItSaysSoAndServes) {
  fs::create_directories(logFile);
  startExtension();
  const std::string said = "[Error] : Attempt to open log file for writing failed: Optional(\"Is a directory\")\n";
  EXPECT_TRUE(client->waitUntil([&] { return extension->output().find(said) != std::string::npos; }));
}

}  // namespace
}  // namespace vornet::test
