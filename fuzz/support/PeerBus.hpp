#pragma once

#include <gio/gio.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace vornet::fuzz {

/// A message bus with the extension behind it, both in this process: a connection to address() speaks to this object,
/// which answers as it is told. Any thread; calls are answered on GLib's own.
class PeerBus {
 public:
  /// Arguments -> the values to answer with, of any type; null refuses the call.
  using Answer = std::function<GVariant*(GVariant* arguments)>;

  /// Connections are accepted while `context` runs; it is woken after each call that was answered.
  explicit PeerBus(GMainContext* context);
  PeerBus(const PeerBus&) = delete;
  PeerBus& operator=(const PeerBus&) = delete;

  const std::string& address() const { return address_; }

  /// The extension ends, and another process of it takes its place: with no answers and no calls. Who is connected is
  /// told by start(); what it sent to the process before is refused.
  void restart();

  /// From now on the extension answers calls of `method` by `answer`, which must not call this object. Calls of other
  /// methods are refused.
  void on(const std::string& method, Answer answer);

  /// Tells whoever is connected that the extension is another process now; what connects later finds that one.
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
  GDBusConnection* connection_ = nullptr;
  unsigned processes_ = 1;
  std::string process_ = ":1.1";  ///< the unique name of the one that runs
  bool isKnown_ = false;          ///< the other side has spoken to it; before, its calls are meant for the last one
};

}  // namespace vornet::fuzz
