#pragma once

#include <gio/gio.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "platform/Foundation.hpp"

namespace vornet::service {

/// Watches the group container and the sync application's preferences in it.
///
/// Preferences that appear after the start are read. The process keeps the synced folder and the log file that it began
/// with; so when the preferences name another folder, or another folder stands in the container's place (the sync
/// application was installed again), the process is outdated and must end, so that the next one starts with what is
/// there now. Preferences that cannot be read, or hold no folder, make no process outdated; nor does a container that
/// is only gone.
///
/// The disk may make a look wait, so looks have a thread of their own: one at the start, one when the system tells of a
/// change, and one every few seconds, which needs no watch of files and sees a replaced folder. Made, started and
/// stopped on the thread of the main context.
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

  /// Watches no more; waits for a look under way.
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
  GFileMonitor* monitor_ = nullptr;
  std::function<void()> outdated_;
  std::thread thread_;

  // Of the thread alone.
  std::string seen_;      // the stamp of the preferences that were read last; empty: there were none
  bool ignored_ = false;  // those that stand there were ignored, and the log says so

  std::mutex lock_;
  std::condition_variable wake_;
  bool wanted_ = false;  // a look, as soon as possible
  bool stopping_ = false;
};

}  // namespace vornet::service
