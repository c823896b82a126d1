#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

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
    while ((count = ::pread(file_, part, sizeof part, static_cast<off_t>(text.size()))) > 0)
      text.append(part, static_cast<std::size_t>(count));
    return text;
  }

 private:
  int descriptor_;
  int before_;
  int file_;
};

/// The text that `work` makes the console destinations write.
inline std::string consoleOutputOf(const std::function<void()>& work) {
  CapturedOutput output(STDOUT_FILENO);
  work();
  XCGLogger::logQueue().drain();
  return output.finish();
}

/// `lines` without the dates at their beginnings. A line that does not begin with one stays as it is.
inline std::string withoutDates(std::string_view lines) {
  constexpr std::string_view form = "0000-00-00 00:00:00.000 ";
  const auto beginsWithDate = [form](std::string_view line) {
    return line.size() >= form.size() && std::equal(form.begin(), form.end(), line.begin(), [](char f, char c) {
             return f == '0' ? c >= '0' && c <= '9' : f == c;
           });
  };
  std::string out;
  while (!lines.empty()) {
    if (beginsWithDate(lines)) lines.remove_prefix(form.size());
    const auto length = std::min(lines.find('\n'), lines.size() - 1) + 1;
    out += lines.substr(0, length);
    lines.remove_prefix(length);
  }
  return out;
}

}  // namespace vornet::test
