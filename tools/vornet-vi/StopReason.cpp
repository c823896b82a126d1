#include "StopReason.hpp"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

namespace vornet::vi {
namespace {

constexpr const char* LOG_BELOW_CONTAINERS = "/com.vornet.KelvaneSync/log/vi.log";
/// What stands before the reason in the line that the extension logs last of all.
constexpr std::string_view MARK = " [Severe] : Fatal error: ";
constexpr off_t TAIL_BYTES = 16 * 1024;

std::string absoluteFolderFrom(const char* variable) {
  const char* value = g_getenv(variable);
  return value && *value == '/' ? value : "";
}

/// Where the extension's log is when the extension itself cannot be asked.
std::string logFile() {
  std::string containers = absoluteFolderFrom("VORNET_GROUP_CONTAINERS");
  if (containers.empty()) {
    std::string data = absoluteFolderFrom("XDG_DATA_HOME");
    if (data.empty()) data = std::string{g_get_home_dir()} + "/.local/share";
    containers = data + "/group-containers";
  }
  return containers + LOG_BELOW_CONTAINERS;
}

/// The last bytes of the regular file at `path`; empty when it cannot be read.
std::string tailOf(const std::string& path) {
  std::string tail;
  const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);  // a FIFO would make it wait
  if (file < 0) return tail;
  struct stat kind{};
  if (fstat(file, &kind) == 0 && S_ISREG(kind.st_mode)) {
    tail.resize(static_cast<std::size_t>(std::min(kind.st_size, TAIL_BYTES)));
    const auto count = pread(file, tail.data(), tail.size(), std::max<off_t>(kind.st_size - TAIL_BYTES, 0));
    tail.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  }
  close(file);
  return tail;
}

}  // namespace

std::optional<std::string> lastStopReason() {
  const std::string tail = tailOf(logFile());
  // Other threads may have logged a line more before the process was gone.
  const auto mark = tail.rfind(MARK);
  if (mark == std::string::npos) return std::nullopt;
  const auto start = mark + MARK.size();
  return tail.substr(start, tail.find('\n', start) - start);
}

}  // namespace vornet::vi
