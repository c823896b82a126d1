#include "logging/XCGLogger.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <set>
#include <thread>

#include "logging/LogDestinations.hpp"
#include "platform/linux/Host.hpp"
#include "support/CapturedOutput.hpp"
#include "support/ChildProcess.hpp"
#include "support/Environment.hpp"
#include "support/Threads.hpp"

namespace vornet {
namespace {

using platform::FileURL;
using test::consoleOutputOf;
using test::withoutDates;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Constants = XCGLogger::constants;

constexpr std::array LEVELS = {LogLevel::Verbose, LogLevel::Debug, LogLevel::Info,
                               LogLevel::Warning, LogLevel::Error, LogLevel::Severe};

/// A record that a destination was given, in the order of all destinations that share a journal.
struct Received {
  std::string destination;
  XCGLogDetails details;
  const XCGLogDetails* record;
  bool internal;
};
using Journal = std::vector<Received>;

class RecordingDestination : public XCGFormattedLogDestination {
 public:
  RecordingDestination(XCGLogger& owner, std::string identifier, Journal& journal, LogLevel level = LogLevel::Verbose)
      : XCGFormattedLogDestination(owner, std::move(identifier)), journal_(journal) {
    setOutputLogLevel(level);
  }
  void processLogDetails(const XCGLogDetails& details) override {
    journal_.push_back({identifier(), details, &details, false});
  }
  void processInternalLogDetails(const XCGLogDetails& details) override {
    journal_.push_back({identifier(), details, &details, true});
  }
  std::string debugDescription() const override { return "Recording " + identifier(); }

 private:
  Journal& journal_;
};

std::vector<std::string> identifiers(const XCGLogger& logger) {
  std::vector<std::string> found;
  for (const auto& destination : logger.logDestinations()) found.push_back(destination->identifier());
  return found;
}

std::vector<std::string> messages(const Journal& journal) {
  std::vector<std::string> texts;
  for (const auto& entry : journal) texts.push_back(entry.destination + ": " + entry.details.logMessage);
  return texts;
}

std::string numbered(std::string text, std::size_t number) {
  return text.append(std::to_string(number));
}

/// Logs at each level through `logger` (a logger, or XCGLogger::Default) and checks the records.
template <class Logger>
void expectEachEntryPointAtItsLevel(Logger&& logger, const Journal& journal) {
  logger.verbose("0", "f0", "F0", 10);
  logger.debug("1", "f1", "F1", 11);
  logger.info("2", "f2", "F2", 12);
  logger.warning("3", "f3", "F3", 13);
  logger.error("4", "f4", "F4", 14);
  logger.severe("5", "f5", "F5", 15);
  logger.logln("6", LogLevel::Error, "f6", "F6", 16);
  ASSERT_EQ(journal.size(), 7u);
  for (std::size_t i = 0; i < 7; ++i) {
    const auto& details = journal[i].details;
    EXPECT_EQ(details.logLevel, i < 6 ? LEVELS[i] : LogLevel::Error);
    EXPECT_EQ(details.logMessage, std::to_string(i));
    EXPECT_EQ(details.functionName, numbered("f", i));
    EXPECT_EQ(details.fileName, numbered("F", i));
    EXPECT_EQ(details.lineNumber, static_cast<std::int64_t>(10 + i));
    EXPECT_FALSE(journal[i].internal);
  }
}

std::string firstAppDetail(const std::string& build) {
  return platform::processName() + " " + build + "PID: " + std::to_string(::getpid());
}

class XCGLoggerTest : public testing::Test {
 protected:
  /// A logger whose destinations are only those that the test attaches.
  void SetUp() override { logger.setLogDestinations({}); }

  std::shared_ptr<RecordingDestination> attach(const std::string& identifier, LogLevel level = LogLevel::Verbose) {
    auto destination = std::make_shared<RecordingDestination>(logger, identifier, journal, level);
    EXPECT_TRUE(logger.addLogDestination(destination));
    return destination;
  }

