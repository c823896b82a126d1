#include "logging/XCGLogger.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <set>
#include <thread>
#include <tuple>

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
using testing::_;
using testing::ElementsAre;
using testing::FieldsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Matcher;
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

/// What a destination is set to: identifier, level, and whether it shows the level, the file name and the line number.
using Settings = std::tuple<std::string_view, LogLevel, bool, bool, bool>;
constexpr Settings CONSOLE_AT_DEBUG = {Constants::baseConsoleLogDestinationIdentifier, LogLevel::Debug, true, true,
                                       true};

/// The settings of the logger's destinations in their order.
std::vector<Settings> settings(const XCGLogger& logger) {
  std::vector<Settings> found;
  for (const auto& attached : logger.logDestinations()) {
    const auto& destination = dynamic_cast<const XCGFormattedLogDestination&>(*attached);
    found.emplace_back(destination.identifier(), destination.outputLogLevel(), destination.showLogLevel(),
                       destination.showFileName(), destination.showLineNumber());
  }
  return found;
}

std::vector<std::string> messages(const Journal& journal) {
  std::vector<std::string> texts;
  for (const auto& entry : journal) texts.push_back(entry.destination + ": " + entry.details.logMessage);
  return texts;
}

/// A caller's record that `destination` received.
Matcher<Received> callersRecord(const std::string& destination, LogLevel level, const std::string& message,
                                const std::string& function, const std::string& file, std::int64_t line) {
  return FieldsAre(destination, FieldsAre(level, _, message, function, file, line), _, false);
}

/// A record of the logger's own that `destination` received.
Matcher<Received> ownRecord(const std::string& destination, LogLevel level, const std::string& message) {
  return FieldsAre(destination, FieldsAre(level, _, message, "", "", 0), _, true);
}

