#pragma once

#include <gio/gio.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "dbus/GLibPtr.hpp"
#include "platform/Foundation.hpp"

namespace vornet::service {

/// Watches the group container and the sync application's preferences in it.
///
/// Preferences that appear after the start are read. The process keeps the synced folder and the log file that it began
/// with. When the preferences name another folder, or the container was replaced (the sync application was installed
/// again), the process is outdated and must end; the next one starts with what is there now. Preferences that cannot be
/// read, or hold no folder, make no process outdated; nor does a container that is only gone.
///
/// The disk may make a look wait, so looks have their own thread: one at the start, one when the system reports a
/// change, and one every few seconds, which needs no file monitor and sees a replaced folder. Made, started and stopped
/// on the thread of the main context.
class PreferencesWatch {
 public:
  /// Remembers which folder the container is; make it before anything in the container is read.
  PreferencesWatch();
  ~PreferencesWatch();
  PreferencesWatch(const PreferencesWatch&) = delete;
  PreferencesWatch& operator=(const PreferencesWatch&) = delete;

  /// Watches from now on, and looks at once. The status manager exists. `outdated` is called on the thread of the main
  /// context, once at most, and not after stop(). A second start does nothing.
  void start(std::function<void()> outdated);

  /// Stops watching; waits for a look in progress.
  void stop();

 private:
  void monitor();
  void lookSoon();
  void run();
  bool look(bool changed);
  bool containerWasReplaced() const;
  bool preferencesNameAnotherFolder(const platform::FileURL& root);
  void reportOutdated();

  std::string container_;
  std::string preferences_;
  int folder_ = -1;  // the container, held so that its identity is not given to another one
  GObjectPtr<GFileMonitor> monitor_;
  std::function<void()> outdated_;
  std::thread thread_;

  // Used by the thread alone.
  std::string seen_;      // the stamp of the preferences that were read last; empty: there were none
  bool ignored_ = false;  // the present preferences were, and the log says so

  std::mutex lock_;
  std::condition_variable wake_;
  bool wanted_ = false;  // a look as soon as possible
  bool stopping_ = false;
};

}  // namespace vornet::service