  test::Environment environment;
  Journal journal;
  XCGLogger logger;
};

// --- Constants and construction

TEST(XCGLoggerConstants, CarryTheVersionAndDistinctIdentifiers) {
  EXPECT_EQ(Constants::versionString, "1.8.1");
  const std::set<std::string_view> distinct = {
      Constants::defaultInstanceIdentifier, Constants::baseConsoleLogDestinationIdentifier,
      Constants::baseFileLogDestinationIdentifier, Constants::logQueueIdentifier,
      Constants::nsdataFormatterCacheIdentifier};
  EXPECT_EQ(distinct.size(), 5u);
}

TEST(XCGLoggerConstruction, GivesAnEmptyIdentifierAndLevelDebug) {
  const XCGLogger logger;
  EXPECT_EQ(logger.identifier(), "");
  EXPECT_EQ(logger.outputLogLevel(), LogLevel::Debug);
}

TEST(XCGLoggerConstruction, AttachesOneConsoleAtDebugWithAllFlags) {
  const XCGLogger logger;
  ASSERT_THAT(identifiers(logger), ElementsAre(std::string(Constants::baseConsoleLogDestinationIdentifier)));
  const auto* console = dynamic_cast<const XCGConsoleLogDestination*>(logger.logDestinations()[0].get());
  ASSERT_NE(console, nullptr);
  EXPECT_EQ(&console->owner(), &logger);
  EXPECT_EQ(console->outputLogLevel(), LogLevel::Debug);
  EXPECT_TRUE(console->showLogLevel());
  EXPECT_TRUE(console->showFileName());
  EXPECT_TRUE(console->showLineNumber());
}

TEST(XCGLoggerConstruction, LetsRecordsReachTheConsoleBeforeAnySetup) {
  const test::Environment environment;
  XCGLogger logger;
  const auto text = consoleOutputOf([&] { logger.debug("early", "main", "a/Start", 3); });
  EXPECT_EQ(withoutDates(text), "[Debug] [Start:3] main: early\n");
}

TEST(XCGLoggerDefaultInstance, HasTheDefaultIdentifierAndAConsole) {
  auto& instance = XCGLogger::defaultInstance();
  EXPECT_EQ(instance.identifier(), Constants::defaultInstanceIdentifier);
  EXPECT_EQ(instance.outputLogLevel(), LogLevel::Debug);
  EXPECT_THAT(identifiers(instance), ElementsAre(std::string(Constants::baseConsoleLogDestinationIdentifier)));
}

TEST(XCGLoggerDefaultInstance, IsMadeOnceAsIsTheQueueWhenManyThreadsAskAtOnce) {
  constexpr int COUNT = 16;
  std::array<XCGLogger*, COUNT> instances{};
  std::array<platform::SerialQueue*, COUNT> queues{};
  test::inParallel(COUNT, [&](std::size_t i) {
    instances[i] = &XCGLogger::defaultInstance();
    queues[i] = &XCGLogger::logQueue();
  });
  EXPECT_EQ(std::set<XCGLogger*>(instances.begin(), instances.end()).size(), 1u);
  EXPECT_EQ(std::set<platform::SerialQueue*>(queues.begin(), queues.end()).size(), 1u);
  EXPECT_EQ(XCGLogger::defaultInstance().identifier(), Constants::defaultInstanceIdentifier);
}

TEST(XCGLoggerSharedInstance, IsTheDefaultInstanceAndSaysThatItsNameIsDeprecated) {
  Journal journal;
  auto& instance = XCGLogger::defaultInstance();
  instance.setLogDestinations({std::make_shared<RecordingDestination>(instance, "r", journal)});
  EXPECT_EQ(&XCGLogger::sharedInstance(), &instance);
  ASSERT_EQ(journal.size(), 1u);
  EXPECT_EQ(journal[0].details.logLevel, LogLevel::Info);
  EXPECT_FALSE(journal[0].internal);
  EXPECT_EQ(journal[0].details.logMessage,
            "sharedInstance() has been renamed to defaultInstance() to better reflect that it is not a true singleton. "
            "Please update your code, sharedInstance() will be removed in a future version.");
  instance.setLogDestinations({});
}

// --- logln and the entry points

TEST_F(XCGLoggerTest, LogsARecordWithAllItWasGiven) {
  attach("r");
  const auto before = std::chrono::system_clock::now();
  logger.logln("the message\n", LogLevel::Warning, "function", "folder/File", 42);
  const auto after = std::chrono::system_clock::now();
  ASSERT_EQ(journal.size(), 1u);
  const auto& details = journal[0].details;
  EXPECT_FALSE(journal[0].internal);
  EXPECT_EQ(details.logLevel, LogLevel::Warning);
  EXPECT_EQ(details.logMessage, "the message\n");
  EXPECT_EQ(details.functionName, "function");
  EXPECT_EQ(details.fileName, "folder/File");
  EXPECT_EQ(details.lineNumber, 42);
  EXPECT_LE(before, details.date);
  EXPECT_LE(details.date, after);
}

TEST_F(XCGLoggerTest, HandsOneAndTheSameRecordToAllDestinationsInListOrder) {
  attach("a");
  attach("b");
  attach("c");
  logger.info("m", "f", "F", 1);
  EXPECT_THAT(messages(journal), ElementsAre("a: m", "b: m", "c: m"));
  EXPECT_EQ(journal[0].record, journal[1].record);
  EXPECT_EQ(journal[0].record, journal[2].record);
  EXPECT_EQ(journal[0].details.date, journal[2].details.date);
}

TEST_F(XCGLoggerTest, LeavesOutDestinationsThatAreNotEnabled) {
  attach("a", LogLevel::Error);
  attach("b", LogLevel::Info);
  attach("c", LogLevel::None);
  logger.info("m", "f", "F", 1);
  EXPECT_THAT(messages(journal), ElementsAre("b: m"));
}

TEST_F(XCGLoggerTest, DropsARecordBelowEveryDestinationsLevel) {
  attach("a", LogLevel::Warning);
  attach("b", LogLevel::Severe);
  logger.info("m", "f", "F", 1);
  logger._logln("m", LogLevel::Info);
  EXPECT_THAT(journal, IsEmpty());
}

TEST_F(XCGLoggerTest, WritesNothingToTheConsoleBelowItsLevel) {
  XCGLogger console;
  EXPECT_EQ(consoleOutputOf([&] { console.verbose("m", "f", "F", 1); }), "");
}

TEST_F(XCGLoggerTest, DropsRecordsWithoutDestinations) {
  logger.severe("m", "f", "F", 1);
  logger._logln("m", LogLevel::Severe);
  logger.logAppDetails();
  EXPECT_THAT(journal, IsEmpty());
}

TEST_F(XCGLoggerTest, DoesNotAskItsOwnLevelWhenLogging) {
  const auto destination = attach("r");
  logger.setOutputLogLevel(LogLevel::None);
  destination->setOutputLogLevel(LogLevel::Verbose);
  ASSERT_FALSE(logger.isEnabledForLogLevel(LogLevel::Verbose));
  logger.verbose("m", "f", "F", 1);
  EXPECT_THAT(messages(journal), ElementsAre("r: m"));
}

TEST_F(XCGLoggerTest, EntryPointsLogAtTheirOwnLevel) {
  attach("r");
  expectEachEntryPointAtItsLevel(logger, journal);
}

TEST(XCGLoggerDefaultForms, ForwardToTheDefaultInstance) {
  Journal journal;
  auto& instance = XCGLogger::defaultInstance();
  instance.setLogDestinations({std::make_shared<RecordingDestination>(instance, "r", journal)});
  expectEachEntryPointAtItsLevel(XCGLogger::Default(), journal);
  instance.setLogDestinations({});
}

TEST_F(XCGLoggerTest, ItsOwnReportsHaveNoFunctionFileAndLine) {
  attach("a", LogLevel::Error);
  attach("b");
  attach("c");
  logger._logln("report", LogLevel::Warning);
  ASSERT_THAT(messages(journal), ElementsAre("b: report", "c: report"));
  EXPECT_EQ(journal[0].record, journal[1].record);
  EXPECT_TRUE(journal[0].internal);
  EXPECT_EQ(journal[0].details.logLevel, LogLevel::Warning);
  EXPECT_EQ(journal[0].details.functionName, "");
  EXPECT_EQ(journal[0].details.fileName, "");
  EXPECT_EQ(journal[0].details.lineNumber, 0);
}

TEST_F(XCGLoggerTest, TakesRecordsFromManyThreads) {
  XCGLogger console;
  constexpr int THREADS = 8;
  constexpr int LINES = 200;
  const auto text = consoleOutputOf([&] {
    test::inParallel(THREADS, [&](std::size_t thread) {
      for (int line = 0; line < LINES; ++line) console.info("m", std::to_string(thread), "F", line);
    });
  });
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), THREADS * LINES);
}

