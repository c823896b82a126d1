#include "logging/Logging.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>

#include "base/AppConst.hpp"
#include "support/CapturedOutput.hpp"
#include "support/ChildProcess.hpp"
#include "support/Environment.hpp"
#include "support/LogRecorder.hpp"
#include "support/Threads.hpp"

namespace vornet {
namespace {

namespace fs = std::filesystem;
using test::consoleOutputOf;
using test::readFile;
using test::withoutDates;
using testing::_;
using testing::ElementsAre;
using testing::EndsWith;
using testing::FieldsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::UnorderedElementsAre;

// --- logger and logMap

TEST(Logger, IsTheDefaultInstance) {
  EXPECT_EQ(&logger(), &XCGLogger::defaultInstance());
}

TEST(Logger, IsMadeOnceAsAreTheMapAndTheQueueWhenManyThreadsAskAtOnce) {
  std::array<std::array<const void*, 3>, 16> found{};
  test::inParallel(found.size(), [&](std::size_t i) { found[i] = {&logger(), &logMap(), &XCGLogger::logQueue()}; });
  EXPECT_THAT(found, testing::Each(found[0]));
}

TEST(LogMap, HoldsExactlyFiveNames) {
  EXPECT_THAT(logMap(), UnorderedElementsAre(Pair("DEBUG", LogLevel::Debug), Pair("INFO", LogLevel::Info),
                                             Pair("WARNING", LogLevel::Warning), Pair("ERROR", LogLevel::Error),
                                             Pair("CRITICAL", LogLevel::Severe)));
}

// --- Call sites

TEST(LogMacros, RecordTheCallSite) {
  const test::LogRecorder log;
  const int line = __LINE__ + 1;
  VI_DEBUG("one");
  VI_INFO("two");
  VI_WARNING("three");
  const auto here = EndsWith("logging/Logging_test");
  EXPECT_THAT(log.records(), ElementsAre(FieldsAre(LogLevel::Debug, _, "one", "TestBody", here, line),
                                         FieldsAre(LogLevel::Info, _, "two", "TestBody", here, line + 1),
                                         FieldsAre(LogLevel::Warning, _, "three", "TestBody", here, line + 2)));
}

TEST(LogMacros, BuildNoMessageThatNoDestinationWants) {
  int built = 0;
  const auto message = [&built] { return std::to_string(++built); };
  const test::LogRecorder log(LogLevel::Warning);
  VI_DEBUG(message());
  VI_INFO(message());
  VI_WARNING(message());
  EXPECT_EQ(built, 1);
  EXPECT_THAT(log.messages(), ElementsAre("1"));
}

TEST(LogMacros, AskTheDestinationsAndNotTheLogger) {
  const test::LogRecorder log(LogLevel::Debug);
  logger().setOutputLogLevel(LogLevel::None);
  VI_DEBUG("m");
  EXPECT_THAT(log.messages(), ElementsAre("m"));
}

// --- setupLogger

class SetupLogger : public testing::Test {
 protected:
  std::string appDetails(const std::string& level) const {
    return "[Info] : " + platform::processName() + " Version: 1.0.0 Build: 1 PID: " + std::to_string(::getpid()) +
           "\n[Info] : XCGLogger Version: 1.8.1 - LogLevel: " + level + "\n";
  }

  /// The logger as it is before any set-up.
  void expectUntouched() const {
    EXPECT_EQ(logger().outputLogLevel(), LogLevel::Debug);
    EXPECT_EQ(logger().debugDescription(), before);
  }

  /// Where the container is, whether it was made or not.
  fs::path containerPath() const { return fs::path(environment.folder() / "containers") / App().APP_GROUP; }

