#include "SelfCheck.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <boost/json/object.hpp>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>

#include "base/AppConst.hpp"
#include "db/DatabaseState.hpp"
#include "paths/JSON.hpp"
#include "platform/Foundation.hpp"
#include "platform/linux/Host.hpp"

namespace vornet::service {
namespace {

namespace json = boost::json;
namespace fs = std::filesystem;

json::object finding(const std::string& path, const char* state, const std::string& problem = {}) {
  return {{"path", path}, {"state", state}, {"problem", problem}};
}

/// Reads the preferences as RESTPollingManager::setupLocalRoot() does. `root`: the synced folder, if they name one.
json::object checkPreferences(const std::string& path, std::optional<std::string>& root) {
  const int file = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (file < 0)
    return finding(path, errno == ENOENT || errno == ENOTDIR ? "missing" : "unreadable", std::strerror(errno));
  ::close(file);
  const auto preferences = platform::PropertyList::dictionaryAtPath(path);
  if (!preferences) return finding(path, "garbage");
  if (const auto text = preferences->textForKey("root_dir"))
    root = platform::FileURL::fileURLWithPath(*text, true).path();
  return finding(path, root ? "ok" : "no root_dir");
}

json::object checkRoot(const std::string& path) {
  struct stat entry;
  if (::stat(path.c_str(), &entry) != 0)
    return finding(path, errno == ENOENT || errno == ENOTDIR ? "missing" : "unreadable", std::strerror(errno));
  return finding(path, S_ISDIR(entry.st_mode) ? "ok" : "not a folder");
}

json::object checkDatabase(const std::string& path) {
  std::string problem;
  switch (examineSyncDatabase(path, problem)) {
    case DatabaseState::readable:
      break;
    case DatabaseState::missing:
      return finding(path, "missing", problem);
    case DatabaseState::unreadable:
      return finding(path, "unreadable", problem);
    case DatabaseState::locked:
      return finding(path, "locked", problem);
    case DatabaseState::corrupt:
      return finding(path, "corrupt", problem);
  }
  return finding(path, "ok");
}

/// Tries to write a page to a new file in `folder`; the system's error number, 0 for none. The file has no name
/// and is gone at once; where the file system knows no such files, rights and free space are looked at.
int errorOfWritingIn(const std::string& folder) {
  const int file = ::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
  if (file < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) {
    struct statvfs space;
    if (::access(folder.c_str(), W_OK | X_OK) != 0 || ::statvfs(folder.c_str(), &space) != 0) return errno;
    return space.f_bavail == 0 ? ENOSPC : 0;
  }
  if (file < 0) return errno;
  const std::string page(4096, ' ');
  const auto written = ::write(file, page.data(), page.size());
  const int error = written < 0 ? errno : written < static_cast<ssize_t>(page.size()) ? ENOSPC : 0;
  ::close(file);
  return error;
}

json::object checkLog(const std::string& path) {
  if (platform::fileKindAtPath(path) == platform::FileKind::directory)
    return finding(path, "not writable", std::strerror(EISDIR));
  // The extension makes the folders that are missing.
  fs::path folder = fs::path(path).parent_path();
  std::error_code error;
  while (!fs::exists(fs::symlink_status(folder, error)) && folder != folder.root_path()) folder = folder.parent_path();
  const int number = errorOfWritingIn(folder.string());
  if (number == 0) return finding(path, "ok");
  const bool isFull = number == ENOSPC || number == EDQUOT;
  return finding(path, isFull ? "disk full" : "not writable", std::strerror(number));
}

}  // namespace

std::string selfCheck() {
  json::object result{{"version", platform::host::mainBundle().version}};
  std::string container = platform::host::containerPath(App().APP_GROUP);
  if (container.empty() || !platform::isValidUTF8(container)) return toJSON(result);
  container += '/';
  std::optional<std::string> root;
  result["preferences"] = checkPreferences(container + App().KELVANE_PLIST, root);
  result["root"] = root ? json::value(checkRoot(*root)) : json::value(nullptr);
  result["database"] = checkDatabase(container + App().SYNC_DB_NAME);
  result["log"] = checkLog(container + "log/" + App().LOG_FILE);
  return toJSON(result);
}

}  // namespace vornet::service