TEST(XCGLoggerEnd, WritesTheLinesThatWereLoggedBefore) {
  const test::Environment environment;
  const auto path = environment.folder() / "output";
  test::ChildProcess child([&]() -> int {
    ::dup2(::open(path.c_str(), O_WRONLY | O_CREAT, 0600), STDOUT_FILENO);
    for (int i = 0; i < 1000; ++i) XCGLogger::Default::info("m", "f", "F", i);
    std::exit(7);
  });
  EXPECT_EQ(child.wait(), 7);
  std::string expected;
  for (int i = 0; i < 1000; ++i) expected.append("[Info] [F:").append(std::to_string(i)).append("] f: m\n");
  EXPECT_TRUE(withoutDates(test::readFile(path)) == expected);
}

TEST(XCGLoggerEnd, LetsOtherThreadsLogUntilTheVeryEnd) {
  const test::Environment environment;
  test::ChildProcess child([]() -> int {
    static test::Gate running;
    for (int i = 0; i < 4; ++i) {
      std::thread([] {
        for (bool first = true;; first = false) {
          XCGLogger::Default::info("still here", "f", "F", 1);
          if (first) running.open();
        }
      }).detach();
    }
    running.pass(4);
    std::exit(7);
  });
  EXPECT_EQ(child.wait(), 7);
}

