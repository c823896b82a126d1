#pragma once

#include <memory>
#include <string>

#include "support/gtk/TestHost.hpp"

namespace vornet::test {

/// The file manager's windows as the plug-in sees them. Made before the plug-in is loaded. FakeSlots.cpp and
/// FakeLocations.cpp have one each, as the file manager needs it. Not thread-safe.
class FakeWindows {
 public:
  FakeWindows();
  ~FakeWindows();
  FakeWindows(const FakeWindows&) = delete;
  FakeWindows& operator=(const FakeWindows&) = delete;

  struct Impl;
  Impl& impl() const { return *impl_; }

 private:
  std::unique_ptr<Impl> impl_;
};

/// A window with tabs.
class FakeWindow {
 public:
  FakeWindow(FakeWindows& windows, TestHost& host);
  /// Closes it, with all its tabs.
  ~FakeWindow();
  FakeWindow(const FakeWindow&) = delete;
  FakeWindow& operator=(const FakeWindow&) = delete;

  /// A tab of this window, until it is closed or the window is.
  using Tab = std::size_t;
  /// A new tab at `url`, in front or not. It sends no other tab to the background.
  Tab open(const std::string& url, bool inFront = true);
  void bringToFront(Tab tab);
  void sendToBack(Tab tab);
  void go(Tab tab, const std::string& url);
  void close(Tab tab);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vornet::test
