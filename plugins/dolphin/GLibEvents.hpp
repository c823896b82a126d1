#pragma once

#include <QObject>
#include <QTimer>

#include <glib.h>

#include <memory>
#include <vector>

class QSocketNotifier;

namespace vornet::dolphin {

/// A GLib main context whose events are dispatched by Qt's event loop, for where that is not GLib's own: it waits for
/// the context's descriptors and for its next time-out, without a thread and without polling. What it
/// dispatches must not run an event loop of its own. One thread.
class GLibEvents : public QObject {
  Q_OBJECT
 public:
  /// Whether Qt's loop on this thread leaves GLib's default context alone.
  static bool needed();

  GLibEvents();
  ~GLibEvents() override;

  GMainContext* context() const { return context_.get(); }

 private:
  /// Dispatches what is due, and sets out for what comes next.
  void run();
  void waitFor(const std::vector<GPollFD>& descriptors, int milliseconds);

  struct Notifier {
    GPollFD descriptor;
    std::vector<std::unique_ptr<QSocketNotifier>> parts;
  };

  std::unique_ptr<GMainContext, decltype(&g_main_context_unref)> context_;
  std::vector<Notifier> notifiers_;
  QTimer timer_;
};

}  // namespace vornet::dolphin