// --- Levels

TEST_F(XCGLoggerTest, GivesItsLevelToEveryDestinationInListOrder) {
  class Noting : public RecordingDestination {
   public:
    using RecordingDestination::RecordingDestination;
    std::vector<std::string>* order = nullptr;
    void setOutputLogLevel(LogLevel level) override {
      if (order) order->push_back(identifier());
      RecordingDestination::setOutputLogLevel(level);
    }
  };
  std::vector<std::string> order;
  for (const char* name : {"b", "a", "c"}) {
    const auto destination = std::make_shared<Noting>(logger, name, journal, LogLevel::Severe);
    destination->order = &order;
    logger.addLogDestination(destination);
  }
  logger.setOutputLogLevel(LogLevel::Warning);
  EXPECT_THAT(order, ElementsAre("b", "a", "c"));
  EXPECT_EQ(logger.outputLogLevel(), LogLevel::Warning);
  for (const auto& destination : logger.logDestinations()) EXPECT_EQ(destination->outputLogLevel(), LogLevel::Warning);
}

TEST_F(XCGLoggerTest, LeavesADestinationsOwnLevelUntilItsOwnIsSetAgain) {
  const auto a = attach("a");
  logger.setOutputLogLevel(LogLevel::Warning);
  a->setOutputLogLevel(LogLevel::Verbose);
  EXPECT_EQ(logger.outputLogLevel(), LogLevel::Warning);
  EXPECT_EQ(a->outputLogLevel(), LogLevel::Verbose);
  logger.setOutputLogLevel(LogLevel::Error);
  EXPECT_EQ(a->outputLogLevel(), LogLevel::Error);
}