/// Logs at each level through `logger` (a logger, or XCGLogger::Default) and checks the records that "r" received.
template <class Logger>
void expectEachEntryPointAtItsLevel(Logger&& logger, const Journal& journal) {
  logger.verbose("0", "f0", "F0", 10);
  logger.debug("1", "f1", "F1", 11);
  logger.info("2", "f2", "F2", 12);
  logger.warning("3", "f3", "F3", 13);
  logger.error("4", "f4", "F4", 14);
  logger.severe("5", "f5", "F5", 15);
  logger.logln("6", LogLevel::Error, "f6", "F6", 16);
  EXPECT_THAT(journal, ElementsAre(callersRecord("r", LogLevel::Verbose, "0", "f0", "F0", 10),
                                   callersRecord("r", LogLevel::Debug, "1", "f1", "F1", 11),
                                   callersRecord("r", LogLevel::Info, "2", "f2", "F2", 12),
                                   callersRecord("r", LogLevel::Warning, "3", "f3", "F3", 13),
                                   callersRecord("r", LogLevel::Error, "4", "f4", "F4", 14),
                                   callersRecord("r", LogLevel::Severe, "5", "f5", "F5", 15),
                                   callersRecord("r", LogLevel::Error, "6", "f6", "F6", 16)));
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

TEST(XCGLoggerConstruction, GivesNoIdentifierLevelDebugAndOneConsoleAtDebugWithAllFlags) {
  const XCGLogger logger;
  EXPECT_EQ(logger.identifier(), "");
  EXPECT_EQ(logger.outputLogLevel(), LogLevel::Debug);
  ASSERT_THAT(settings(logger), ElementsAre(CONSOLE_AT_DEBUG));
  EXPECT_NE(dynamic_cast<const XCGConsoleLogDestination*>(logger.logDestinations()[0].get()), nullptr);
  EXPECT_EQ(&logger.logDestinations()[0]->owner(), &logger);
}

TEST(XCGLoggerConstruction, LetsRecordsOfTheConsolesLevelReachItBeforeAnySetup) {
  const test::Environment environment;
  XCGLogger logger;
  const auto text = consoleOutputOf([&] {
    logger.verbose("too low", "main", "a/Start", 2);
    logger.debug("early", "main", "a/Start", 3);
  });
  EXPECT_EQ(withoutDates(text), "[Debug] [Start:3] main: early\n");
}

TEST(XCGLoggerDefaultInstance, HasTheDefaultIdentifierAndAConsole) {
  auto& instance = XCGLogger::defaultInstance();
  EXPECT_EQ(instance.identifier(), Constants::defaultInstanceIdentifier);
  EXPECT_EQ(instance.outputLogLevel(), LogLevel::Debug);
  EXPECT_THAT(settings(instance), ElementsAre(CONSOLE_AT_DEBUG));
}

TEST(XCGLoggerSharedInstance, IsTheDefaultInstanceAndSaysThatItsNameIsDeprecated) {
  Journal journal;
  auto& instance = XCGLogger::defaultInstance();
  instance.setLogDestinations({std::make_shared<RecordingDestination>(instance, "r", journal)});
  EXPECT_EQ(&XCGLogger::sharedInstance(), &instance);
  ASSERT_THAT(
      messages(journal),
      ElementsAre("r: sharedInstance() has been renamed to defaultInstance() to better reflect that it is not a "
                  "true singleton. Please update your code, sharedInstance() will be removed in a future "
                  "version."));
  EXPECT_EQ(journal[0].details.logLevel, LogLevel::Info);
  EXPECT_FALSE(journal[0].internal);
  instance.setLogDestinations({});
}

// --- logln and the entry points

TEST_F(XCGLoggerTest, LogsARecordWithAllItWasGiven) {
  attach("r");
  const auto before = std::chrono::system_clock::now();
  logger.logln("the message\n", LogLevel::Warning, "function", "folder/File", 42);
  const auto after = std::chrono::system_clock::now();
  ASSERT_THAT(journal,
              ElementsAre(callersRecord("r", LogLevel::Warning, "the message\n", "function", "folder/File", 42)));
  EXPECT_LE(before, journal[0].details.date);
  EXPECT_LE(journal[0].details.date, after);
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

TEST_F(XCGLoggerTest, LeavesOutDestinationsThatAreNotEnabledAndDropsARecordThatNoneTakes) {
  attach("a", LogLevel::Error);
  attach("b", LogLevel::Info);
  attach("c", LogLevel::None);
  logger.info("m", "f", "F", 1);
  logger.debug("below every level", "f", "F", 1);
  logger._logln("below every level", LogLevel::Debug);
  EXPECT_THAT(messages(journal), ElementsAre("b: m"));
}

TEST_F(XCGLoggerTest, DropsRecordsWithoutDestinations) {
  EXPECT_EQ(consoleOutputOf([&] {
              logger.severe("m", "f", "F", 1);
              logger._logln("m", LogLevel::Severe);
              logger.logAppDetails();
            }),
            "");
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
  ASSERT_THAT(journal,
              ElementsAre(ownRecord("b", LogLevel::Warning, "report"), ownRecord("c", LogLevel::Warning, "report")));
  EXPECT_EQ(journal[0].record, journal[1].record);
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

class DestinationWithExpectations : public RecordingDestination {
 public:
  using RecordingDestination::RecordingDestination;
  MOCK_METHOD(void, setOutputLogLevel, (LogLevel), (override));
};

TEST_F(XCGLoggerTest, GivesItsLevelToEveryDestinationInListOrder) {
  const testing::InSequence inListOrder;
  for (const char* name : {"b", "a", "c"}) {
    const auto destination = std::make_shared<DestinationWithExpectations>(logger, name, journal);
    EXPECT_CALL(*destination, setOutputLogLevel(LogLevel::Warning));
    logger.addLogDestination(destination);
  }
  logger.setOutputLogLevel(LogLevel::Warning);
  EXPECT_EQ(logger.outputLogLevel(), LogLevel::Warning);
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

TEST_F(XCGLoggerTest, IsEnabledAndRunsClosuresInEveryFormForLevelsThatAreAtLeastItsOwn) {
  for (int own = rawValue(LogLevel::Verbose); own <= rawValue(LogLevel::None); ++own) {
    logger.setOutputLogLevel(*logLevelWithRawValue(own));
    std::vector<int> enabled;
    for (const LogLevel level : LEVELS) {
      EXPECT_EQ(logger.isEnabledForLogLevel(level), rawValue(level) >= own);
      bool ran = false;
      logger.exec(level, [&] { ran = true; });
      EXPECT_EQ(ran, rawValue(level) >= own);
      if (rawValue(level) >= own) enabled.push_back(rawValue(level));
    }
    EXPECT_EQ(levelsRunBy(logger), enabled);
  }
}

TEST(XCGLoggerDefaultForms, RunClosuresByTheDefaultInstancesLevel) {
  XCGLogger::defaultInstance().setOutputLogLevel(LogLevel::Warning);
  EXPECT_THAT(levelsRunBy(XCGLogger::Default()), ElementsAre(3, 4, 5));
}

// --- Destinations

TEST_F(XCGLoggerTest, FindsTheFirstDestinationWithExactlyTheIdentifier) {
  const auto a = attach("a");
  attach("ab");
  attach("b")->setIdentifier("a");
  EXPECT_EQ(logger.logDestination("a"), a);
  EXPECT_EQ(logger.logDestination("A"), nullptr);
  EXPECT_EQ(logger.logDestination(""), nullptr);
}

TEST_F(XCGLoggerTest, AppendsDestinationsAtTheEndAndRefusesASecondWithTheSameIdentifier) {
  const auto b = attach("b");
  const auto a = attach("a");
  EXPECT_FALSE(logger.addLogDestination(std::make_shared<RecordingDestination>(logger, "b", journal)));
  EXPECT_THAT(logger.logDestinations(), ElementsAre(b, a));
}

TEST_F(XCGLoggerTest, RemovesEveryDestinationWithAnIdentifier) {
  attach("a");
  const auto b = attach("b");
  attach("c")->setIdentifier("a");
  logger.removeLogDestination("a");
  EXPECT_THAT(logger.logDestinations(), ElementsAre(b));
  logger.removeLogDestination("a");
  EXPECT_THAT(logger.logDestinations(), ElementsAre(b));
}

TEST_F(XCGLoggerTest, RemovesEveryDestinationWithTheIdentifierOfAnother) {
  const auto a = attach("a");
  const auto b = attach("b");
  attach("c")->setIdentifier("a");
  logger.removeLogDestination(a);
  EXPECT_THAT(logger.logDestinations(), ElementsAre(b));
  // One that is not attached represents its identifier.
  logger.removeLogDestination(XCGLogger::Destination(std::make_shared<RecordingDestination>(logger, "b", journal)));
  EXPECT_THAT(logger.logDestinations(), IsEmpty());
}

TEST_F(XCGLoggerTest, DescribesItselfWithCarriageReturns) {
  logger.setIdentifier("mine");
  EXPECT_EQ(logger.debugDescription(), "XCGLogger: mine - logDestinations: \r");
  attach("a");
  attach("b");
  EXPECT_EQ(logger.debugDescription(), "XCGLogger: mine - logDestinations: \r\t Recording a\r\t Recording b\r");
}

// --- Application details

TEST_F(XCGLoggerTest, WritesBothApplicationDetailsWithItsOwnLevelToOneDestinationAfterTheOther) {
  logger.setOutputLogLevel(LogLevel::Severe);
  attach("a");
  attach("above Info", LogLevel::Warning);
  attach("b");
  logger.logAppDetails();
  const auto process = firstAppDetail("Version: 1.0.0 Build: 1 ");
  const std::string version = "XCGLogger Version: 1.8.1 - LogLevel: Severe";
  ASSERT_THAT(journal, ElementsAre(ownRecord("a", LogLevel::Info, process), ownRecord("a", LogLevel::Info, version),
                                   ownRecord("b", LogLevel::Info, process), ownRecord("b", LogLevel::Info, version)));
  for (const auto& entry : journal) EXPECT_EQ(entry.details.date, journal[0].details.date);
}

TEST_F(XCGLoggerTest, WritesApplicationDetailsToTheSelectedDestinationAlone) {
  attach("a");
  RecordingDestination selected(logger, "elsewhere", journal);
  logger.logAppDetails(&selected);
  EXPECT_THAT(messages(journal), ElementsAre(HasSubstr("elsewhere: "), HasSubstr("elsewhere: ")));
}

TEST_F(XCGLoggerTest, LeavesOutVersionAndBuildThatTheBundleLacks) {
  attach("r");
  const std::array<std::string, 4> cases[] = {{"x", "", "", ""},
                                              {"x", "1.2", "", "Version: 1.2 "},
                                              {"x", "", "34", "Build: 34 "},
                                              {"x", "1.2", "34", "Version: 1.2 Build: 34 "},
                                              {"", "", "", ""}};
  for (const auto& [identifier, version, build, text] : cases) {
    platform::host::setMainBundle({.identifier = identifier, .version = version, .build = build, .imageFolders = {}});
    journal.clear();
    logger.logAppDetails();
    EXPECT_THAT(messages(journal), ElementsAre("r: " + firstAppDetail(text), _));
  }
}

// --- setup

class XCGLoggerSetup : public testing::Test {
 protected:
  std::string appDetails(const std::string& level) const {
    return "[Info] : " + firstAppDetail("Version: 1.0.0 Build: 1 ") +
           "\n[Info] : XCGLogger Version: 1.8.1 - LogLevel: " + level + "\n";
  }

  test::Environment environment;
  const std::string path = environment.folder() / "a b.log";
  Journal journal;
  XCGLogger logger;
};

TEST_F(XCGLoggerSetup, WithoutArgumentsSetsDebugAllFlagsAndNoFile) {
  auto& console = dynamic_cast<XCGConsoleLogDestination&>(*logger.logDestinations().at(0));
  console.setOutputLogLevel(LogLevel::Error);
  console.setShowFileName(false);
  EXPECT_EQ(withoutDates(consoleOutputOf([&] { logger.setup(); })), appDetails("Debug"));
  EXPECT_EQ(logger.outputLogLevel(), LogLevel::Debug);
  EXPECT_THAT(settings(logger), ElementsAre(CONSOLE_AT_DEBUG));
}

TEST_F(XCGLoggerSetup, GivesLevelAndFlagsToConsoleAndFile) {
  for (const int flags : {0, 1, 2, 4, 7}) {
    const bool level = flags & 1;
    const bool file = flags & 2;
    const bool line = flags & 4;
    logger.removeLogDestination(Constants::baseFileLogDestinationIdentifier);
    consoleOutputOf([&] { logger.setup(LogLevel::Error, level, file, line, path); });
    ASSERT_THAT(
        settings(logger),
        ElementsAre(Settings(Constants::baseConsoleLogDestinationIdentifier, LogLevel::Error, level, file, line),
                    Settings(Constants::baseFileLogDestinationIdentifier, LogLevel::Error, level, file, line)));
    EXPECT_EQ(&logger.logDestinations()[1]->owner(), &logger);
  }
}

TEST_F(XCGLoggerSetup, LetsApplicationDetailsIntoTheFileBeforeItsLevelAndFlagsAreSet) {
  EXPECT_EQ(consoleOutputOf([&] { logger.setup(LogLevel::Severe, false, false, false, path); }), "");
  logger.error("too low", "f", "F", 1);
  EXPECT_EQ(withoutDates(test::readFile(path)), appDetails("Severe"));
}

TEST_F(XCGLoggerSetup, WritesApplicationDetailsToDestinationsAttachedBefore) {
  logger.setLogDestinations({std::make_shared<RecordingDestination>(logger, "r", journal)});
  logger.setup(LogLevel::Info, true, true, true, path);
  EXPECT_THAT(
      messages(journal),
      ElementsAre("r: " + firstAppDetail("Version: 1.0.0 Build: 1 "), "r: XCGLogger Version: 1.8.1 - LogLevel: Info",
                  "r: XCGLogger writing to log to: " + FileURL::fileURLWithPath(path).description()));
}

TEST_F(XCGLoggerSetup, TakesAFileURLAsWell) {
  consoleOutputOf([&] { logger.setup(LogLevel::Info, true, true, true, FileURL::fileURLWithPath(path)); });
  EXPECT_EQ(withoutDates(test::readFile(path)), appDetails("Info"));
}

TEST_F(XCGLoggerSetup, LeavesTheFlagsOfADestinationThatOnlyHasTheConsolesName) {
  const std::string console(Constants::baseConsoleLogDestinationIdentifier);
  logger.setLogDestinations({std::make_shared<RecordingDestination>(logger, console, journal)});
  logger.setup(LogLevel::Warning, false, false, false);
  EXPECT_THAT(settings(logger), ElementsAre(Settings(console, LogLevel::Warning, true, true, true)));
}

}  // namespace
}  // namespace vornet
