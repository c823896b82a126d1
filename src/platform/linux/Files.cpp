#include <sys/stat.h>

#include <filesystem>
#include <system_error>

#include "platform/Foundation.hpp"

namespace vornet::platform {
FileKind fileKindAtPath(const std::string& path) noexcept {
  struct stat found;
  if (::stat(path.c_str(), &found) != 0) return FileKind::absent;
  return S_ISDIR(found.st_mode) ? FileKind::directory : FileKind::file;
}

std::optional<std::string> createDirectory(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error) return error.message();
  return std::nullopt;
}

}  // namespace vornet::platform