  test::Environment environment;
  const std::string before = logger().debugDescription();
};

TEST_F(SetupLogger, UsesAnExistingFolder) {
  fs::create_directories(environment.container() / "log");
  test::writeFile(environment.container() / "log" / "other", "kept");
  consoleOutputOf([] { setupLogger("INFO"); });
  EXPECT_THAT(readFile(environment.logFile()), HasSubstr("Logger initialized"));
  EXPECT_EQ(readFile(environment.container() / "log" / "other"), "kept");
}

class SetupLoggerLevels : public SetupLogger, public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(, SetupLoggerLevels, testing::Values("DEBUG", "INFO", "WARNING", "ERROR", "CRITICAL"),
                         [](const auto& test) { return test.param; });

TEST_P(SetupLoggerLevels, SetLoggerConsoleAndTheContainersLogFileAndLetTheirMessagesThroughWhenAtMostInfo) {
  const std::string name = GetParam();
  const LogLevel level = logMap().at(name);
  const auto text = consoleOutputOf([&] { setupLogger(name); });
  EXPECT_EQ(logger().outputLogLevel(), level);
  EXPECT_EQ(logger().logDestinations().size(), 2u);
  for (const auto& found : logger().logDestinations()) EXPECT_EQ(found->outputLogLevel(), level);

  const auto file = containerPath() / "log" / "vi.log";
  const auto details = appDetails(std::string(description(level)));
  const auto initialized = "[Info] [Logging] setupLogger: Logger initialized on level: " + name + "\n";
  if (level <= LogLevel::Info) {
    EXPECT_EQ(withoutDates(text),
              details + "[Info] : XCGLogger writing to log to: file://" + file.string() + "\n" + initialized);
    EXPECT_EQ(withoutDates(readFile(file)), details + initialized);
  } else {
    EXPECT_EQ(text, "");
    EXPECT_EQ(withoutDates(readFile(file)), details);
  }
}

TEST_F(SetupLogger, TakesTheDefaultLevelOfTheApplication) {
  EXPECT_TRUE(logMap().contains(App().DEFAULT_LOG_LEVEL));
}

class SetupLoggerUnknownLevels : public SetupLogger, public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(, SetupLoggerUnknownLevels,
                         testing::Values("info", "VERBOSE", "", "NONE", "SEVERE", "INFO ", " INFO", "Info", "2"));

TEST_P(SetupLoggerUnknownLevels, AreReportedOnTheConsoleAloneAndLeaveTheLoggerAsItWasWithoutFolder) {
  const std::string name = GetParam();
  const auto text = consoleOutputOf([&] { setupLogger(name); });
  EXPECT_EQ(withoutDates(text), "[Warning] [Logging:37] setupLogger: Error setting log level: " + name + "\n");
  expectUntouched();
  EXPECT_FALSE(fs::exists(containerPath()));
}

TEST_F(SetupLogger, ReportsAFolderThatCannotBeMadeAndLeavesTheLoggerAsItWas) {
  test::writeFile(environment.container() / "log", "a file, not a folder");
  const auto text = consoleOutputOf([] { setupLogger("ERROR"); });
  const std::string report = "[Warning] [Logging:29] setupLogger: Error creating log dir: ";
  EXPECT_THAT(withoutDates(text), testing::AnyOf(report + "Not a directory\n", report + "File exists\n"));
  expectUntouched();
  EXPECT_EQ(readFile(environment.container() / "log"), "a file, not a folder");
}

TEST_F(SetupLogger, ReportsAContainerThatTakesNoFolder) {
  // Nobody, the superuser included, can make a folder below this one.
  fs::create_symlink("/proc/self", containerPath());
  const auto text = consoleOutputOf([] { setupLogger("INFO"); });
  EXPECT_THAT(withoutDates(text), testing::MatchesRegex("\\[Warning\\] \\[Logging:29\\] setupLogger: "
                                                        "Error creating log dir: [A-Z][A-Za-z -]+\n"));
  expectUntouched();
}

TEST_F(SetupLogger, StopsTheProcessWithoutAContainer) {
  test::writeFile(environment.folder() / "file", "");
  const test::ScopedVariable none("VORNET_GROUP_CONTAINERS", environment.folder() / "file");
  test::CapturedOutput output(STDERR_FILENO);
  test::ChildProcess child([] {
    setupLogger("INFO");
    return 0;
  });
  EXPECT_EQ(child.wait(), -SIGABRT);
  EXPECT_THAT(output.finish(), HasSubstr("no group container"));
}

TEST_F(SetupLogger, CompletesWhenTheFileCannotBeOpened) {
  fs::create_directories(environment.logFile());
  const auto text = consoleOutputOf([] { setupLogger("INFO"); });
  EXPECT_EQ(withoutDates(text),
            appDetails("Info") +
                "[Error] : Attempt to open log file for writing failed: Optional(\"Is a directory\")\n"
                "[Info] [Logging] setupLogger: Logger initialized on level: INFO\n");
  EXPECT_EQ(logger().outputLogLevel(), LogLevel::Info);
  EXPECT_EQ(logger().logDestinations().size(), 2u);
  EXPECT_TRUE(fs::is_empty(environment.logFile()));
}

TEST_F(SetupLogger, LogsItsLastMessageAtItsKnownLine) {
  const test::LogRecorder log;
  consoleOutputOf([] { setupLogger("INFO"); });
  EXPECT_THAT(log.records(), testing::Contains(FieldsAre(LogLevel::Info, _, "Logger initialized on level: INFO",
                                                         "setupLogger", EndsWith("/Logging"), 34)));
}

TEST_F(SetupLogger, ASecondStartLeavesOnlyItsOwnLines) {
  const auto start = [](const std::string& message, int times) {
    return test::ChildProcess([&] {
             setupLogger("INFO");
             for (int i = 0; i < times; ++i) VI_INFO(message);
             return 0;
           })
        .wait();
  };
  ASSERT_EQ(start("first run", 100), 0);
  EXPECT_THAT(readFile(environment.logFile()), HasSubstr("first run\n"));
  ASSERT_EQ(start("second run", 1), 0);
  const auto text = readFile(environment.logFile());
  EXPECT_THAT(text, testing::AllOf(testing::Not(HasSubstr("first run")), HasSubstr("second run\n")));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4);
}

TEST_F(SetupLogger, CalledTwiceEmptiesTheFileAndAttachesNoSecondDestination) {
  consoleOutputOf([] {
    setupLogger("INFO");
    VI_INFO("between");
  });
  const auto destinations = logger().logDestinations();
  ASSERT_THAT(readFile(environment.logFile()), HasSubstr("between"));
  consoleOutputOf([] { setupLogger("WARNING"); });
  EXPECT_EQ(logger().logDestinations(), destinations);
  EXPECT_EQ(destinations.back()->outputLogLevel(), LogLevel::Warning);
  EXPECT_EQ(withoutDates(readFile(environment.logFile())), appDetails("Warning"));
  consoleOutputOf([] { VI_WARNING("after"); });
  EXPECT_EQ(withoutDates(readFile(environment.logFile())),
            appDetails("Warning") + "[Warning] [Logging_test] operator(): after\n");
}

}  // namespace
}  // namespace vornet