TEST_F(XCGLoggerTest, KnowsWhetherAnyDestinationWantsALevel) {
  EXPECT_FALSE(logger.isWantedAtLogLevel(LogLevel::Severe));
  attach("a", LogLevel::Error);
  attach("b", LogLevel::Warning);
  EXPECT_TRUE(logger.isWantedAtLogLevel(LogLevel::Warning));
  EXPECT_FALSE(logger.isWantedAtLogLevel(LogLevel::Info));
}

TEST_F(XCGLoggerTest, IsEnabledAndRunsClosuresForLevelsThatAreAtLeastItsOwn) {
  for (int own = rawValue(LogLevel::Verbose); own <= rawValue(LogLevel::None); ++own) {
    logger.setOutputLogLevel(*logLevelWithRawValue(own));
    for (const LogLevel level : LEVELS) {
      EXPECT_EQ(logger.isEnabledForLogLevel(level), rawValue(level) >= own);
      bool ran = false;
      logger.exec(level, [&] { ran = true; });
      EXPECT_EQ(ran, rawValue(level) >= own);
    }
  }
}

template <class Logger>
std::vector<int> levelsRunBy(Logger&& logger) {
  std::vector<int> ran;
  logger.verboseExec([&] { ran.push_back(0); });
  logger.debugExec([&] { ran.push_back(1); });
  logger.infoExec([&] { ran.push_back(2); });
  logger.warningExec([&] { ran.push_back(3); });
  logger.errorExec([&] { ran.push_back(4); });
  logger.severeExec([&] { ran.push_back(5); });
  return ran;
}

TEST_F(XCGLoggerTest, ClosureFormsOfTheLevelsRunAtTheirOwnLevel) {
  logger.setOutputLogLevel(LogLevel::Verbose);
  EXPECT_THAT(levelsRunBy(logger), ElementsAre(0, 1, 2, 3, 4, 5));
  logger.setOutputLogLevel(LogLevel::Info);
  EXPECT_THAT(levelsRunBy(logger), ElementsAre(2, 3, 4, 5));
  logger.setOutputLogLevel(LogLevel::Severe);
  EXPECT_THAT(levelsRunBy(logger), ElementsAre(5));
  logger.setOutputLogLevel(LogLevel::None);
  EXPECT_THAT(levelsRunBy(logger), IsEmpty());
}

TEST(XCGLoggerDefaultForms, RunClosuresByTheDefaultInstancesLevel) {
  XCGLogger::defaultInstance().setOutputLogLevel(LogLevel::Warning);
  EXPECT_THAT(levelsRunBy(XCGLogger::Default()), ElementsAre(3, 4, 5));
  bool ran = false;
  XCGLogger::Default::exec(LogLevel::Info, [&] { ran = true; });
  EXPECT_FALSE(ran);
  XCGLogger::Default::exec(LogLevel::Error, [&] { ran = true; });
  EXPECT_TRUE(ran);
}

// --- Destinations

TEST_F(XCGLoggerTest, FindsADestinationByItsExactIdentifier) {
  const auto a = attach("a");
  attach("ab");
  EXPECT_EQ(logger.logDestination("a"), a);
  EXPECT_EQ(logger.logDestination("A"), nullptr);
  EXPECT_EQ(logger.logDestination(""), nullptr);
}

TEST_F(XCGLoggerTest, FindsTheFirstOfSeveralWithOneIdentifier) {
  const auto a = attach("a");
  const auto b = attach("b");
  b->setIdentifier("a");
  EXPECT_EQ(logger.logDestination("a"), a);
}

TEST_F(XCGLoggerTest, AppendsDestinationsAtTheEnd) {
  attach("b");
  attach("a");
  EXPECT_THAT(identifiers(logger), ElementsAre("b", "a"));
}

TEST_F(XCGLoggerTest, RefusesASecondDestinationWithTheSameIdentifier) {
  const auto first = attach("a");
  EXPECT_FALSE(logger.addLogDestination(std::make_shared<RecordingDestination>(logger, "a", journal)));
  EXPECT_THAT(logger.logDestinations(), ElementsAre(first));
}

