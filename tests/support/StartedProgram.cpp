#include "support/StartedProgram.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include "support/Threads.hpp"

namespace vornet::test {
namespace {

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (auto& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace

StartedProgram::StartedProgram(std::vector<std::string> arguments, std::vector<std::string> environment,
                               const std::filesystem::path& output)
    : output_(output) {
  for (char** variable = ::environ; *variable; ++variable) {
    const std::string given(*variable);
    const auto name = given.substr(0, given.find('=') + 1);
    bool replaced = false;
    for (const auto& entry : environment) replaced = replaced || entry.starts_with(name);
    if (!replaced) environment.push_back(given);
  }
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  ::posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  const int failure = ::posix_spawnp(&pid_, arguments[0].c_str(), &actions, nullptr, pointers(arguments).data(),
                                     pointers(environment).data());
  ::posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) throw std::runtime_error("cannot start " + arguments[0]);
}

StartedProgram::~StartedProgram() {
  if (pid_ <= 0) return;
  signal(SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

void StartedProgram::signal(int number) const {
  if (pid_ > 0) ::kill(pid_, number);
}

int StartedProgram::wait() {
  int status = 0;
  if (!becomesTrue([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; })) return -1;
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool waitForEnd(pid_t pid) {
  return becomesTrue([pid] {
    const auto status = pid > 0 ? readFile("/proc/" + std::to_string(pid) + "/status") : "";
    return status.empty() || status.find("State:\tZ") != std::string::npos;  // a zombie only waits for its parent
  });
}

}  // namespace vornet::test
