#pragma once

#include <glib.h>

namespace vornet::client {

/// Whether the user wants to see what the plug-in does: G_MESSAGES_DEBUG=vornet-vi in the file manager's environment.
inline bool isTracing() {
  static const bool tracing = !g_log_writer_default_would_drop(G_LOG_LEVEL_DEBUG, "vornet-vi");
  return tracing;
}

/// Past the handlers for log messages that some file managers set, and that keep such lines to themselves.
template <typename... Values>
void trace(const char* format, Values... values) {
  if (isTracing()) g_log_structured("vornet-vi", G_LOG_LEVEL_DEBUG, "MESSAGE", format, values...);
}

/// A piece of work on the file manager's thread; traced when it took long enough to be felt together with others.
class TracedCall {
 public:
  explicit TracedCall(const char* what) : what_(what), begun_(isTracing() ? g_get_monotonic_time() : 0) {}
  ~TracedCall() {
    if (begun_ == 0) return;
    const auto milliseconds = static_cast<double>(g_get_monotonic_time() - begun_) / 1000;
    if (milliseconds > NOTICEABLE) trace("%s: a turn of %.1f ms", what_, milliseconds);
  }
  TracedCall(const TracedCall&) = delete;
  TracedCall& operator=(const TracedCall&) = delete;

 private:
  static constexpr double NOTICEABLE = 1;
  const char* what_;
  gint64 begun_;
};

}  // namespace vornet::client