TEST_F(XCGLoggerTest, RemovesEveryDestinationWithAnIdentifier) {
  attach("a");
  attach("b");
  attach("c")->setIdentifier("a");
  logger.removeLogDestination("a");
  EXPECT_THAT(identifiers(logger), ElementsAre("b"));
  logger.removeLogDestination("a");
  EXPECT_THAT(identifiers(logger), ElementsAre("b"));
}

TEST_F(XCGLoggerTest, RemovesEveryDestinationWithTheIdentifierOfAnother) {
  const auto a = attach("a");
  attach("b");
  attach("c")->setIdentifier("a");
  logger.removeLogDestination(a);
  EXPECT_THAT(identifiers(logger), ElementsAre("b"));
  // One that is not attached represents its identifier.
  logger.removeLogDestination(XCGLogger::Destination(std::make_shared<RecordingDestination>(logger, "b", journal)));
  EXPECT_THAT(identifiers(logger), IsEmpty());
}

TEST_F(XCGLoggerTest, DescribesItselfWithCarriageReturns) {
  logger.setIdentifier("mine");
  EXPECT_EQ(logger.debugDescription(), "XCGLogger: mine - logDestinations: \r");
  attach("a");
  attach("b");
  EXPECT_EQ(logger.debugDescription(), "XCGLogger: mine - logDestinations: \r\t Recording a\r\t Recording b\r");
}

// --- Application details

TEST_F(XCGLoggerTest, WritesBothApplicationDetailsToOneDestinationAfterTheOther) {
  attach("a");
  attach("b");
  logger.setOutputLogLevel(LogLevel::Info);
  logger.logAppDetails();
  const auto process = firstAppDetail("Version: 1.0.0 Build: 1 ");
  const std::string version = "XCGLogger Version: 1.8.1 - LogLevel: Info";
  EXPECT_THAT(messages(journal), ElementsAre("a: " + process, "a: " + version, "b: " + process, "b: " + version));
  for (const auto& entry : journal) {
    EXPECT_TRUE(entry.internal);
    EXPECT_EQ(entry.details.logLevel, LogLevel::Info);
    EXPECT_EQ(entry.details.date, journal[0].details.date);
    EXPECT_EQ(entry.details.functionName, "");
    EXPECT_EQ(entry.details.fileName, "");
    EXPECT_EQ(entry.details.lineNumber, 0);
  }
}

TEST_F(XCGLoggerTest, WritesApplicationDetailsToTheSelectedDestinationAlone) {
  attach("a");
  RecordingDestination selected(logger, "elsewhere", journal);
  logger.logAppDetails(&selected);
  EXPECT_THAT(messages(journal), ElementsAre(HasSubstr("elsewhere: "), HasSubstr("elsewhere: ")));
}

TEST_F(XCGLoggerTest, WritesNoApplicationDetailsToDestinationsAboveInfo) {
  const auto warning = attach("warning", LogLevel::Warning);
  attach("info", LogLevel::Info);
  logger.logAppDetails(warning.get());
  EXPECT_THAT(journal, IsEmpty());
  logger.logAppDetails();
  EXPECT_THAT(messages(journal), ElementsAre(HasSubstr("info: "), HasSubstr("info: ")));
}

TEST_F(XCGLoggerTest, WritesTheLoggersLevelNotTheDestinations) {
  logger.setOutputLogLevel(LogLevel::Severe);
  attach("r", LogLevel::Verbose);
  logger.logAppDetails();
  EXPECT_THAT(messages(journal), testing::Contains("r: XCGLogger Version: 1.8.1 - LogLevel: Severe"));
}

