#include "PreferencesWatch.hpp"

#include <utility>

#include "extension/AppConst.hpp"
#include "rest/RESTPollingManager.hpp"

namespace vornet::host {

PreferencesWatch::~PreferencesWatch() {
  stop();
}

void PreferencesWatch::start() {
  monitor();
  thread_ = std::thread([this] { run(); });
}

void PreferencesWatch::stop() {
  if (monitor_) {
    g_file_monitor_cancel(monitor_);
    g_object_unref(std::exchange(monitor_, nullptr));
  }
  {
    const std::lock_guard guard(lock_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void PreferencesWatch::monitor() {
  const auto container = platform::containerURLForGroup(App().APP_GROUP);
  if (!container) return;
  const auto preferences = container->appendingPathComponent(App().KELVANE_PLIST);
  GFile* file = g_file_new_for_path(preferences.path()->c_str());
  monitor_ = g_file_monitor_file(file, G_FILE_MONITOR_WATCH_MOVES, nullptr, nullptr);
  g_object_unref(file);
  if (!monitor_) return;
  const auto changed = +[](GFileMonitor*, GFile*, GFile*, GFileMonitorEvent event, gpointer self) {
    const bool complete = event == G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT || event == G_FILE_MONITOR_EVENT_MOVED_IN ||
                          event == G_FILE_MONITOR_EVENT_RENAMED;
    if (complete) static_cast<PreferencesWatch*>(self)->lookSoon();
  };
  g_signal_connect(monitor_, "changed", G_CALLBACK(changed), this);
}

void PreferencesWatch::lookSoon() {
  {
    const std::lock_guard guard(lock_);
    wanted_ = true;
  }
  wake_.notify_all();
}

void PreferencesWatch::run() {
  std::unique_lock guard(lock_);
  while (true) {
    wake_.wait(guard, [this] { return wanted_ || stopping_; });
    if (stopping_) return;
    wanted_ = false;
    guard.unlock();
    requiredStatusManager().setupLocalRoot();
    guard.lock();
  }
}

}  // namespace vornet::host
