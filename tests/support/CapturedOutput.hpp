#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <regex>
#include <stdexcept>
#include <string>

#include "logging/XCGLogger.hpp"

namespace vornet::test {

/// Takes what the process really writes to a descriptor (1 standard output, 2 standard error) while it lives.
class CapturedOutput {
 public:
  explicit CapturedOutput(int descriptor)
      : descriptor_(descriptor), before_(::dup(descriptor)), file_(::memfd_create("captured", MFD_CLOEXEC)) {
    if (before_ < 0 || file_ < 0) throw std::runtime_error("cannot capture the output");
    std::fflush(nullptr);
    ::dup2(file_, descriptor_);
  }
  ~CapturedOutput() {
    finish();
    ::close(file_);
  }
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  /// Ends the capture and gives all that was written.
  std::string finish() {
    if (before_ >= 0) {
      std::fflush(nullptr);
      ::dup2(before_, descriptor_);
      ::close(before_);
      before_ = -1;
    }
    std::string text;
    char part[4096];
    ssize_t count = 0;
    while ((count = ::pread(file_, part, sizeof part, static_cast<off_t>(text.size()))) > 0) {
      text.append(part, static_cast<std::size_t>(count));
    }
    return text;
  }

 private:
  int descriptor_;
  int before_;
  int file_;
};

/// What `work` makes the console destinations write.
inline std::string consoleOutputOf(const std::function<void()>& work) {
  CapturedOutput output(STDOUT_FILENO);
  work();
  XCGLogger::logQueue().drain();
  return output.finish();
}

/// `lines` without the dates at their beginnings. A line that does not begin with one stays as it is.
inline std::string withoutDates(const std::string& lines) {
  static const std::regex date("(^|\n)[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ");
  return std::regex_replace(lines, date, "$1");
}

}  // namespace vornet::test
