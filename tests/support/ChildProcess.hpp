#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <stdexcept>

namespace vornet::test {

/// A process forked from the test, which runs `work` and ends with the code that it returns; standard output goes
/// nowhere. Made while the test has one thread. Killed at the end when it still runs.
class ChildProcess {
 public:
  explicit ChildProcess(const std::function<int()>& work) {
    std::fflush(nullptr);
    identifier_ = ::fork();
    if (identifier_ < 0) throw std::runtime_error("cannot fork");
    if (identifier_ > 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that is stopped leaves none behind
    ::dup2(::open("/dev/null", O_WRONLY), STDOUT_FILENO);
    ::_exit(work());
  }
  ~ChildProcess() { kill(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  std::int64_t identifier() const { return identifier_; }

  /// Ends it without a chance to clean up.
  void kill() {
    if (reaped_) return;
    ::kill(identifier_, SIGKILL);
    wait();
  }

  /// Waits for its end: its exit code, or minus the signal that ended it.
  int wait() {
    if (!reaped_) {
      while (::waitpid(identifier_, &status_, 0) < 0 && errno == EINTR) {
      }
      reaped_ = true;
    }
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -WTERMSIG(status_);
  }

 private:
  pid_t identifier_ = -1;
  bool reaped_ = false;
  int status_ = 0;
};

/// For the work of a child process: goes on as the user `user`, for which it needs root's rights.
inline bool becomeUser(uid_t user) {
  return ::setuid(user) == 0 && ::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0;  // which a change of the user takes back
}

}  // namespace vornet::test
