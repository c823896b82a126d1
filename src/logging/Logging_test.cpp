#include "logging/Logging.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <thread>

#include "base/AppConst.hpp"
#include "logging/LogDestinations.hpp"
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
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::UnorderedElementsAre;
using Constants = XCGLogger::constants;

// --- logger and logMap

TEST(Logger, IsTheDefaultInstance) {
  EXPECT_EQ(&logger(), &XCGLogger::defaultInstance());
  EXPECT_EQ(&logger(), &logger());
  EXPECT_EQ(logger().identifier(), Constants::defaultInstanceIdentifier);
}

TEST(Logger, IsMadeOnceAsIsTheMapWhenManyThreadsAskAtOnce) {
  constexpr std::size_t COUNT = 16;
  const XCGLogger* loggers[COUNT] = {};
  const void* maps[COUNT] = {};
  test::Gate gate;
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < COUNT; ++i) {
    threads.emplace_back([&, i] {
      gate.pass();
      loggers[i] = &logger();
      maps[i] = &logMap();
    });
  }
  gate.open();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(std::set<const XCGLogger*>(loggers, loggers + COUNT).size(), 1u);
  EXPECT_EQ(std::set<const void*>(maps, maps + COUNT).size(), 1u);
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
  const auto records = log.records();
  ASSERT_EQ(records.size(), 3u);
  constexpr std::string_view messages[] = {"one", "two", "three"};
  constexpr LogLevel levels[] = {LogLevel::Debug, LogLevel::Info, LogLevel::Warning};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(records[i].logMessage, messages[i]);
    EXPECT_EQ(records[i].logLevel, levels[i]);
    EXPECT_EQ(records[i].functionName, "TestBody");
    EXPECT_THAT(records[i].fileName, testing::EndsWith("logging/Logging_test"));
    EXPECT_EQ(records[i].lineNumber, line + static_cast<int>(i));
  }
}

TEST(LogMacros, BuildNoMessageThatNoDestinationWants) {
  int built = 0;
  const auto message = [&built] {
    ++built;
    return std::string("m");
  };
  const test::LogRecorder log(LogLevel::Warning);
  VI_DEBUG(message());
  VI_INFO(message());
  EXPECT_EQ(built, 0);
  VI_WARNING(message());
  EXPECT_EQ(built, 1);
  EXPECT_THAT(log.messages(), testing::ElementsAre("m"));
}

TEST(LogMacros, AskTheDestinationsAndNotTheLogger) {
  const test::LogRecorder log(LogLevel::Debug);
  logger().setOutputLogLevel(LogLevel::None);
  VI_DEBUG("m");
  EXPECT_THAT(log.messages(), testing::ElementsAre("m"));
}

// --- setupLogger

class SetupLogger : public testing::Test {
 protected:
  std::shared_ptr<XCGFormattedLogDestination> destination(std::string_view identifier) const {
    return std::dynamic_pointer_cast<XCGFormattedLogDestination>(logger().logDestination(identifier));
  }
  std::string appDetails(const std::string& level) const {
    return "[Info] : " + platform::processName() + " Version: 1.0.0 Build: 1 PID: " + std::to_string(::getpid()) +
           "\n[Info] : XCGLogger Version: 1.8.1 - LogLevel: " + level + "\n";
  }

  /// The logger as it is before any set-up.
  void expectUntouched() const {
    EXPECT_EQ(logger().outputLogLevel(), LogLevel::Debug);
    ASSERT_EQ(logger().logDestinations().size(), 1u);
    const auto console = destination(Constants::baseConsoleLogDestinationIdentifier);
    ASSERT_NE(console, nullptr);
    EXPECT_EQ(console->outputLogLevel(), LogLevel::Debug);
    EXPECT_TRUE(console->showLogLevel() && console->showFileName() && console->showLineNumber());
  }

  /// Where the container is, whether it was made or not.
  fs::path containerPath() const { return fs::path(environment.folder() / "containers") / App().APP_GROUP; }

  test::Environment environment;
};

TEST_F(SetupLogger, AtInfoWritesToConsoleAndFile) {
  const auto text = consoleOutputOf([] { setupLogger("INFO"); });
  const std::string initialized = "[Info] [Logging] setupLogger: Logger initialized on level: INFO\n";
  EXPECT_EQ(withoutDates(text), appDetails("Info") + "[Info] : XCGLogger writing to log to: file://" +
                                    environment.logFile().string() + "\n" + initialized);
  EXPECT_EQ(withoutDates(readFile(environment.logFile())), appDetails("Info") + initialized);
}

TEST_F(SetupLogger, GivesConsoleAndFileTheSameLevelAndFlags) {
  consoleOutputOf([] { setupLogger("INFO"); });
  ASSERT_EQ(logger().logDestinations().size(), 2u);
  EXPECT_EQ(logger().outputLogLevel(), LogLevel::Info);
  for (const auto identifier :
       {Constants::baseConsoleLogDestinationIdentifier, Constants::baseFileLogDestinationIdentifier}) {
    const auto found = destination(identifier);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->outputLogLevel(), LogLevel::Info);
    EXPECT_TRUE(found->showLogLevel());
    EXPECT_TRUE(found->showFileName());
    EXPECT_FALSE(found->showLineNumber());
  }
}

TEST_F(SetupLogger, TakesTheDefaultLevelOfTheApplication) {
  consoleOutputOf([] { setupLogger(App().DEFAULT_LOG_LEVEL); });
  EXPECT_THAT(readFile(environment.logFile()), HasSubstr("Logger initialized on level: INFO\n"));
}