TEST_F(XCGLoggerTest, LeavesOutVersionAndBuildThatTheBundleLacks) {
  attach("r");
  const std::pair<platform::host::Bundle, std::string> cases[] = {
      {{.identifier = "x", .version = "", .build = "", .imageFolders = {}}, ""},
      {{.identifier = "x", .version = "1.2", .build = "", .imageFolders = {}}, "Version: 1.2 "},
      {{.identifier = "x", .version = "", .build = "34", .imageFolders = {}}, "Build: 34 "},
      {{.identifier = "x", .version = "1.2", .build = "34", .imageFolders = {}}, "Version: 1.2 Build: 34 "},
      {{}, ""}};
  for (const auto& [bundle, text] : cases) {
    platform::host::setMainBundle(bundle);
    journal.clear();
    logger.logAppDetails();
    ASSERT_EQ(journal.size(), 2u);
    EXPECT_EQ(journal[0].details.logMessage, firstAppDetail(text));
  }
}

// --- setup

class XCGLoggerSetup : public testing::Test {
 protected:
  std::shared_ptr<XCGFileLogDestination> fileDestination() const {
    return std::dynamic_pointer_cast<XCGFileLogDestination>(
        logger.logDestination(Constants::baseFileLogDestinationIdentifier));
  }
  std::shared_ptr<XCGConsoleLogDestination> console() const {
    return std::dynamic_pointer_cast<XCGConsoleLogDestination>(
        logger.logDestination(Constants::baseConsoleLogDestinationIdentifier));
  }
  std::string appDetails(const std::string& level) const {
    return "[Info] : " + firstAppDetail("Version: 1.0.0 Build: 1 ") +
           "\n[Info] : XCGLogger Version: 1.8.1 - LogLevel: " + level + "\n";
  }

  test::Environment environment;
  const std::string path = environment.folder() / "a b.log";
  XCGLogger logger;
};

TEST_F(XCGLoggerSetup, WithoutArgumentsSetsDebugAllFlagsAndNoFile) {
  console()->setOutputLogLevel(LogLevel::Error);
  console()->setShowFileName(false);
  EXPECT_EQ(withoutDates(consoleOutputOf([&] { logger.setup(); })), appDetails("Debug"));
  EXPECT_EQ(logger.outputLogLevel(), LogLevel::Debug);
  EXPECT_EQ(console()->outputLogLevel(), LogLevel::Debug);
  EXPECT_TRUE(console()->showLogLevel() && console()->showFileName() && console()->showLineNumber());
  EXPECT_THAT(identifiers(logger), ElementsAre(std::string(Constants::baseConsoleLogDestinationIdentifier)));
}

TEST_F(XCGLoggerSetup, WithoutFileWritesTheApplicationDetailsToTheConsole) {
  const auto text = consoleOutputOf([&] { logger.setup(LogLevel::Info, true, true, false); });
  EXPECT_EQ(withoutDates(text), appDetails("Info"));
  EXPECT_EQ(logger.logDestinations().size(), 1u);
}

TEST_F(XCGLoggerSetup, WritesNoApplicationDetailsToAConsoleAboveInfo) {
  for (const LogLevel level : {LogLevel::Warning, LogLevel::None})
    EXPECT_EQ(consoleOutputOf([&] { logger.setup(level); }), "");
}

TEST_F(XCGLoggerSetup, GivesLevelAndFlagsToConsoleAndFile) {
  for (const int flags : {0, 1, 2, 4, 7}) {
    logger.removeLogDestination(Constants::baseFileLogDestinationIdentifier);
    consoleOutputOf([&] { logger.setup(LogLevel::Error, flags & 1, flags & 2, flags & 4, path); });
    ASSERT_NE(fileDestination(), nullptr);
    for (const XCGFormattedLogDestination* destination :
         {static_cast<XCGFormattedLogDestination*>(console().get()),
          static_cast<XCGFormattedLogDestination*>(fileDestination().get())}) {
      EXPECT_EQ(destination->outputLogLevel(), LogLevel::Error);
      EXPECT_EQ(destination->showLogLevel(), (flags & 1) != 0);
      EXPECT_EQ(destination->showFileName(), (flags & 2) != 0);
      EXPECT_EQ(destination->showLineNumber(), (flags & 4) != 0);
      EXPECT_EQ(&destination->owner(), &logger);
    }
  }
}

