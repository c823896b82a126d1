#pragma once

#include <glib.h>

#include <ctime>
#include <exception>
#include <utility>

namespace vornet::client {

// The file manager's log: exceptions that would reach the file manager, and traces where the user wants them.

/// Calls `function`. Where C code of the file manager is the caller an exception ends here: it becomes a line in the
/// file manager's log, and `otherwise` the result.
template <typename Result, typename Function>
Result guarded(Result otherwise, Function&& function) noexcept {
  try {
    return std::forward<Function>(function)();
  } catch (const std::exception& error) {
    g_warning("vornet-vi: %s", error.what());
  } catch (...) {
    g_warning("vornet-vi: unknown failure");
  }
  return otherwise;
}

/// The same without a result.
template <typename Function>
void guarded(Function&& function) noexcept {
  guarded(0, [&function] {
    std::forward<Function>(function)();
    return 0;
  });
}

/// True if the user wants traces: G_MESSAGES_DEBUG=vornet-vi in the file manager's environment.
inline bool isTracing() {
  static const bool tracing = !g_log_writer_default_would_drop(G_LOG_LEVEL_DEBUG, "vornet-vi");
  return tracing;
}

/// Bypasses the log handlers that some file managers set, which swallow such lines.
template <typename... Values>
void trace(const char* format, Values... values) {
  if (isTracing()) g_log_structured("vornet-vi", G_LOG_LEVEL_DEBUG, "MESSAGE", format, values...);
}

/// Work on the file manager's thread; traced when it took long enough to matter, with the processor time of it: the
/// rest is spent waiting, or other programs had the processors.
class TracedCall {
 public:
  explicit TracedCall(const char* what)
      : what_(what), begun_(milliseconds(CLOCK_MONOTONIC)), workBegun_(milliseconds(CLOCK_THREAD_CPUTIME_ID)) {}
  ~TracedCall() {
    const double turn = milliseconds(CLOCK_MONOTONIC) - begun_;
    if (turn > NOTICEABLE)
      trace("%s: a turn of %.1f ms, %.1f of them at work", what_, turn,
            milliseconds(CLOCK_THREAD_CPUTIME_ID) - workBegun_);
  }
  TracedCall(const TracedCall&) = delete;
  TracedCall& operator=(const TracedCall&) = delete;

 private:
  static constexpr double NOTICEABLE = 1;

  /// 0 without traces.
  static double milliseconds(clockid_t clock) {
    timespec now{};
    if (isTracing()) ::clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
  }

  const char* what_;
  double begun_;
  double workBegun_;
};

}  // namespace vornet::client
