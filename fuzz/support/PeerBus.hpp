#pragma once

#include <gio/gio.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "dbus/GLibPtr.hpp"

namespace vornet::fuzz {

/// A message bus with the extension behind it, both in this process, at address(). It answers as on() says. Any thread;
/// calls are answered on GLib's own.
class PeerBus {
 public:
  /// Arguments -> the values to answer with, of any type; null refuses the call.
  using Answer = std::function<GVariant*(GVariant* arguments)>;

  /// Connections are accepted while `context` runs; it is woken after each call that was answered.
  explicit PeerBus(GMainContext* context);
  PeerBus(const PeerBus&) = delete;
  PeerBus& operator=(const PeerBus&) = delete;

  const std::string& address() const { return address_; }

  /// Forgets answers and calls.
  void reset();

  /// The same, and a new process of the extension replaces the last one. start() reports it to a connected client,
  /// whose calls are refused and not counted until it has called the new process. Runs the default main context: the
  /// connections of clients that have gone are freed there.
  void restart();

  /// From now on the extension answers calls of `method` by `answer`, which must not call this object. Calls of other
  /// methods are refused.
  void on(const std::string& method, Answer answer);

  /// Reports the new process to a connected client; clients that connect later find it anyway.
  void start();

  /// How often `method` was called and answered.
  std::size_t calls(const std::string& method);

  /// Sends a signal of the extension. `values`: of any type; taken over. Calls `sending` before, while nothing else is
  /// sent: what is answered or sent earlier arrives earlier.
  void send(const char* interface, const char* signal, GVariant* values, const std::function<void()>& sending);

 private:
  void take(GDBusConnection* connection, GDBusMessage* call);
  GVariant* answer(const std::string& method, GVariant* arguments);
  void sendSignal(const char* sender, const char* path, const char* interface, const char* signal, GVariant* values);

  GMainContext* const context_;
  std::mutex mutex_;
  std::string address_;
  std::map<std::string, Answer> answers_;
  std::map<std::string, std::size_t> calls_;
  GObjectPtr<GDBusConnection> connection_;
  unsigned processes_ = 1;
  std::string process_ = ":1.1";  ///< the unique name of the one that runs
  bool isKnown_ = false;          ///< the other side has called it; before, its calls are meant for the last one
};

}  // namespace vornet::fuzz
