#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <set>

#include "platform/Foundation.hpp"
#include "platform/linux/Host.hpp"

namespace vornet::platform {
namespace {

std::string absoluteFolderFrom(const char* variable) {
  const char* value = std::getenv(variable);
  return value && *value == '/' ? value : "";
}

std::string homeFolder() {
  if (auto home = absoluteFolderFrom("HOME"); !home.empty()) return home;
  const auto* entry = ::getpwuid(::getuid());
  return entry && entry->pw_dir && *entry->pw_dir == '/' ? entry->pw_dir : "";
}

/// The folder that holds every group's container; empty when none can be named.
std::string containersFolder() {
  if (auto folder = absoluteFolderFrom("VORNET_GROUP_CONTAINERS"); !folder.empty()) return folder;
  if (auto data = absoluteFolderFrom("XDG_DATA_HOME"); !data.empty()) return data + "/group-containers";
  const auto home = homeFolder();
  return home.empty() ? "" : home + "/.local/share/group-containers";
}

std::mutex madeLock;

/// The containers that existed when this process requested them.
std::set<std::string>& made() {
  static auto& paths = *new std::set<std::string>;  // never destroyed, as other threads may ask until the very end
  return paths;
}

bool wasMadeBefore(const std::string& container) {
  const std::lock_guard guard(madeLock);
  return made().contains(container);
}

bool makeContainer(const std::string& container) {
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(container).parent_path(), error);
  ::mkdir(container.c_str(), 0700);
  if (fileKindAtPath(container) != FileKind::directory) return false;
  const std::lock_guard guard(madeLock);
  made().insert(container);
  return true;
}

}  // namespace

std::string host::containerPath(std::string_view group) {
  const auto folder = containersFolder();
  return folder.empty() || group.empty() ? "" : folder + "/" + std::string(group);
}

std::optional<FileURL> containerURLForGroup(std::string_view group) {
  const std::string container = host::containerPath(group);
  if (container.empty() || (!wasMadeBefore(container) && !makeContainer(container))) return std::nullopt;
  return FileURL::fileURLWithPath(container, true);
}

}  // namespace vornet::platform
