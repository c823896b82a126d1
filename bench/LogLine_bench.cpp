// One line of the log to its file, at the level INFO; the console is set to None.
#include <fcntl.h>
#include <unicode/smpdtfmt.h>
#include <unistd.h>

#include <chrono>

#include "logging/Logging.hpp"
#include "support/Environment.hpp"
#include "support/RunBenchmarks.hpp"
#include "support/TemporaryFolder.hpp"

namespace vornet::bench {
namespace {

struct Logs {
  test::Environment environment;
  std::string message = "Directory enter: /home/ann/Kelvane/Projects/Northern region 07/Quarterly reports";

  Logs() {
    setupLogger("INFO");
    logger()
        .logDestination(XCGLogger::constants::baseConsoleLogDestinationIdentifier)
        ->setOutputLogLevel(LogLevel::None);
  }
};

/// A file opened as the log file is.
class PlainFile {
 public:
  PlainFile()
      : file_(::open((fixture<Logs>()->environment.folder() / "plain.log").c_str(),
                     O_WRONLY | O_CREAT | O_APPEND | O_TRUNC | O_CLOEXEC, 0644)) {}
  ~PlainFile() { ::close(file_); }
  PlainFile(const PlainFile&) = delete;
  PlainFile& operator=(const PlainFile&) = delete;

  bool write(const std::string& line) const {
    return ::write(file_, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  }

 private:
  int file_;
};

std::string firstLogLine() {
  const std::string file = test::readFile(fixture<Logs>()->environment.logFile());
  const auto at = file.rfind('\n', file.size() - 2) + 1;
  return file.substr(at);
}

void emptyLogFile() {
  if (::truncate(fixture<Logs>()->environment.logFile().c_str(), 0) != 0) throw std::runtime_error("no log file");
}

void ours(benchmark::State& state) {
  const auto& message = fixture<Logs>()->message;
  emptyLogFile();
  for (auto _ : state) VI_INFO(message);
  emptyLogFile();
}

void limit(benchmark::State& state) {
  emptyLogFile();
  VI_INFO(fixture<Logs>()->message);
  const std::string line = firstLogLine();
  const PlainFile file;
  for (auto _ : state)
    if (!file.write(line)) state.SkipWithError("not written");
}

/// The date, formatted again for each line.
void straightforward(benchmark::State& state) {
  UErrorCode status = U_ZERO_ERROR;
  icu::SimpleDateFormat format("yyyy-MM-dd HH:mm:ss.SSS", icu::Locale("en_US_POSIX"), status);
  const PlainFile file;
  for (auto _ : state) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    icu::UnicodeString date;
    format.format(static_cast<UDate>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count()), date);
    std::string line;
    date.toUTF8String(line);
    line += " [Info] [LogLine_bench] " + std::string(static_cast<const char*>(__func__)) + ": " +
            fixture<Logs>()->message + "\n";
    if (!file.write(line)) state.SkipWithError("not written");
  }
}

BENCHMARK(ours)->Name("LogLine/ours");
BENCHMARK(limit)->Name("LogLine/limit");
BENCHMARK(straightforward)->Name("LogLine/straightforward");

}  // namespace
}  // namespace vornet::bench

int main(int argc, char** argv) {
  return vornet::bench::runBenchmarks<vornet::bench::Logs>(argc, argv);
}
