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
#include <map>
#include <sstream>
#include <thread>

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

/// The function name under which a thread logs.
std::string functionOf(std::size_t thread) {
  return std::string("t").append(std::to_string(thread));
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

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

  void show(bool level, bool file, bool line) {
    destination->setShowLogLevel(level);
    destination->setShowFileName(file);
    destination->setShowLineNumber(line);
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
  EXPECT_EQ(destination->identifier(), "d");
  EXPECT_EQ(destination->outputLogLevel(), LogLevel::Debug);
  EXPECT_TRUE(destination->showLogLevel());
  EXPECT_TRUE(destination->showFileName());
  EXPECT_TRUE(destination->showLineNumber());
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

TEST_P(BothDestinations, WriteACallersLineForEachCombinationOfFlags) {
  const std::string date = "2016-03-01 14:05:09.123 ";
  const std::string end = "function: the message\n";
  const std::pair<std::array<bool, 3>, std::string> cases[] = {{{true, true, true}, "[Info] [Logging:34] "},
                                                               {{true, true, false}, "[Info] [Logging] "},
                                                               {{true, false, true}, "[Info] [34] "},
                                                               {{true, false, false}, "[Info] "},
                                                               {{false, true, true}, "[Logging:34] "},
                                                               {{false, true, false}, "[Logging] "},
                                                               {{false, false, true}, "[34] "},
                                                               {{false, false, false}, ""}};
  for (const auto& [shown, text] : cases) {
    show(shown[0], shown[1], shown[2]);
    EXPECT_EQ(lineOf(record()), date + text + end);
  }
}

TEST_P(BothDestinations, WriteAnInternalLineWithTheLevelAlone) {
  const std::string date = "2016-03-01 14:05:09.123 ";
  for (const bool file : {true, false}) {
    for (const bool line : {true, false}) {
      show(true, file, line);
      EXPECT_EQ(internalLineOf(record()), date + "[Info] : the message\n");
      show(false, file, line);
      EXPECT_EQ(internalLineOf(record()), date + ": the message\n");
    }
  }
}

TEST_P(BothDestinations, NameEachLevel) {
  show(true, false, false);
  constexpr std::array names = {"[Verbose] ", "[Debug] ", "[Info] ", "[Warning] ", "[Error] ", "[Severe] "};
  for (int level = 0; level <= 5; ++level) {
    const std::string name = names[static_cast<std::size_t>(level)];
    const auto details = record(*logLevelWithRawValue(level));
    EXPECT_EQ(withoutDates(lineOf(details)), name + "function: the message\n");
    EXPECT_EQ(withoutDates(internalLineOf(details)), name + ": the message\n");
  }
}

TEST_P(BothDestinations, ShowEmptyBracketsForAnEmptyFileName) {
  auto details = record();
  details.fileName.clear();
  details.lineNumber = 0;
  show(false, true, true);
  EXPECT_EQ(withoutDates(lineOf(details)), "[:0] function: the message\n");
  show(false, true, false);
  EXPECT_EQ(withoutDates(lineOf(details)), "[] function: the message\n");
  show(true, false, true);
  EXPECT_EQ(withoutDates(lineOf(details)), "[Info] [0] function: the message\n");
}

TEST_P(BothDestinations, ShowTheLastPathComponentOfTheFileName) {
  auto details = record();
  show(false, true, false);
  const std::pair<const char*, const char*> cases[] = {
      {"/a/b/File.cpp", "[File.cpp] "}, {"File", "[File] "}, {"a b/c d", "[c d] "}, {"/File", "[File] "}};
  for (const auto& [name, shown] : cases) {
    details.fileName = name;
    EXPECT_EQ(withoutDates(lineOf(details)), std::string(shown) + "function: the message\n");
  }
}

TEST_P(BothDestinations, ShowLinesOfEverySize) {
  auto details = record();
  show(false, false, true);
  for (const std::int64_t line : {std::int64_t{-1}, std::int64_t{0}, INT64_MAX, INT64_MIN}) {
    details.lineNumber = line;
    EXPECT_EQ(withoutDates(lineOf(details)), "[" + std::to_string(line) + "] function: the message\n");
  }
}

TEST_P(BothDestinations, KeepTextAsItIs) {
  auto details = record();
  show(false, false, false);
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
  const std::string kind = "XCG" + std::string(GetParam()) + "LogDestination: ";
  EXPECT_EQ(destination->debugDescription(),
            kind + "d - LogLevel: Debug showLogLevel: true showFileName: true showLineNumber: true");
  destination->setOutputLogLevel(LogLevel::None);
  show(false, true, true);
  EXPECT_EQ(destination->debugDescription(),
            kind + "d - LogLevel: None showLogLevel: false showFileName: true showLineNumber: true");
  show(true, false, true);
  EXPECT_EQ(destination->debugDescription(),
            kind + "d - LogLevel: None showLogLevel: true showFileName: false showLineNumber: true");
  show(true, true, false);
  EXPECT_EQ(destination->debugDescription(),
            kind + "d - LogLevel: None showLogLevel: true showFileName: true showLineNumber: false");
}

TEST_P(BothDestinations, UseTheLoggersFormatterOfTheThread) {
  EXPECT_NE(destination->dateFormatter(), nullptr);
  EXPECT_EQ(destination->dateFormatter(), logger.dateFormatter());
}

TEST_P(BothDestinations, WriteDatesInTheCurrentLocale) {
  const test::ScopedVariable arabic("LC_ALL", "ar_EG.UTF-8");
  show(false, false, false);
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

// --- Without a formatter

template <class Destination>
class WithoutFormatter : public Destination {
 public:
  using Destination::Destination;
  platform::DateFormatter* dateFormatter() const override { return nullptr; }
};

TEST(DestinationWithoutFormatter, WritesTheDatesOwnDescription) {
  const test::Environment environment;
  XCGLogger logger;
  WithoutFormatter<XCGConsoleLogDestination> console(logger, "c");
  EXPECT_EQ(consoleOutputOf([&] { console.processLogDetails(record()); }),
            "2016-03-01 14:05:09 +0000 [Info] [Logging:34] function: the message\n");
  EXPECT_EQ(consoleOutputOf([&] { console.processInternalLogDetails(record()); }),
            "2016-03-01 14:05:09 +0000 [Info] : the message\n");
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

  /// All up to `lines` lines.
  std::string readLines(std::ptrdiff_t lines) const {
    std::string text;
    for (std::string part; std::count(text.begin(), text.end(), '\n') < lines && !(part = read()).empty();)
      text += part;
    return text;
  }

 private:
  int ends_[2];
  int room_ = 0;
};

TEST(ConsoleDestination, KeepsTheOrderOfAllLoggersAndThreads) {
  const test::Environment environment;
  XCGLogger a;
  XCGLogger b;
  std::string expected;
  const auto text = consoleOutputOf([&] {
    for (int i = 0; i < 200; ++i) {
      XCGLogger& logger = i % 2 ? a : b;
      // Each line is queued by another thread, after the thread of the line before has ended.
      std::thread([&] { logger.info(std::to_string(i), "f", "F", 1); }).join();
      expected += "[Info] [F:1] f: " + std::to_string(i) + "\n";
    }
  });
  EXPECT_EQ(withoutDates(text), expected);
}

TEST(ConsoleDestination, KeepsLinesWholeAndEachThreadsOrderWhenManyLogAtOnce) {
  const test::Environment environment;
  constexpr std::size_t THREADS = 8;
  constexpr std::size_t LINES = 300;
  std::array<XCGLogger, 2> loggers;
  const auto text = consoleOutputOf([&] {
    test::inParallel(THREADS, [&](std::size_t thread) {
      const auto message = std::string(thread * 20, 'x') + "|";
      for (std::int64_t line = 0; line < std::int64_t{LINES}; ++line)
        loggers[thread % 2].info(message, functionOf(thread), "F", line);
    });
  });
  std::array<std::size_t, THREADS> next{};
  const auto lines = linesOf(withoutDates(text));
  ASSERT_EQ(lines.size(), THREADS * LINES);
  for (const auto& line : lines) {
    const std::size_t thread = static_cast<std::size_t>(line.at(line.find("] t") + 3) - '0');
    ASSERT_LT(thread, THREADS) << line;
    EXPECT_EQ(line, "[Info] [F:" + std::to_string(next[thread]++) + "] " + functionOf(thread) + ": " +
                        std::string(thread * 20, 'x') + "|");
  }
}

TEST(ConsoleDestination, LetsNoCallerWaitForAFullPipe) {
  const test::Environment environment;
  constexpr int LINES = 64;
  const SmallPipe pipe;
  XCGLogger logger;
  std::string text;
  {
    const RedirectedOutput redirected(pipe.input());
    // Nobody reads yet: a caller that wrote would wait here for ever.
    for (int i = 0; i < LINES; ++i) logger.info(std::string(4000, 'x'), "f", "F", i);
    text = pipe.readLines(LINES);
  }
  std::string expected;
  for (int i = 0; i < LINES; ++i)
    expected += "[Info] [F:" + std::to_string(i) + "] f: " + std::string(4000, 'x') + "\n";
  EXPECT_TRUE(withoutDates(text) == expected);
}

TEST(ConsoleDestination, DropsLinesAndCountsThemWhileNobodyReads) {
  const test::Environment environment;
  constexpr std::size_t LINES = 3000;
  constexpr std::size_t LENGTH = 1000;
  const SmallPipe pipe;
  const auto room = pipe.room();
  XCGLogger logger;
  std::string text;
  {
    const RedirectedOutput redirected(pipe.input());
    // The writer is stuck in this line before the others come, so that none of them finds room that others have left.
    logger.info(std::string(2 * room, 'o'), "f", "F", 1);
    pipe.waitUntilFull();
    for (std::size_t i = 0; i < LINES; ++i)
      logger.info(std::string(LENGTH, 'x'), "f", "F", static_cast<std::int64_t>(i));
    std::thread reader([&] {
      for (std::string part; text.find("the second\n") == std::string::npos && !(part = pipe.read()).empty();)
        text += part;
    });
    XCGLogger::logQueue().drain();
    logger.info("the first that finds room", "f", "F", 1);
    logger.info("the second", "f", "F", 1);
    reader.join();
  }

  // Oldest first, none missing in between; then the count of the others.
  auto lines = linesOf(withoutDates(text));
  ASSERT_EQ(lines.front(), "[Info] [F:1] f: " + std::string(2 * room, 'o'));
  lines.erase(lines.begin());
  ASSERT_GT(lines.size(), 500u);
  const std::size_t written = lines.size() - 3;
  for (std::size_t i = 0; i < written; ++i)
    ASSERT_EQ(lines[i], "[Info] [F:" + std::to_string(i) + "] f: " + std::string(LENGTH, 'x'));
  EXPECT_EQ(lines[written],
            "[Warning] : Lines dropped because nobody read the output: " + std::to_string(LINES - written));
  EXPECT_EQ(lines[written + 1], "[Info] [F:1] f: the first that finds room");
  EXPECT_EQ(lines[written + 2], "[Info] [F:1] f: the second");
  EXPECT_LE(text.size(), XCGConsoleLogDestination::MAX_WAITING_BYTES + 2 * room + 4 * LENGTH);
}

TEST(ConsoleDestination, BeginsALineAfterOneThatAFullDiskCut) {
  const test::Environment environment;
  const test::ScopedVariable zone("TZ", "UTC");
  const std::string path = environment.folder() / "console";
  const auto action = std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  ::getrlimit(RLIMIT_FSIZE, &limit);
  XCGLogger logger;
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
  EXPECT_EQ(withoutDates(text.substr(11)), "[Info] [F:2] f: whole\n");
}

// --- The file

class FileDestination : public testing::Test {
 protected:
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

  test::Environment environment;
  test::ScopedVariable zone{"TZ", "UTC"};
  const std::string path = environment.folder() / "d.log";
  XCGLogger logger;
};

TEST_F(FileDestination, OpensAtOnceReportsToTheOthersAndWritesTheApplicationDetailsToItself) {
  std::shared_ptr<XCGFileLogDestination> file;
  const auto text = consoleOutputOf([&] { file = open(path); });
  EXPECT_EQ(withoutDates(text), "[Info] : XCGLogger writing to log to: file://" + path + "\n");
  EXPECT_EQ(withoutDates(readFile(path)), "[Info] : " + platform::processName() +
                                              " Version: 1.0.0 Build: 1 PID: " + std::to_string(::getpid()) +
                                              "\n[Info] : XCGLogger Version: 1.8.1 - LogLevel: Debug\n");
}

TEST_F(FileDestination, TakesAPathOrAURL) {
  consoleOutputOf([&] {
    const auto byPath = open(path);
    EXPECT_EQ(byPath->writeToFileURL(), FileURL::fileURLWithPath(path));
    const auto url = FileURL::fileURLWithPath(environment.folder() / "e.log");
    const auto byURL = open(url);
    EXPECT_EQ(byURL->writeToFileURL(), url);
  });
  EXPECT_TRUE(fs::exists(environment.folder() / "e.log"));
}

TEST_F(FileDestination, DescribesItsFileByTheURLsText) {
  const auto strange = environment.folder() / "a b#?%ü.log";
  const auto text = consoleOutputOf([&] { open(strange); });
  EXPECT_EQ(withoutDates(text), "[Info] : XCGLogger writing to log to: file://" + environment.folder().path().string() +
                                    "/a%20b%23%3F%25%C3%BC.log\n");
  EXPECT_TRUE(fs::exists(strange));
}

TEST_F(FileDestination, LeavesOnlyTheNewLinesInAnExistingFile) {
  test::writeFile(path, std::string(100000, 'x') + "\nold\n");
  consoleOutputOf([&] { open(path); });
  const auto lines = linesOf(readFile(path));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(lines[0], HasSubstr("[Info] : " + platform::processName()));
}

TEST_F(FileDestination, WritesEachLineAtOnceOnTheCallersThread) {
  consoleOutputOf([&] {
    const auto file = open(path);
    for (int i = 0; i < 20; ++i) {
      logger.info(std::to_string(i), "f", "F", 1);
      // No wait between the call and the look into the file.
      EXPECT_THAT(readFile(path), EndsWith(" [Info] [F:1] f: " + std::to_string(i) + "\n"));
    }
  });
}

TEST_F(FileDestination, KeepsLinesWholeWhenManyThreadsLog) {
  constexpr std::size_t THREADS = 8;
  constexpr std::size_t LINES = 400;
  logger.setLogDestinations({});
  open(path);
  test::inParallel(THREADS, [&](std::size_t thread) {
    for (std::size_t line = 0; line < LINES; ++line)
      logger.info(std::string(thread * 200, 'x') + "|", functionOf(thread), "F", static_cast<std::int64_t>(line));
  });

  std::multiset<std::string> expected;
  for (std::size_t thread = 0; thread < THREADS; ++thread) {
    for (std::size_t line = 0; line < LINES; ++line) {
      expected.insert("[Info] [F:" + std::to_string(line) + "] " + functionOf(thread) + ": " +
                      std::string(thread * 200, 'x') + "|");
    }
  }
  const auto lines = linesOf(withoutDates(readFile(path)));
  ASSERT_GE(lines.size(), 2u);
  const std::multiset<std::string> written(lines.begin() + 2, lines.end());
  EXPECT_TRUE(written == expected) << written.size();
}

TEST_F(FileDestination, WritesEachLineByOneWrite) {
  // In a pipe with room for less than two lines, each read gives what one write gave: a line in two parts would show.
  logger.setLogDestinations({});
  open(path);
  const SmallPipe pipe;
  putInPlaceOfOpenFile(path, pipe.input());

  constexpr int LINES = 200;
  std::thread writer([&] {
    for (int i = 0; i < LINES; ++i) logger.info(std::string(3000, 'x'), "f", "F", i);
  });
  for (int i = 0; i < LINES;) {
    const auto part = pipe.read();
    EXPECT_THAT(part, EndsWith("\n"));
    if (part.empty()) break;
    i += static_cast<int>(std::count(part.begin(), part.end(), '\n'));
  }
  writer.join();
}

TEST_F(FileDestination, DropsALineThatIsNotUTF8) {
  consoleOutputOf([&] {
    open(path);
    const auto before = readFile(path);
    logger.info("bad \xFF", "f", "F", 1);
    logger.info("bad \xC3", "f", "F", 1);
    logger.info("m", "f", "bad \xED\xA0\x80", 1);
    logger._logln("bad \xC0\x80", LogLevel::Info);
    EXPECT_EQ(readFile(path), before);
    logger.info("good", "f", "F", 1);
    EXPECT_THAT(readFile(path), EndsWith("f: good\n"));
  });
}

TEST_F(FileDestination, ReportsThatAFileCannotBeOpenedAndDropsItsLines) {
  const std::string folder = environment.folder() / "folder";
  fs::create_directories(folder);
  const std::pair<std::string, std::string> cases[] = {
      {folder, "Is a directory"},
      {environment.folder() / "missing/d.log", "No such file or directory"},
      {environment.folder() / std::string(300, 'x'), "File name too long"}};
  for (const auto& [target, description] : cases) {
    logger.removeLogDestination("file");
    const auto text = consoleOutputOf([this, &given = target] {
      const auto file = open(given);
      file->processLogDetails(record());
      file->processInternalLogDetails(record());
      logger.logAppDetails(file.get());
    });
    EXPECT_EQ(withoutDates(text),
              "[Error] : Attempt to open log file for writing failed: Optional(\"" + description + "\")\n");
    EXPECT_NE(logger.logDestination("file"), nullptr);
  }
  EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(FileDestination, DoesNotTryAFailedFileAgain) {
  const std::string folder = environment.folder() / "later";
  consoleOutputOf([&] {
    open(folder + "/d.log");
    fs::create_directories(folder);
    logger.error("m", "f", "F", 1);
  });
  EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(FileDestination, SaysNothingAndOpensNothingWithoutAPath) {
  EXPECT_EQ(consoleOutputOf([&] {
              const auto file = open(FileURL());
              file->processLogDetails(record());
              EXPECT_EQ(file->writeToFileURL(), FileURL());
            }),
            "");
}

TEST_F(FileDestination, OpensAnotherFileWhenGivenAnotherURL) {
  const std::string other = environment.folder() / "other.log";
  const auto text = consoleOutputOf([&] {
    const auto file = open(path);
    logger.info("first", "f", "F", 1);
    const auto old = readFile(path);
    file->setWriteToFileURL(FileURL::fileURLWithPath(other));
    logger.info("second", "f", "F", 1);
    // The destination is attached by now, so it gets the report on itself, too.
    EXPECT_EQ(readFile(path), old);
  });
  EXPECT_THAT(withoutDates(text), HasSubstr("[Info] : XCGLogger writing to log to: file://" + other + "\n"));
  const auto lines = linesOf(withoutDates(readFile(other)));
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], "[Info] : XCGLogger writing to log to: file://" + other);
  EXPECT_THAT(lines[1], HasSubstr("PID: "));
  EXPECT_EQ(lines[2], "[Info] : XCGLogger Version: 1.8.1 - LogLevel: Debug");
  EXPECT_EQ(lines[3], "[Info] [F:1] f: second");
}

TEST_F(FileDestination, EmptiesTheFileWhenGivenTheSameURLAgain) {
  consoleOutputOf([&] {
    const auto file = open(path);
    logger.info("first", "f", "F", 1);
    file->setWriteToFileURL(file->writeToFileURL());
    logger.info("second", "f", "F", 1);
  });
  EXPECT_THAT(readFile(path), testing::Not(HasSubstr("first")));
  EXPECT_THAT(readFile(path), EndsWith("f: second\n"));
}

TEST_F(FileDestination, ClosesItsFileWhenGivenNoURL) {
  const auto descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  consoleOutputOf([&] {
    const auto before = descriptors();
    const auto file = open(path);
    EXPECT_EQ(descriptors(), before + 1);
    const auto old = readFile(path);
    file->setWriteToFileURL(std::nullopt);
    EXPECT_EQ(descriptors(), before);
    logger.info("dropped", "f", "F", 1);
    EXPECT_EQ(readFile(path), old);
    EXPECT_EQ(file->writeToFileURL(), std::nullopt);
  });
}

TEST_F(FileDestination, ClosesTheOldFileWhenTheNewOneCannotBeOpened) {
  consoleOutputOf([&] {
    const auto file = open(path);
    const auto old = readFile(path);
    file->setWriteToFileURL(FileURL::fileURLWithPath(environment.folder() / "missing/d.log"));
    logger.info("dropped", "f", "F", 1);
    EXPECT_EQ(readFile(path), old);
  });
}

TEST_F(FileDestination, SurvivesAFullDiskInSilence) {
  const auto text = consoleOutputOf([&] {
    const auto file = open(path);
    putInPlaceOfOpenFile(path, ::open("/dev/full", O_WRONLY | O_CLOEXEC));
    file->processLogDetails(record());
  });
  EXPECT_EQ(withoutDates(text), "[Info] : XCGLogger writing to log to: file://" + path + "\n");
}

TEST_F(FileDestination, TakesThePlaceOfALinkAndOfAPipe) {
  const std::string target = environment.folder() / "target";
  test::writeFile(target, "kept");
  for (const bool link : {true, false}) {
    fs::remove(path);
    if (link)
      fs::create_symlink(target, path);
    else
      ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    logger.removeLogDestination("file");
    consoleOutputOf([&] { open(path); });
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path)));
    EXPECT_EQ(linesOf(readFile(path)).size(), 2u);
  }
  EXPECT_EQ(readFile(target), "kept");
}

TEST_F(FileDestination, LeavesTheLastLinesOfAnEarlierProcessToItsOwnFile) {
  test::Gate begun, replaced;
  test::ChildProcess earlier([&] {
    logger.setLogDestinations({});
    open(path);
    begun.open();
    replaced.pass();
    logger.info("the last line of the first run", "f", "F", 1);
    return 0;
  });
  begun.pass();
  logger.setLogDestinations({});
  open(path);
  replaced.open();
  EXPECT_EQ(earlier.wait(), 0);
  EXPECT_EQ(linesOf(readFile(path)).size(), 2u) << readFile(path);
}

TEST_F(FileDestination, IgnoresTheApplicationDetailsOfAReopeningAtWarning) {
  consoleOutputOf([&] {
    const auto file = open(path);
    file->setOutputLogLevel(LogLevel::Warning);
    file->setWriteToFileURL(file->writeToFileURL());
  });
  EXPECT_EQ(readFile(path), "");
}

}  // namespace
}  // namespace vornet
