#include "PreferencesWatch.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <exception>
#include <utility>

#include "base/AppConst.hpp"
#include "extension/SharedObjects.hpp"
#include "logging/Logging.hpp"
#include "rest/RESTPollingManager.hpp"

namespace vornet::service {
namespace {

constexpr std::chrono::seconds BETWEEN_LOOKS{3};

/// A stamp that differs between states of the file at `path`; empty when there is none.
std::string stampOf(const std::string& path) {
  struct stat file;
  if (::stat(path.c_str(), &file) != 0) return {};
  const auto time = [](const timespec& t) { return std::to_string(t.tv_sec) + "." + std::to_string(t.tv_nsec) + " "; };
  return std::to_string(file.st_dev) + " " + std::to_string(file.st_ino) + " " + std::to_string(file.st_size) + " " +
         time(file.st_mtim) + time(file.st_ctim);
}

}  // namespace

PreferencesWatch::PreferencesWatch() {
  const auto container = platform::containerURLForGroup(App().APP_GROUP);
  if (!container) return;  // without it the extension stops
  container_ = *container->path();
  preferences_ = *container->appendingPathComponent(App().KELVANE_PLIST).path();
  folder_ = ::open(container_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
}

PreferencesWatch::~PreferencesWatch() {
  stop();
  if (folder_ >= 0) ::close(folder_);
}

void PreferencesWatch::start(std::function<void()> outdated) {
  if (thread_.joinable() || container_.empty()) return;
  outdated_ = std::move(outdated);
  monitor();
  thread_ = std::thread([this] { run(); });
}

void PreferencesWatch::stop() {
  if (monitor_) {
    g_file_monitor_cancel(monitor_.get());
    monitor_.reset();
  }
  {
    const std::lock_guard guard(lock_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
  while (g_idle_remove_by_data(this)) continue;
}

void PreferencesWatch::monitor() {
  // The default of GIO may be GVfs, which has threads and leaks: it would be loaded, and with GIO_USE_VFS, too.
  const GObjectPtr<GFile> file(g_vfs_get_file_for_path(g_vfs_get_local(), preferences_.c_str()));
  monitor_.reset(g_file_monitor_file(file.get(), G_FILE_MONITOR_WATCH_MOVES, nullptr, nullptr));
  if (!monitor_) return;  // the looks every few seconds remain
  const auto changed = +[](GFileMonitor*, GFile*, GFile*, GFileMonitorEvent event, gpointer self) {
    const bool complete = event == G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT || event == G_FILE_MONITOR_EVENT_MOVED_IN ||
                          event == G_FILE_MONITOR_EVENT_RENAMED;
    if (complete) static_cast<PreferencesWatch*>(self)->lookSoon();
  };
  g_signal_connect(monitor_.get(), "changed", G_CALLBACK(changed), this);
}

void PreferencesWatch::lookSoon() {
  {
    const std::lock_guard guard(lock_);
    wanted_ = true;
  }
  wake_.notify_all();
}

void PreferencesWatch::run() {
  // The first look repeats the extension's: nobody would report a change between that one and the monitor.
  bool changed = true;
  std::unique_lock guard(lock_);
  while (!stopping_) {
    guard.unlock();
    bool outdated = false;
    try {
      outdated = look(changed);
    } catch (const std::exception& error) {
      platform::systemLog(std::string("cannot look at the preferences: ") + error.what());
    }
    if (outdated) return reportOutdated();
    guard.lock();
    wake_.wait_for(guard, BETWEEN_LOOKS, [this] { return wanted_ || stopping_; });
    changed = std::exchange(wanted_, false);
  }
}

/// Reads the preferences if they are `changed`, or seem to be. Whether the process is outdated.
bool PreferencesWatch::look(bool changed) {
  if (containerWasReplaced()) {
    VI_INFO("Ending, because another container stands in place of the one with this log");
    return true;
  }
  const std::string stamp = stampOf(preferences_);  // before reading: what is written meanwhile is read next time
  if (!changed && stamp == seen_) return false;
  seen_ = stamp;
  if (stamp.empty()) return false;
  if (const auto* root = requiredStatusManager().rootDir()) return preferencesNameAnotherFolder(*root);
  requiredStatusManager().setupLocalRoot();
  return false;
}

bool PreferencesWatch::containerWasReplaced() const {
  struct stat now;
  struct stat then;
  // While there is nothing, the sync application may be about to make it.
  if (::stat(container_.c_str(), &now) != 0 || !S_ISDIR(now.st_mode)) return false;
  if (folder_ < 0 || ::fstat(folder_, &then) != 0) return false;
  return now.st_dev != then.st_dev || now.st_ino != then.st_ino;
}

bool PreferencesWatch::preferencesNameAnotherFolder(const platform::FileURL& root) {
  const auto preferences = platform::PropertyList::dictionaryAtPath(preferences_);
  const auto text = preferences ? preferences->textForKey("root_dir") : std::nullopt;
  const auto folder = text ? platform::FileURL::fileURLWithPath(*text, true) : platform::FileURL();
  const bool ignore = !folder.path();
  if (ignore && !ignored_) VI_WARNING("Ignoring changed preferences, which name no synced folder");
  ignored_ = ignore;
  if (ignore || folder == root) return false;
  VI_INFO("Ending, because the synced folder is now " + *folder.path());
  return true;
}

void PreferencesWatch::reportOutdated() {
  const auto report = +[](gpointer self) -> gboolean {
    static_cast<PreferencesWatch*>(self)->outdated_();
    return G_SOURCE_REMOVE;
  };
  g_idle_add(report, this);
}

}  // namespace vornet::service
