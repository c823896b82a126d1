#pragma once

#include <memory>
#include <string>
#include <vector>

namespace vornet::test {

/// A sync application on the system's fixed port, for one test. Answers each command with what the test says, at first
/// with status 404, and remembers what it was sent. Any thread.
class SyncApplication {
 public:
  /// Listens when the constructor returns. Waits for the port; throws std::runtime_error when it stays taken for half a
  /// minute.
  SyncApplication();
  ~SyncApplication();
  SyncApplication(const SyncApplication&) = delete;
  SyncApplication& operator=(const SyncApplication&) = delete;

  /// From now on answers `command` with status 200 and `body`.
  void answer(const std::string& command, const std::string& body);

  struct Request {
    std::string command;
    std::string body;
    friend bool operator==(const Request&, const Request&) = default;
  };

  /// What was sent, in order; the requests of `command` alone.
  std::vector<Request> requests() const;
  std::vector<std::string> bodies(const std::string& command) const;

  /// Waits until `request` was answered at least `times` times; false after half a minute without.
  bool waitFor(const Request& request, std::size_t times = 1) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vornet::test
