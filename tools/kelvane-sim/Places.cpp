#include "kelvane-sim/Places.hpp"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "kelvane-sim/SyncRules.hpp"

namespace vornet::sim {

namespace fs = std::filesystem;

namespace {

constexpr const char* GROUP = "com.vornet.KelvaneSync";

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

std::string homeFolder() {
  if (std::string home = environment("HOME"); !home.empty()) return home;
  passwd entry{};
  passwd* found = nullptr;
  std::array<char, 4096> buffer{};
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr)
    return found->pw_dir;
  throw std::runtime_error("no home folder");
}

std::runtime_error failure(const std::string& what, const std::error_code& error) {
  return std::runtime_error(what + ": " + error.message());
}

}  // namespace

std::string groupContainerPath() {
  std::string folder = environment("VORNET_GROUP_CONTAINERS");
  if (folder.empty()) {
    std::string data = environment("XDG_DATA_HOME");
    // A relative path there is to be ignored.
    if (!data.starts_with('/')) data = homeFolder() + "/.local/share";
    folder = data + "/group-containers";
  }
  return absolutePath(folder + "/" + GROUP);
}

std::string absolutePath(const std::string& path) {
  std::string plain = fs::absolute(path).lexically_normal().string();
  while (plain.size() > 1 && plain.back() == '/') plain.pop_back();
  return plain;
}

void checkSyncedFolder(const std::string& root) {
  if (root == "/") throw std::runtime_error("the whole file system cannot be synced");
  if (!isUtf8(root)) throw std::runtime_error("the path of the folder is not UTF-8");
  const FileDescriptor folder(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder) throw failure("cannot sync " + root, {errno, std::generic_category()});
}

void checkOutside(const std::string& folder, const std::string& root) {
  const fs::path inner = fs::weakly_canonical(folder);
  const fs::path outer = fs::canonical(root);
  const fs::path relative = inner.lexically_relative(outer);
  if (!relative.empty() && *relative.begin() != "..")
    throw std::runtime_error(folder + " is inside the synced folder, which is only ever read");
}

void makePrivateFolder(const std::string& folder) {
  std::error_code error;
  fs::create_directories(fs::path(folder).parent_path(), error);
  if (error) throw failure("cannot make " + folder, error);
  if (::mkdir(folder.c_str(), 0700) != 0 && (errno != EEXIST || !fs::is_directory(folder, error)))
    throw failure("cannot make " + folder, {errno, std::generic_category()});
}

FileDescriptor claimFolder(const std::string& folder) {
  FileDescriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor) throw failure("cannot open " + folder, {errno, std::generic_category()});
  if (::flock(descriptor.get(), LOCK_EX | LOCK_NB) != 0)
    throw std::runtime_error("another kelvane-sim is using " + folder);
  return descriptor;
}

}  // namespace vornet::sim
