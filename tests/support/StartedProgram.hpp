#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/TemporaryFolder.hpp"

namespace vornet::test {

/// A child process. Killed and reaped at the end of its life, if it still runs.
class StartedProgram {
 public:
  /// Starts `arguments` (program first) with this process's environment plus `environment` ("NAME=value"). Standard
  /// output and standard error go to `output`, a file.
  StartedProgram(std::vector<std::string> arguments, std::vector<std::string> environment,
                 const std::filesystem::path& output);
  ~StartedProgram();
  StartedProgram(const StartedProgram&) = delete;
  StartedProgram& operator=(const StartedProgram&) = delete;

  pid_t pid() const { return pid_; }
  /// Its output so far.
  std::string output() const { return readFile(output_); }
  void signal(int number) const;

  /// Waits for its end, half a minute at most. The exit status; 128 + the signal's number when a signal ended it; -1
  /// when it does not end.
  int wait();

 private:
  const std::filesystem::path output_;
  pid_t pid_ = -1;
};

/// Waits until the process `pid`, of whatever parent, has ended; false after half a minute. True for 0, which is none.
bool waitForEnd(pid_t pid);

}  // namespace vornet::test