TEST_F(XCGLoggerSetup, WritesApplicationDetailsOnceToTheConsoleAndOnceToTheFile) {
  const auto text = consoleOutputOf([&] { logger.setup(LogLevel::Info, true, true, false, path); });
  const auto opened = "[Info] : XCGLogger writing to log to: " + FileURL::fileURLWithPath(path).description() + "\n";
  EXPECT_EQ(withoutDates(text), appDetails("Info") + opened);
  EXPECT_THAT(opened, HasSubstr("/a%20b.log"));
  EXPECT_EQ(withoutDates(test::readFile(path)), appDetails("Info"));
  EXPECT_THAT(identifiers(logger), ElementsAre(std::string(Constants::baseConsoleLogDestinationIdentifier),
                                               std::string(Constants::baseFileLogDestinationIdentifier)));
}

TEST_F(XCGLoggerSetup, LetsApplicationDetailsIntoTheFileBeforeItsLevelIsSet) {
  EXPECT_EQ(consoleOutputOf([&] { logger.setup(LogLevel::Severe, false, false, false, path); }), "");
  EXPECT_EQ(withoutDates(test::readFile(path)), appDetails("Severe"));
  logger.error("too low", "f", "F", 1);
  EXPECT_EQ(withoutDates(test::readFile(path)), appDetails("Severe"));
}

TEST_F(XCGLoggerSetup, WritesApplicationDetailsToDestinationsAttachedBefore) {
  Journal journal;
  logger.setLogDestinations({});
  logger.addLogDestination(std::make_shared<RecordingDestination>(logger, "r", journal));
  logger.setup(LogLevel::Info, true, true, true, path);
  ASSERT_EQ(journal.size(), 3u);
  EXPECT_EQ(journal[0].details.logMessage, firstAppDetail("Version: 1.0.0 Build: 1 "));
  EXPECT_EQ(journal[1].details.logMessage, "XCGLogger Version: 1.8.1 - LogLevel: Info");
  EXPECT_EQ(journal[2].details.logMessage,
            "XCGLogger writing to log to: " + FileURL::fileURLWithPath(path).description());
}

TEST_F(XCGLoggerSetup, TakesAFileURLAsWell) {
  const auto url = FileURL::fileURLWithPath(path);
  consoleOutputOf([&] { logger.setup(LogLevel::Info, true, true, true, url); });
  ASSERT_NE(fileDestination(), nullptr);
  EXPECT_EQ(fileDestination()->writeToFileURL(), url);
  EXPECT_EQ(withoutDates(test::readFile(path)), appDetails("Info"));
}

TEST_F(XCGLoggerSetup, LeavesTheFlagsOfADestinationThatOnlyHasTheConsolesName) {
  Journal journal;
  auto other = std::make_shared<RecordingDestination>(
      logger, std::string(Constants::baseConsoleLogDestinationIdentifier), journal);
  logger.setLogDestinations({other});
  logger.setup(LogLevel::Warning, false, false, false);
  EXPECT_EQ(other->outputLogLevel(), LogLevel::Warning);
  EXPECT_TRUE(other->showLogLevel() && other->showFileName() && other->showLineNumber());
}

TEST_F(XCGLoggerSetup, ASecondTimeEmptiesTheFileAndAttachesNoSecondDestination) {
  consoleOutputOf([&] { logger.setup(LogLevel::Info, true, true, false, path); });
  const auto first = fileDestination();
  logger.info("before", "f", "F", 1);
  ASSERT_THAT(test::readFile(path), HasSubstr("before"));

  consoleOutputOf([&] { logger.setup(LogLevel::Warning, true, true, false, path); });
  EXPECT_EQ(logger.logDestinations().size(), 2u);
  EXPECT_EQ(fileDestination(), first);
  EXPECT_EQ(first->outputLogLevel(), LogLevel::Warning);
  EXPECT_EQ(withoutDates(test::readFile(path)), appDetails("Warning"));

  logger.warning("after", "f", "F", 1);
  EXPECT_EQ(withoutDates(test::readFile(path)), appDetails("Warning") + "[Warning] [F] f: after\n");
}

}  // namespace
}  // namespace vornet
