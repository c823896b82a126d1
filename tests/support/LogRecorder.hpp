#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "logging/LogDestination.hpp"

namespace vornet::test {

/// Records what `logger()` is given, at every level, while it lives; the console says nothing meanwhile. Made before
/// other threads log. Records may be read at any time, from any thread.
class LogRecorder {
 public:
  enum class Echo { none, toStandardError };

  explicit LogRecorder(LogLevel level = LogLevel::Verbose, Echo echo = Echo::none);
  ~LogRecorder();
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  std::vector<XCGLogDetails> records() const;

  /// The messages in order; those at `level`.
  std::vector<std::string> messages() const;
  std::vector<std::string> messages(LogLevel level) const;

  /// How often exactly `message` was logged at `level`.
  std::size_t count(LogLevel level, std::string_view message) const;

  /// Waits until `message` was logged at `level` at least `times` times; false after half a minute without.
  bool waitFor(LogLevel level, std::string_view message, std::size_t times = 1) const;

  void clear();

 private:
  class Destination;
  std::shared_ptr<Destination> destination_;
};

/// Writes each of the logger's records to standard error too, as "<Level> message": for tests of what a process says
/// before it stops.
class StandardErrorLog {
 private:
  LogRecorder recorder_{LogLevel::Verbose, LogRecorder::Echo::toStandardError};
};

}  // namespace vornet::test
