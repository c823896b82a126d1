#include <malloc.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "platform/Foundation.hpp"
#include "platform/linux/Host.hpp"

namespace vornet::platform {

void exitProcess(int status) {
  std::exit(status);
}

void systemLog(std::string_view message) {
  const int length = static_cast<int>(message.size());
  ::syslog(LOG_USER | LOG_NOTICE, "%.*s", length, message.data());
  std::fprintf(stderr, "%s[%d]: %.*s\n", program_invocation_short_name, static_cast<int>(::getpid()), length,
               message.data());
}

void host::keepLittleFreeMemory() {
  // By itself it takes the largest block that was ever freed for the measure of both.
  ::mallopt(M_MMAP_THRESHOLD, 1 << 20);
  ::mallopt(M_TRIM_THRESHOLD,
            1 << 18);  // each of the threads' arenas keeps as much, which malloc_trim does not give back
}

void host::giveFreeMemoryBack() {
  ::malloc_trim(0);
}

std::string processName() {
  std::error_code error;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? program_invocation_short_name : program.filename().string();
}

std::int64_t processIdentifier() noexcept {
  return ::getpid();
}

AutoreleasePool::AutoreleasePool() : pool_(nullptr) {}
AutoreleasePool::~AutoreleasePool() {
  (void)pool_;
}

}  // namespace vornet::platform