TEST_F(SetupLogger, PutsTheFileIntoTheFolderLogOfTheContainer) {
  consoleOutputOf([] { setupLogger("INFO"); });
  EXPECT_TRUE(fs::is_regular_file(containerPath() / "log" / "vi.log"));
}

TEST_F(SetupLogger, UsesAnExistingFolder) {
  fs::create_directories(environment.container() / "log");
  test::writeFile(environment.container() / "log" / "other", "kept");
  consoleOutputOf([] { setupLogger("INFO"); });
  EXPECT_THAT(readFile(environment.logFile()), HasSubstr("Logger initialized"));
  EXPECT_EQ(readFile(environment.container() / "log" / "other"), "kept");
}

struct NamedLevel {
  const char* name;
  LogLevel level;
};
void PrintTo(const NamedLevel& level, std::ostream* out) {
  *out << level.name;
}
class SetupLoggerLevels : public SetupLogger, public testing::WithParamInterface<NamedLevel> {};

INSTANTIATE_TEST_SUITE_P(, SetupLoggerLevels,
                         testing::Values(NamedLevel{"DEBUG", LogLevel::Debug}, NamedLevel{"INFO", LogLevel::Info},
                                         NamedLevel{"WARNING", LogLevel::Warning}, NamedLevel{"ERROR", LogLevel::Error},
                                         NamedLevel{"CRITICAL", LogLevel::Severe}),
                         [](const auto& test) { return test.param.name; });

TEST_P(SetupLoggerLevels, SetLoggerAndDestinations) {
  const auto [name, level] = GetParam();
  consoleOutputOf([&, text = std::string(name)] { setupLogger(text); });
  EXPECT_EQ(logger().outputLogLevel(), level);
  ASSERT_EQ(logger().logDestinations().size(), 2u);
  for (const auto& found : logger().logDestinations()) EXPECT_EQ(found->outputLogLevel(), level);
}

TEST_P(SetupLoggerLevels, LetTheLastMessageThroughWhenAtMostInfo) {
  const auto [name, level] = GetParam();
  const auto text = consoleOutputOf([&, given = std::string(name)] { setupLogger(given); });
  const auto expected = "Logger initialized on level: " + std::string(name) + "\n";
  if (level <= LogLevel::Info) {
    EXPECT_THAT(text, HasSubstr(expected));
    EXPECT_THAT(readFile(environment.logFile()), HasSubstr(expected));
  } else {
    EXPECT_EQ(text, "");
    EXPECT_EQ(withoutDates(readFile(environment.logFile())), appDetails(std::string(description(level))));
  }
}

class SetupLoggerUnknownLevels : public SetupLogger, public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(, SetupLoggerUnknownLevels,
                         testing::Values("info", "VERBOSE", "", "NONE", "SEVERE", "INFO ", " INFO", "Info", "2"));

TEST_P(SetupLoggerUnknownLevels, AreReportedOnTheConsoleAlone) {
  const std::string name = GetParam();
  const auto text = consoleOutputOf([&] { setupLogger(name); });
  EXPECT_EQ(withoutDates(text), "[Warning] [Logging:37] setupLogger: Error setting log level: " + name + "\n");
}

TEST_P(SetupLoggerUnknownLevels, LeaveTheLoggerAsItWasAndMakeNoFolder) {
  consoleOutputOf([name = std::string(GetParam())] { setupLogger(name); });
  expectUntouched();
  EXPECT_FALSE(fs::exists(containerPath()));
}

TEST_F(SetupLogger, ReportsAFolderThatCannotBeMadeAndLeavesTheLoggerAsItWas) {
  test::writeFile(environment.container() / "log", "a file, not a folder");
  const auto text = consoleOutputOf([] { setupLogger("ERROR"); });
  EXPECT_THAT(withoutDates(text), testing::AnyOf("[Warning] [Logging:29] setupLogger: Error creating log dir: "
                                                 "Not a directory\n",
                                                 "[Warning] [Logging:29] setupLogger: Error creating log dir: "
                                                 "File exists\n"));
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

TEST_F(SetupLogger, LogsItsMessagesAtTheirKnownLines) {
  const test::LogRecorder log;
  const auto expectLast = [&](LogLevel level, const std::string& message, std::int64_t line) {
    const auto records = log.records();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back().logLevel, level);
    EXPECT_THAT(records.back().logMessage, testing::StartsWith(message));
    EXPECT_EQ(records.back().functionName, "setupLogger");
    EXPECT_EQ(fs::path(records.back().fileName).filename(), "Logging");
    EXPECT_EQ(records.back().lineNumber, line);
  };
  setupLogger("VERBOSE");
  expectLast(LogLevel::Warning, "Error setting log level: VERBOSE", 37);
  test::writeFile(environment.container() / "log", "");
  setupLogger("INFO");
  expectLast(LogLevel::Warning, "Error creating log dir: ", 29);
  fs::remove(environment.container() / "log");
  consoleOutputOf([] { setupLogger("INFO"); });
  expectLast(LogLevel::Info, "Logger initialized on level: INFO", 34);
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
  EXPECT_THAT(text, Not(HasSubstr("first run")));
  EXPECT_THAT(text, HasSubstr("second run\n"));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4);
}

TEST_F(SetupLogger, CalledTwiceEmptiesTheFileAndAttachesNoSecondDestination) {
  consoleOutputOf([] {
    setupLogger("INFO");
    VI_INFO("between");
    setupLogger("WARNING");
    VI_WARNING("after");
  });
  EXPECT_EQ(logger().logDestinations().size(), 2u);
  EXPECT_EQ(withoutDates(readFile(environment.logFile())),
            appDetails("Warning") + "[Warning] [Logging_test] operator(): after\n");
}

}  // namespace
}  // namespace vornet
