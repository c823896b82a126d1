#include "logging/LogDestinations.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <span>
#include <sstream>
#include <thread>
#include <tuple>

#include "support/CapturedOutput.hpp"
#include "support/ChildProcess.hpp"
#include "support/Environment.hpp"
#include "support/Threads.hpp"

namespace vornet {
namespace {

namespace fs = std::filesystem;
using platform::FileURL;
using test::consoleOutputOf;
using test::readFile;
using test::withoutDates;
using testing::_;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

// 2016-03-01 14:05:09.123 UTC
constexpr platform::Date DATE{std::chrono::milliseconds(1456841109123)};

XCGLogDetails record(LogLevel level = LogLevel::Info) {
  return {.logLevel = level,
          .date = DATE,
          .logMessage = "the message",
          .functionName = "function",
          .fileName = "src/logging/Logging",
          .lineNumber = 34};
}

/// What a destination writes, after the date, of info(message, function, "F", line).
std::string infoLine(std::size_t line, const std::string& message, const std::string& function = "f") {
  return "[Info] [F:" + std::to_string(line) + "] " + function + ": " + message + "\n";
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

constexpr std::size_t THREADS = 8;
constexpr std::size_t LINES = 400;

/// Lets threads log at once, each LINES lines through one of `loggers`: x's, by `width` more than the thread before it,
/// and a bar as their end.
void logFromManyThreads(std::span<XCGLogger> loggers, std::size_t width) {
  test::inParallel(THREADS, [&](std::size_t thread) {
    for (std::size_t line = 0; line < LINES; ++line)
      loggers[thread % loggers.size()].info(std::string(thread * width, 'x') + "|", std::to_string(thread), "F",
                                            static_cast<std::int64_t>(line));
  });
}

void expectWholeLinesInEachThreadsOrder(const std::string& text, std::size_t width) {
  std::array<std::size_t, THREADS> next{};
  const auto lines = linesOf(withoutDates(text));
  ASSERT_EQ(lines.size(), THREADS * LINES);
  for (const auto& line : lines) {
    const std::size_t thread = static_cast<std::size_t>(line.at(line.find(": ") - 1) - '0');
    ASSERT_LT(thread, THREADS) << line;
    EXPECT_EQ(line + "\n", infoLine(next[thread]++, std::string(thread * width, 'x') + "|", std::to_string(thread)));
  }
}

// --- Source files

TEST(SourceFile, LosesItsExtension) {
  const std::pair<const char*, const char*> cases[] = {{"src/logging/Logging.cpp", "src/logging/Logging"},
                                                       {"Logging.cpp", "Logging"},
                                                       {"src/Logging.test.cpp", "src/Logging.test"},
                                                       {"src/Logging", "src/Logging"},
                                                       {"src.d/Logging", "src.d/Logging"},
                                                       {"", ""},
                                                       {"src/.hidden", "src/.hidden"},
                                                       {".hidden", ".hidden"}};
  for (const auto& [file, shown] : cases) EXPECT_EQ(sourceFile(file), shown);
}

// --- Both destinations

/// Whether level, file name and line number are shown.
using Flags = std::array<bool, 3>;

/// Both kinds of destination, and what each writes.
class BothDestinations : public testing::TestWithParam<const char*> {
 protected:
  BothDestinations() {
    logger.setLogDestinations({});
    if (std::string_view(GetParam()) == "Console")
      destination = std::make_shared<XCGConsoleLogDestination>(logger, "d");
    else
      destination = std::make_shared<XCGFileLogDestination>(logger, path, "d");
  }

  void show(const Flags& shown) {
    destination->setShowLogLevel(shown[0]);
    destination->setShowFileName(shown[1]);
    destination->setShowLineNumber(shown[2]);
  }

  /// The destination's description of itself with this level and these flags.
  static std::string described(const std::string& level, const Flags& shown) {
    const auto text = [](bool flag) { return flag ? "true" : "false"; };
    return "XCG" + std::string(GetParam()) + "LogDestination: d - LogLevel: " + level +
           " showLogLevel: " + text(shown[0]) + " showFileName: " + text(shown[1]) +
           " showLineNumber: " + text(shown[2]);
  }

  std::string outputOf(const std::function<void()>& work) const {
    const std::string before = readFile(path);
    std::string text = consoleOutputOf(work);
    return text + readFile(path).substr(before.size());
  }
  std::string lineOf(const XCGLogDetails& details) const {
    return outputOf([&] { destination->processLogDetails(details); });
  }
  std::string internalLineOf(const XCGLogDetails& details) const {
    return outputOf([&] { destination->processInternalLogDetails(details); });
  }

  test::Environment environment;
  test::ScopedVariable zone{"TZ", "UTC"};
  std::string path = environment.folder() / "d.log";
  XCGLogger logger;
  std::shared_ptr<XCGFormattedLogDestination> destination;
};

INSTANTIATE_TEST_SUITE_P(, BothDestinations, testing::Values("Console", "File"),
                         [](const auto& test) { return test.param; });

TEST_P(BothDestinations, BeginAtDebugWithAllFlags) {
  EXPECT_EQ(&destination->owner(), &logger);
  EXPECT_EQ(destination->debugDescription(), described("Debug", {true, true, true}));
}

TEST_P(BothDestinations, CanBeGivenAnotherOwnerAndIdentifier) {
  XCGLogger other;
  destination->setOwner(other);
  destination->setIdentifier("another");
  EXPECT_EQ(&destination->owner(), &other);
  EXPECT_EQ(destination->identifier(), "another");
}

TEST_P(BothDestinations, AreEnabledForLevelsThatAreAtLeastTheirOwn) {
  for (int own = 0; own <= 6; ++own) {
    destination->setOutputLogLevel(*logLevelWithRawValue(own));
    EXPECT_EQ(rawValue(destination->outputLogLevel()), own);
    for (int level = 0; level <= 5; ++level)
      EXPECT_EQ(destination->isEnabledForLogLevel(*logLevelWithRawValue(level)), level >= own);
  }
}

TEST_P(BothDestinations, WriteACallersLineWithWhatTheFlagsShowAndAnInternalLineWithTheLevelAlone) {
  const std::tuple<const char*, Flags, const char*, std::int64_t, const char*> cases[] = {
      {"all", {true, true, true}, "src/logging/Logging", 34, "[Info] [Logging:34] "},
      {"no line number", {true, true, false}, "src/logging/Logging", 34, "[Info] [Logging] "},
      {"no file name", {true, false, true}, "src/logging/Logging", 34, "[Info] [34] "},
      {"level alone", {true, false, false}, "src/logging/Logging", 34, "[Info] "},
      {"no level", {false, true, true}, "src/logging/Logging", 34, "[Logging:34] "},
      {"file name alone", {false, true, false}, "src/logging/Logging", 34, "[Logging] "},
      {"line number alone", {false, false, true}, "src/logging/Logging", 34, "[34] "},
      {"nothing", {false, false, false}, "src/logging/Logging", 34, ""},
      {"empty file name with line number", {false, true, true}, "", 0, "[:0] "},
      {"empty file name alone", {false, true, false}, "", 0, "[] "},
      {"empty file name that is not shown", {true, false, true}, "", 0, "[Info] [0] "},
      {"file name with extension", {false, true, false}, "/a/b/File.cpp", 34, "[File.cpp] "},
      {"file name without folder", {false, true, false}, "File", 34, "[File] "},
      {"file name with spaces", {false, true, false}, "a b/c d", 34, "[c d] "},
      {"file name in the root folder", {false, true, false}, "/File", 34, "[File] "},
      {"negative line number", {false, false, true}, "src/logging/Logging", -1, "[-1] "},
      {"line number 0", {false, false, true}, "src/logging/Logging", 0, "[0] "},
      {"greatest line number", {false, false, true}, "src/logging/Logging", INT64_MAX, "[9223372036854775807] "},
      {"least line number", {false, false, true}, "src/logging/Logging", INT64_MIN, "[-9223372036854775808] "}};
  for (const auto& [name, shown, file, line, text] : cases) {
    auto details = record();
    details.fileName = file;
    details.lineNumber = line;
    show(shown);
    const std::string date = "2016-03-01 14:05:09.123 ";
    EXPECT_EQ(lineOf(details), date + text + "function: the message\n") << name;
    EXPECT_EQ(internalLineOf(details), date + (shown[0] ? "[Info] " : "") + ": the message\n") << name;
  }
}

TEST_P(BothDestinations, NameEachLevel) {
  show({true, false, false});
  for (int level = 0; level <= 5; ++level) {
    const auto details = record(*logLevelWithRawValue(level));
    const auto name = "[" + std::string(description(details.logLevel)) + "] ";
    EXPECT_EQ(withoutDates(lineOf(details)), name + "function: the message\n");
    EXPECT_EQ(withoutDates(internalLineOf(details)), name + ": the message\n");
  }
}

TEST_P(BothDestinations, KeepTextAsItIs) {
  auto details = record();
  show({false, false, false});
  for (const std::string& message :
       {std::string(), std::string("two\nlines"), std::string("100 %s %n"), std::string("Ünïcode 日本 🙂"),
        std::string("a\0b", 3), std::string(1 << 20, 'x')}) {
    details.logMessage = message;
    EXPECT_TRUE(withoutDates(lineOf(details)) == "function: " + message + "\n") << message.substr(0, 40);
  }
  details.functionName.clear();
  details.logMessage = "m";
  EXPECT_EQ(withoutDates(lineOf(details)), ": m\n");
}

TEST_P(BothDestinations, DescribeThemselvesWithLevelAndFlags) {
  destination->setOutputLogLevel(LogLevel::None);
  for (const Flags shown : {Flags{false, true, true}, Flags{true, false, true}, Flags{true, true, false}}) {
    show(shown);
    EXPECT_EQ(destination->debugDescription(), described("None", shown));
    EXPECT_EQ((Flags{destination->showLogLevel(), destination->showFileName(), destination->showLineNumber()}), shown);
  }
}

TEST_P(BothDestinations, UseTheLoggersFormatterOfTheThread) {
  EXPECT_NE(destination->dateFormatter(), nullptr);
  EXPECT_EQ(destination->dateFormatter(), logger.dateFormatter());
}

TEST_P(BothDestinations, WriteDatesInTheCurrentLocale) {
  const test::ScopedVariable arabic("LC_ALL", "ar_EG.UTF-8");
  show({false, false, false});
  EXPECT_EQ(lineOf(record()), "٢٠١٦-٠٣-٠١ ١٤:٠٥:٠٩.١٢٣ function: the message\n");
  const test::ScopedVariable thai("LC_ALL", "th_TH.UTF-8");
  EXPECT_EQ(lineOf(record()), "2559-03-01 14:05:09.123 function: the message\n");
}

TEST_P(BothDestinations, IgnoreInfoAndApplicationDetailsAtWarning) {
  logger.addLogDestination(destination);
  destination->setOutputLogLevel(LogLevel::Warning);
  EXPECT_EQ(outputOf([&] {
              logger.info("m", "f", "F", 1);
              logger._logln("m", LogLevel::Info);
              logger.logAppDetails();
              logger.logAppDetails(destination.get());
            }),
            "");
  EXPECT_EQ(withoutDates(outputOf([&] { logger.warning("m", "f", "F", 1); })), "[Warning] [F:1] f: m\n");
}

// --- The console

/// Redirects standard output to `other`, which it closes, during its life.
class RedirectedOutput {
 public:
  explicit RedirectedOutput(int other) {
    std::fflush(stdout);
    before_ = ::dup(STDOUT_FILENO);
    ::dup2(other, STDOUT_FILENO);
    ::close(other);
  }
  ~RedirectedOutput() {
    XCGLogger::logQueue().drain();
    ::dup2(before_, STDOUT_FILENO);
    ::close(before_);
  }
  RedirectedOutput(const RedirectedOutput&) = delete;
  RedirectedOutput& operator=(const RedirectedOutput&) = delete;

 private:
  int before_;
};

/// A pipe with little room.
class SmallPipe {
 public:
  SmallPipe() {
    if (::pipe2(ends_, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    room_ = ::fcntl(ends_[1], F_SETPIPE_SZ, 4096);
    EXPECT_GT(room_, 0);
  }
  ~SmallPipe() { ::close(ends_[0]); }
  SmallPipe(const SmallPipe&) = delete;
  SmallPipe& operator=(const SmallPipe&) = delete;

  /// The end to write to, for its taker to close.
  int input() const { return ends_[1]; }
  std::size_t room() const { return static_cast<std::size_t>(room_); }

  /// Waits until it is full.
  void waitUntilFull() const {
    for (int waiting = 0; waiting < room_; std::this_thread::yield())
      ASSERT_EQ(::ioctl(ends_[0], FIONREAD, &waiting), 0);
  }

  /// The result of one read: at most 4 KiB; "" at the end.
  std::string read() const {
    char part[4096];
    const auto count = ::read(ends_[0], part, sizeof part);
    return {part, static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
  }

  /// All up to the text `last`.
  std::string readTo(std::string_view last) const {
    std::string text;
    for (std::string part; text.find(last) == std::string::npos && !(part = read()).empty();) text += part;
    return text;
  }

 private:
  int ends_[2];
  int room_ = 0;
};

class ConsoleDestination : public testing::Test {
 protected:
  test::Environment environment;
  XCGLogger logger;
};

class ConsoleWithoutFormatter : public XCGConsoleLogDestination {
 public:
  using XCGConsoleLogDestination::XCGConsoleLogDestination;
  platform::DateFormatter* dateFormatter() const override { return nullptr; }
};

TEST_F(ConsoleDestination, WritesTheDatesOwnDescriptionWithoutAFormatter) {
  ConsoleWithoutFormatter console(logger, "c");
  EXPECT_EQ(consoleOutputOf([&] { console.processLogDetails(record()); }),
            "2016-03-01 14:05:09 +0000 [Info] [Logging:34] function: the message\n");
  EXPECT_EQ(consoleOutputOf([&] { console.processInternalLogDetails(record()); }),
            "2016-03-01 14:05:09 +0000 [Info] : the message\n");
}

TEST_F(ConsoleDestination, KeepsTheOrderOfAllLoggersAndThreads) {
  XCGLogger other;
  std::string expected;
  const auto text = consoleOutputOf([&] {
    for (std::size_t i = 0; i < 200; ++i) {
      // Each line is queued by another thread, after the thread of the line before has ended.
      std::thread([&] { (i % 2 ? logger : other).info(std::to_string(i), "f", "F", 1); }).join();
      expected += infoLine(1, std::to_string(i));
    }
  });
  EXPECT_EQ(withoutDates(text), expected);
}

TEST_F(ConsoleDestination, KeepsLinesWholeAndEachThreadsOrderWhenManyLogAtOnce) {
  std::array<XCGLogger, 2> loggers;
  expectWholeLinesInEachThreadsOrder(consoleOutputOf([&] { logFromManyThreads(loggers, 20); }), 20);
}

TEST_F(ConsoleDestination, LetsNoCallerWaitAndDropsAndCountsLinesWhileNobodyReads) {
  constexpr std::size_t COUNT = 3000;
  const std::string message(1000, 'x');
  const SmallPipe pipe;
  const std::string tooLong(2 * pipe.room(), 'o');
  std::string text;
  {
    const RedirectedOutput redirected(pipe.input());
    // The writer is stuck in this line before the others come, so that none of them finds room that others have left.
    logger.info(tooLong, "f", "F", 1);
    pipe.waitUntilFull();
    // Nobody reads yet: a caller that wrote would wait here for ever.
    for (std::size_t i = 0; i < COUNT; ++i) logger.info(message, "f", "F", static_cast<std::int64_t>(i));
    std::thread reader([&] { text = pipe.readTo("the second\n"); });
    XCGLogger::logQueue().drain();
    logger.info("the first that finds room", "f", "F", 1);
    logger.info("the second", "f", "F", 1);
    reader.join();
  }

  // Oldest first, none missing in between; then the count of the others.
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  ASSERT_GT(lines, 501u);
  const std::size_t written = lines - 4;
  std::string expected = infoLine(1, tooLong);
  for (std::size_t i = 0; i < written; ++i) expected += infoLine(i, message);
  expected += "[Warning] : Lines dropped because nobody read the output: " + std::to_string(COUNT - written) + "\n";
  expected += infoLine(1, "the first that finds room") + infoLine(1, "the second");
  EXPECT_TRUE(withoutDates(text) == expected) << text.substr(text.size() - 400);
  EXPECT_LE(text.size(), XCGConsoleLogDestination::MAX_WAITING_BYTES + tooLong.size() + 4 * message.size());
}

TEST_F(ConsoleDestination, BeginsALineAfterOneThatAFullDiskCut) {
  const std::string path = environment.folder() / "console";
  const auto action = std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  ::getrlimit(RLIMIT_FSIZE, &limit);
  {
    const RedirectedOutput redirected(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    const rlimit full{10, limit.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &full);
    logger.info("cut", "f", "F", 1);
    XCGLogger::logQueue().drain();
    ::setrlimit(RLIMIT_FSIZE, &limit);
    logger.info("whole", "f", "F", 2);
  }
  std::signal(SIGXFSZ, action);
  const auto text = readFile(path);
  EXPECT_EQ(text.substr(10, 1), "\n") << text;
  EXPECT_EQ(withoutDates(text.substr(11)), infoLine(2, "whole"));
}

// --- The file

class FileDestination : public testing::Test {
 protected:
  /// A logger whose destinations are only those that the test attaches.
  void SetUp() override { logger.setLogDestinations({}); }

  /// Makes the descriptor by which this process has `path` open one of `other`'s file; closes `other`.
  static void putInPlaceOfOpenFile(const std::string& path, int other) {
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      if (fs::read_symlink(entry, gone) == path) ::dup2(other, std::stoi(entry.path().filename()));
    }
    ::close(other);
  }
  std::shared_ptr<XCGFileLogDestination> open(const XCGLogger::FileTarget& target) {
    auto destination = std::make_shared<XCGFileLogDestination>(logger, target, "file");
    logger.addLogDestination(destination);
    return destination;
  }
  /// What the logger's console, its only destination before `work`, shows of that.
  std::string consoleTextOf(const std::function<void()>& work) {
    logger.setLogDestinations({std::make_shared<XCGConsoleLogDestination>(logger, "console")});
    return withoutDates(consoleOutputOf(work));
  }

  test::Environment environment;
  const std::string path = environment.folder() / "d.log";
  XCGLogger logger;
};

TEST_F(FileDestination, OpensAtOnceReportsToTheOthersAndWritesTheApplicationDetailsToItself) {
  EXPECT_EQ(consoleTextOf([&] { open(path); }), "[Info] : XCGLogger writing to log to: file://" + path + "\n");
  EXPECT_EQ(withoutDates(readFile(path)), "[Info] : " + platform::processName() +
                                              " Version: 1.0.0 Build: 1 PID: " + std::to_string(::getpid()) +
                                              "\n[Info] : XCGLogger Version: 1.8.1 - LogLevel: Debug\n");
}

TEST_F(FileDestination, TakesAPathOrAURL) {
  const auto byURL = environment.folder() / "e.log";
  EXPECT_EQ(open(path)->writeToFileURL(), FileURL::fileURLWithPath(path));
  EXPECT_EQ(open(FileURL::fileURLWithPath(byURL))->writeToFileURL(), FileURL::fileURLWithPath(byURL));
  EXPECT_TRUE(fs::exists(byURL));
}

TEST_F(FileDestination, DescribesItsFileByTheURLsText) {
  const auto strange = environment.folder() / "a b#?%ü.log";
  EXPECT_EQ(consoleTextOf([&] { open(strange); }), "[Info] : XCGLogger writing to log to: file://" +
                                                       environment.folder().path().string() +
                                                       "/a%20b%23%3F%25%C3%BC.log\n");
  EXPECT_TRUE(fs::exists(strange));
}

TEST_F(FileDestination, WritesEachLineAtOnceOnTheCallersThread) {
  const auto file = open(path);
  for (int i = 0; i < 20; ++i) {
    logger.info(std::to_string(i), "f", "F", 1);
    // No wait between the call and the look into the file.
    EXPECT_THAT(readFile(path), EndsWith(" " + infoLine(1, std::to_string(i))));
  }
}

TEST_F(FileDestination, KeepsLinesWholeAndEachThreadsOrderWhenManyLogAtOnce) {
  open(path);
  const auto before = readFile(path);
  logFromManyThreads({&logger, 1}, 200);
  expectWholeLinesInEachThreadsOrder(readFile(path).substr(before.size()), 200);
}

TEST_F(FileDestination, WritesEachLineByOneWrite) {
  // In a pipe with room for less than two lines, each read gives what one write gave: a line in two parts would show.
  open(path);
  const SmallPipe pipe;
  putInPlaceOfOpenFile(path, pipe.input());

  constexpr int COUNT = 200;
  std::thread writer([&] {
    for (int i = 0; i < COUNT; ++i) logger.info(std::string(3000, 'x'), "f", "F", i);
  });
  for (int i = 0; i < COUNT;) {
    const auto part = pipe.read();
    EXPECT_THAT(part, EndsWith("\n"));
    if (part.empty()) break;
    i += static_cast<int>(std::count(part.begin(), part.end(), '\n'));
  }
  writer.join();
}

TEST_F(FileDestination, DropsALineThatIsNotUTF8) {
  open(path);
  const auto before = readFile(path);
  logger.info("bad \xFF", "f", "F", 1);
  logger.info("bad \xC3", "f", "F", 1);
  logger.info("m", "f", "bad \xED\xA0\x80", 1);
  logger._logln("bad \xC0\x80", LogLevel::Info);
  EXPECT_EQ(readFile(path), before);
  logger.info("good", "f", "F", 1);
  EXPECT_THAT(readFile(path), EndsWith("f: good\n"));
}

TEST_F(FileDestination, ReportsThatAFileCannotBeOpenedAndDropsItsLines) {
  const std::string folder = environment.folder() / "folder";
  fs::create_directories(folder);
  const std::pair<std::string, std::string> cases[] = {
      {folder, "Is a directory"},
      {environment.folder() / "missing/d.log", "No such file or directory"},
      {environment.folder() / std::string(300, 'x'), "File name too long"}};
  for (const auto& [target, description] : cases) {
    const auto text = consoleTextOf([this, &given = target] {
      const auto file = open(given);
      file->processLogDetails(record());
      file->processInternalLogDetails(record());
      logger.logAppDetails(file.get());
    });
    EXPECT_EQ(text, "[Error] : Attempt to open log file for writing failed: Optional(\"" + description + "\")\n");
    EXPECT_NE(logger.logDestination("file"), nullptr);
  }
  EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(FileDestination, DoesNotTryAFailedFileAgain) {
  const std::string folder = environment.folder() / "later";
  open(folder + "/d.log");
  fs::create_directories(folder);
  logger.error("m", "f", "F", 1);
  EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(FileDestination, SaysNothingAndOpensNothingWithoutAPath) {
  std::shared_ptr<XCGFileLogDestination> file;
  EXPECT_EQ(consoleTextOf([&] {
              file = open(FileURL());
              file->processLogDetails(record());
            }),
            "");
  EXPECT_EQ(file->writeToFileURL(), FileURL());
}

TEST_F(FileDestination, OpensAnotherFileWhenGivenAnotherURL) {
  const std::string other = environment.folder() / "other.log";
  const std::string report = "[Info] : XCGLogger writing to log to: file://" + other;
  std::string old;
  const auto text = consoleTextOf([&] {
    const auto file = open(path);
    logger.info("first", "f", "F", 1);
    old = readFile(path);
    file->setWriteToFileURL(FileURL::fileURLWithPath(other));
    logger.info("second", "f", "F", 1);
  });
  EXPECT_EQ(readFile(path), old);
  EXPECT_THAT(text, HasSubstr(report + "\n"));
  // The destination is attached by now, so it gets the report on itself, too.
  EXPECT_THAT(linesOf(withoutDates(readFile(other))),
              ElementsAre(report, HasSubstr("PID: "), "[Info] : XCGLogger Version: 1.8.1 - LogLevel: Debug",
                          "[Info] [F:1] f: second"));
}

TEST_F(FileDestination, EmptiesTheFileWhenGivenTheSameURLAgainAndIgnoresTheApplicationDetailsAtWarning) {
  const auto file = open(path);
  logger.warning("first", "f", "F", 1);
  file->setOutputLogLevel(LogLevel::Warning);
  file->setWriteToFileURL(file->writeToFileURL());
  EXPECT_EQ(readFile(path), "");
  logger.warning("second", "f", "F", 1);
  EXPECT_EQ(withoutDates(readFile(path)), "[Warning] [F:1] f: second\n");
}

TEST_F(FileDestination, ClosesItsFileWhenGivenNoURLOrOneThatCannotBeOpened) {
  const auto descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  const std::optional<FileURL> urls[] = {std::nullopt,
                                         FileURL::fileURLWithPath(environment.folder() / "missing/d.log")};
  for (const auto& url : urls) {
    SCOPED_TRACE(url ? "one that cannot be opened" : "no URL");
    logger.setLogDestinations({});
    const auto before = descriptors();
    const auto file = open(path);
    EXPECT_EQ(descriptors(), before + 1);
    const auto old = readFile(path);
    file->setWriteToFileURL(url);
    EXPECT_EQ(descriptors(), before);
    logger.info("dropped", "f", "F", 1);
    EXPECT_EQ(readFile(path), old);
    EXPECT_EQ(file->writeToFileURL(), url);
  }
}

TEST_F(FileDestination, SurvivesAFullDiskInSilence) {
  const auto text = consoleTextOf([&] {
    const auto file = open(path);
    putInPlaceOfOpenFile(path, ::open("/dev/full", O_WRONLY | O_CLOEXEC));
    file->processLogDetails(record());
  });
  EXPECT_EQ(text, "[Info] : XCGLogger writing to log to: file://" + path + "\n");
}

TEST_F(FileDestination, LeavesOnlyTheNewLinesInThePlaceOfAnExistingFileALinkOrAPipe) {
  const std::string target = environment.folder() / "target";
  const std::string link = environment.folder() / "link";
  const std::string pipe = environment.folder() / "pipe";
  test::writeFile(path, std::string(100000, 'x') + "\nold\n");
  test::writeFile(target, "kept");
  fs::create_symlink(target, link);
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  for (const auto& taken : {path, link, pipe}) {
    open(taken);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(taken))) << taken;
    EXPECT_THAT(linesOf(readFile(taken)), ElementsAre(HasSubstr("[Info] : " + platform::processName()), _)) << taken;
  }
  EXPECT_EQ(readFile(target), "kept");
}

TEST_F(FileDestination, LeavesTheLastLinesOfAnEarlierProcessToItsOwnFile) {
  test::Gate begun, replaced;
  test::ChildProcess earlier([&] {
    open(path);
    begun.open();
    replaced.pass();
    logger.info("the last line of the first run", "f", "F", 1);
    return 0;
  });
  begun.pass();
  open(path);
  replaced.open();
  EXPECT_EQ(earlier.wait(), 0);
  EXPECT_EQ(linesOf(readFile(path)).size(), 2u) << readFile(path);
}

}  // namespace
}  // namespace vornet
