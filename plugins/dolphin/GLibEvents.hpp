#pragma once

#include <QObject>
#include <QTimer>

#include <memory>
#include <vector>

#include "dbus/GLibPtr.hpp"

class QSocketNotifier;

namespace vornet::dolphin {

/// A GLib main context whose events Qt's event loop dispatches, where Qt does not run GLib's: it waits for the
/// context's descriptors and its next time-out, without a thread and without polling. Handlers must not run a nested
/// event loop. One thread.
class GLibEvents : public QObject {
  Q_OBJECT
 public:
  /// True if Qt's loop on this thread leaves GLib's default context alone.
  static bool needed();

  GLibEvents();
  ~GLibEvents() override;

  GMainContext* context() const { return context_.get(); }

 private:
  /// Dispatches what is due, then waits for what comes next.
  void run();
  void waitFor(const std::vector<GPollFD>& descriptors, int milliseconds);

  struct Notifier {
    GPollFD descriptor;
    std::vector<std::unique_ptr<QSocketNotifier>> parts;
  };

  const GMainContextPtr context_;
  std::vector<Notifier> notifiers_;
  QTimer timer_;
};

}  // namespace vornet::dolphin
