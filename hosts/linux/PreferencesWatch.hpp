#pragma once

#include <gio/gio.h>

#include <condition_variable>
#include <mutex>
#include <thread>

namespace vornet::host {

/// Watches the sync application's preferences, which may appear after the extension has started, and reads them when
/// they do. They are read on a thread of the watch's own, because the disk may make it wait. Started and stopped on the
/// thread of the main context, once.
class PreferencesWatch {
 public:
  PreferencesWatch() = default;
  ~PreferencesWatch();
  PreferencesWatch(const PreferencesWatch&) = delete;
  PreferencesWatch& operator=(const PreferencesWatch&) = delete;

  /// Watches from now on. The status manager exists.
  void start();

  /// Watches no more; waits for a look under way.
  void stop();

 private:
  void monitor();
  void lookSoon();
  void run();

  GFileMonitor* monitor_ = nullptr;
  std::thread thread_;
  std::mutex lock_;
  std::condition_variable wake_;
  bool wanted_ = false;  // a look, as soon as possible
  bool stopping_ = false;
};

}  // namespace vornet::host
