#include "support/ProcessFigures.hpp"

#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

namespace vornet::bench {

double residentMemory(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/statm");
  std::uint64_t size = 0;
  std::uint64_t resident = 0;
  file >> size >> resident;
  return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / (1 << 20);
}

std::size_t threadCount(pid_t process) {
  std::error_code error;
  std::size_t count = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task", error))
    count += task.is_directory() ? 1 : 0;
  return count;
}

double processorTime(pid_t process) {
  clockid_t clock{};
  timespec time{};
  if (::clock_getcpuclockid(process, &clock) != 0 || ::clock_gettime(clock, &time) != 0) return 0;
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double memoryGrowth(const std::function<void(const std::function<void()>&)>& work) {
  int ends[2];
  if (::pipe(ends) != 0) return 0;
  const pid_t child = ::fork();
  if (child == 0) {
    ::malloc_trim(0);
    const double before = residentMemory(::getpid());
    work([&] {
      const double grown = residentMemory(::getpid()) - before;
      if (::write(ends[1], &grown, sizeof grown) != sizeof grown) ::_exit(1);
      ::_exit(0);
    });
    ::_exit(1);
  }
  ::close(ends[1]);
  double grown = 0;
  if (::read(ends[0], &grown, sizeof grown) != sizeof grown) grown = 0;
  ::close(ends[0]);
  ::waitpid(child, nullptr, 0);
  return grown;
}

}  // namespace vornet::bench
