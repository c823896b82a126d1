#pragma once

#include <gio/gio.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <functional>
#include <vector>

namespace vornet::client {

// Work that the library does on its main context. Not thread-safe: the context's thread only. Functions that are
// called must not throw.

/// While it lives, asynchronous operations that are begun call back on `context`.
class ContextScope {
 public:
  explicit ContextScope(GMainContext* context) : context_(context) { g_main_context_push_thread_default(context_); }
  ~ContextScope() { g_main_context_pop_thread_default(context_); }
  ContextScope(const ContextScope&) = delete;
  ContextScope& operator=(const ContextScope&) = delete;

 private:
  GMainContext* context_;
};

/// Calls a function once, after a time.
class Timer {
 public:
  explicit Timer(GMainContext* context) : context_(context) {}
  ~Timer() { stop(); }
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  /// Replaces a pending call.
  void start(std::chrono::milliseconds delay, std::function<void()> function);
  void stop();
  bool isRunning() const { return source_ != nullptr; }

 private:
  GMainContext* context_;
  GSource* source_ = nullptr;
  std::function<void()> function_;
};

/// The back-off between attempts at something that keeps failing: `first`, doubled each time, at most `last`.
class Backoff {
 public:
  Backoff(std::chrono::milliseconds first, std::chrono::milliseconds last) : first_(first), last_(last), next_(first) {}

  std::chrono::milliseconds next() {
    const auto wait = std::min(next_, last_);
    next_ = wait * 2;
    return wait;
  }

  /// To be called after a success.
  void reset() { next_ = first_; }

  std::chrono::milliseconds last() const { return last_; }

 private:
  const std::chrono::milliseconds first_;
  const std::chrono::milliseconds last_;
  std::chrono::milliseconds next_;
};

/// Work that is done in order, a few milliseconds at a time, so that the file manager gets its turn in between.
class SlicedWork {
 public:
  /// Items that a step may handle before the next look at the clock.
  static constexpr std::size_t STEP = 16;

  explicit SlicedWork(GMainContext* context) : context_(context) {}
  ~SlicedWork();
  SlicedWork(const SlicedWork&) = delete;
  SlicedWork& operator=(const SlicedWork&) = delete;

  /// `step` is called until it returns false. One call should stay far below a millisecond.
  void add(std::function<bool()> step);

 private:
  bool runSlice();

  GMainContext* context_;
  GSource* source_ = nullptr;
  std::deque<std::function<bool()>> steps_;
};

/// Frees large values on another thread: one of 200,000 entries held the window for 175 ms.
class Disposal {
 public:
  /// Values with more entries are worth it.
  static constexpr std::size_t LARGE = 5000;

  explicit Disposal(GMainContext* context) : context_(context) {}
  ~Disposal();
  Disposal(const Disposal&) = delete;
  Disposal& operator=(const Disposal&) = delete;

  /// Keeps `value` until the caller, and those who called it, have released it; frees it then.
  void add(GVariant* value);

 private:
  void free();

  GMainContext* context_;
  GSource* source_ = nullptr;
  std::vector<GVariant*> values_;
};

}  // namespace vornet::client
