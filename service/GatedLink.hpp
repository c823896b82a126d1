#pragma once

#include <gio/gio.h>

#include <array>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "CallGate.hpp"
#include "dbus/GLibPtr.hpp"

namespace vornet::service {

/// A connection's gate: its streams, its filter and the messages in flight share it. What comes from the bus passes a
/// CallGate before GDBus reads it; the gate's refusals are answered here. Any thread; the streams read on one.
class GatedLink : public std::enable_shared_from_this<GatedLink> {
 public:
  explicit GatedLink(GObjectPtr<GIOStream> stream) : stream_(std::move(stream)) {
    g_weak_ref_init(&connection_, nullptr);
  }
  ~GatedLink() { g_weak_ref_clear(&connection_); }
  GatedLink(const GatedLink&) = delete;
  GatedLink& operator=(const GatedLink&) = delete;

  /// The socket's own streams.
  GPollableInputStream* input() const { return G_POLLABLE_INPUT_STREAM(g_io_stream_get_input_stream(stream_.get())); }
  GPollableOutputStream* output() const {
    return G_POLLABLE_OUTPUT_STREAM(g_io_stream_get_output_stream(stream_.get()));
  }
  gboolean close(GError** error) { return g_io_stream_close(stream_.get(), nullptr, error); }

  /// Streams for GDBus that pass the gate.
  GObjectPtr<GIOStream> makeGatedStream();
  /// The link of a connection that has such streams, as long as the connection lives.
  static GatedLink& of(GDBusConnection* connection);

  // For the streams.
  gssize read(char* buffer, gsize size, GCancellable* cancellable, GError** error);
  gssize readNonblocking(char* buffer, gsize size, GError** error);
  GSource* createReadSource(GPollableInputStream* gated, GCancellable* cancellable);

  /// Lets calls pass from now on, and answers those that the gate refuses, on `connection`.
  void open(GDBusConnection* connection);
  bool hasSomething() const { return gate_.hasSomething(); }
  bool hasUnansweredCalls() const { return gate_.hasUnansweredCalls(); }
  void answered(const char* client, guint32 serial);
  void doneWith(const std::string& client, guint32 serial);

 private:
  void wake();
  void sendRefusalsSoon();
  void sendRefusals();
  void refusalSent();
  GObjectPtr<GDBusMessage> messageOf(const CallGate::Refusal& refusal);

  static constexpr std::size_t PIECE = 64 * 1024;

  const GObjectPtr<GIOStream> stream_;
  CallGate gate_;
  std::array<char, PIECE> piece_;  // used by the one thread that reads

  std::mutex lock_;  // guards what follows
  GSourcePtr alarm_;
  GWeakRef connection_;
  int refusalsInFlight_ = 0;
  bool sending_ = false;
};

/// To be called before GLib gets an object and after it returns one. Another thread may free it, and GLib is not
/// instrumented: without this the thread sanitizer sees no order.
void passHandOver();

}  // namespace vornet::service
