// A process of an application is running while it holds its lock file in the user's runtime folder: the lock goes with
// the process, however it ends.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>

#include "platform/AppKit.hpp"
#include "platform/Foundation.hpp"
#include "platform/linux/Host.hpp"

namespace vornet::platform {
namespace {

namespace fs = std::filesystem;

class FileDescriptor {
 public:
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&&) = delete;
  ~FileDescriptor() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  bool open() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }

 private:
  int descriptor_;
};

FileDescriptor openLockFile(const fs::path& path) {
  return FileDescriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
}

/// A folder for the user alone; empty when it cannot be had.
fs::path runtimeFolder() {
  const char* given = std::getenv("XDG_RUNTIME_DIR");
  if (given && *given == '/') return fs::path(given);
  const fs::path folder = "/tmp/vornet-vi-runtime-" + std::to_string(::getuid());
  ::mkdir(folder.c_str(), 0700);
  struct stat found;
  const bool own = ::lstat(folder.c_str(), &found) == 0 && S_ISDIR(found.st_mode) && found.st_uid == ::getuid() &&
                   (found.st_mode & 077) == 0;
  return own ? folder : fs::path();
}

std::optional<std::int64_t> identifierIn(const std::string& fileName) {
  std::int64_t identifier = 0;
  const char* end = fileName.data() + fileName.size();
  const auto result = std::from_chars(fileName.data(), end, identifier);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return identifier;
}

/// The lock files that this process holds. Guarded by oneAtATime().
std::map<fs::path, FileDescriptor>& heldLocks() {
  static auto& held = *new std::map<fs::path, FileDescriptor>;
  return held;
}

std::mutex& oneAtATime() {
  static std::mutex& mutex = *new std::mutex;
  return mutex;
}

/// Lists this process among those of its application, until it ends or retires.
void holdLockOfThisProcess(const fs::path& folder) {
  auto& held = heldLocks();
  const auto path = folder / std::to_string(::getpid());
  if (held.contains(path)) return;
  auto file = openLockFile(path);
  if (file.open() && ::flock(file.get(), LOCK_EX | LOCK_NB) == 0) held.emplace(path, std::move(file));
}

/// Whether the process is on its way out. Its files are closed one after another then, and some take a while: its lock
/// may be held for some milliseconds after its connections are closed. Fields 3 and 9 of /proc/PID/stat, as in proc(5).
bool isEnding(std::int64_t process) {
  constexpr unsigned EXITING = 0x4;  // PF_EXITING of the kernel's sched.h
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string line;
  if (!std::getline(file, line)) return false;  // not to be seen from here, of which the lock knows more
  std::istringstream fields(line.substr(line.rfind(')') + 1));  // the name before may hold anything
  char state = 0;
  long skipped = 0;
  unsigned flags = 0;
  fields >> state;
  for (int field = 4; field < 9; ++field) fields >> skipped;
  fields >> flags;
  return state == 'Z' || state == 'X' || (flags & EXITING) != 0;
}

/// Whether a process holds the lock file at `path`; a file that none holds is removed.
bool isHeld(const fs::path& path) {
  const auto file = openLockFile(path);
  if (!file.open()) return false;
  if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) return true;
  ::unlink(path.c_str());
  return false;
}

}  // namespace

std::vector<std::int64_t> runningApplicationsWithBundleIdentifier(std::string_view bundleIdentifier) {
  const std::lock_guard guard(oneAtATime());
  const bool own = bundleInfoText("CFBundleIdentifier") == bundleIdentifier;
  std::vector<std::int64_t> running;
  if (own) running.push_back(::getpid());

  const auto runtime = runtimeFolder();
  if (runtime.empty()) return running;
  const auto folder = runtime / "vornet-vi" / "running" / bundleIdentifier;
  std::error_code error;
  fs::create_directories(folder, error);

  // Entering and counting are one step for all processes: of two that start at once, one counts itself alone.
  const auto door = openLockFile(folder / "lock");
  if (!door.open() || ::flock(door.get(), LOCK_EX) != 0) return running;
  if (own) holdLockOfThisProcess(folder);
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    const auto identifier = identifierIn(entry.path().filename().string());
    if (!identifier || *identifier == ::getpid()) continue;
    if (isHeld(entry.path()) && !isEnding(*identifier)) running.push_back(*identifier);
  }
  return running;
}

void host::retireFromRunningApplications() {
  const std::lock_guard guard(oneAtATime());
  for (const auto& [path, file] : heldLocks()) ::unlink(path.c_str());
  heldLocks().clear();
}

}  // namespace vornet::platform
