#include "GatedLink.hpp"

#include "dbus/Interface.hpp"

namespace vornet::service {
namespace {

using SharedLink = std::shared_ptr<GatedLink>;

constexpr const char* INVALID_ARGUMENTS = "org.freedesktop.DBus.Error.InvalidArgs";

// After so many bytes without a message for GDBus, its thread goes on to write.
constexpr std::size_t MOST_READ = 1024 * 1024;

// Refusals that GDBus holds at a time; the others take less room in the gate.
constexpr int REFUSALS_AT_ONCE = 16;

GQuark refusalMark() {
  return g_quark_from_static_string("vornet-refusal");
}

// --- The streams ----------------------------------------------------------------------------------------------------

GQuark linkOfStream() {
  return g_quark_from_static_string("vornet-link");
}

GatedLink& linkOf(gpointer stream) {
  return **static_cast<SharedLink*>(g_object_get_qdata(G_OBJECT(stream), linkOfStream()));
}

template <typename Stream>
gboolean closeStream(Stream* stream, GCancellable*, GError** error) {
  const gboolean closed = linkOf(stream).close(error);
  passHandOver();
  return closed;
}

struct GatedInput {
  GInputStream parent;
};
struct GatedInputClass {
  GInputStreamClass parent;
};
struct GatedOutput {
  GOutputStream parent;
};
struct GatedOutputClass {
  GOutputStreamClass parent;
};

void becomePollableInput(gpointer type, gpointer);
void becomePollableOutput(gpointer type, gpointer);

G_DEFINE_TYPE_WITH_CODE(GatedInput, gated_input, G_TYPE_INPUT_STREAM,
                        G_IMPLEMENT_INTERFACE(G_TYPE_POLLABLE_INPUT_STREAM, becomePollableInput))
G_DEFINE_TYPE_WITH_CODE(GatedOutput, gated_output, G_TYPE_OUTPUT_STREAM,
                        G_IMPLEMENT_INTERFACE(G_TYPE_POLLABLE_OUTPUT_STREAM, becomePollableOutput))

void gated_input_init(GatedInput*) {}
void gated_output_init(GatedOutput*) {}

void gated_input_class_init(GatedInputClass* type) {
  type->parent.read_fn = [](GInputStream* stream, void* buffer, gsize size, GCancellable* cancellable, GError** error) {
    return linkOf(stream).read(static_cast<char*>(buffer), size, cancellable, error);
  };
  type->parent.close_fn = &closeStream<GInputStream>;
}

void becomePollableInput(gpointer type, gpointer) {
  auto* interface = static_cast<GPollableInputStreamInterface*>(type);
  interface->is_readable = [](GPollableInputStream* stream) -> gboolean {
    const GatedLink& link = linkOf(stream);
    const gboolean readable = link.hasSomething() || g_pollable_input_stream_is_readable(link.input());
    passHandOver();
    return readable;
  };
  interface->create_source = [](GPollableInputStream* stream, GCancellable* cancellable) {
    GSource* source = linkOf(stream).createReadSource(stream, cancellable);
    passHandOver();
    return source;
  };
  interface->read_nonblocking = [](GPollableInputStream* stream, void* buffer, gsize size, GError** error) {
    const gssize count = linkOf(stream).readNonblocking(static_cast<char*>(buffer), size, error);
    passHandOver();  // another thread may free the stream
    return count;
  };
}

/// Only passes on; GDBus would bypass a stream that it knows as a socket's.
void gated_output_class_init(GatedOutputClass* type) {
  type->parent.write_fn = [](GOutputStream* stream, const void* buffer, gsize size, GCancellable* cancellable,
                             GError** error) {
    return g_output_stream_write(G_OUTPUT_STREAM(linkOf(stream).output()), buffer, size, cancellable, error);
  };
  type->parent.close_fn = &closeStream<GOutputStream>;
}

void becomePollableOutput(gpointer type, gpointer) {
  auto* interface = static_cast<GPollableOutputStreamInterface*>(type);
  interface->is_writable = [](GPollableOutputStream* stream) {
    return g_pollable_output_stream_is_writable(linkOf(stream).output());
  };
  interface->create_source = [](GPollableOutputStream* stream, GCancellable* cancellable) {
    const GSourcePtr socket(g_pollable_output_stream_create_source(linkOf(stream).output(), nullptr));
    return g_pollable_source_new_full(stream, socket.get(), cancellable);
  };
  interface->write_nonblocking = [](GPollableOutputStream* stream, const void* buffer, gsize size, GError** error) {
    return g_pollable_output_stream_write_nonblocking(linkOf(stream).output(), buffer, size, nullptr, error);
  };
}

template <typename Parent>
GObjectPtr<Parent> makeStream(GType type, const SharedLink& link) {
  GObjectPtr<Parent> stream(static_cast<Parent*>(g_object_new(type, nullptr)));
  const auto release = +[](gpointer shared) {
    passHandOver();
    delete static_cast<SharedLink*>(shared);
  };
  g_object_set_qdata_full(G_OBJECT(stream.get()), linkOfStream(), new SharedLink(link), release);
  return stream;
}

}  // namespace

void passHandOver() {
  static std::mutex lock;
  const std::lock_guard guard(lock);
}

GObjectPtr<GIOStream> GatedLink::makeGatedStream() {
  const auto input = makeStream<GInputStream>(gated_input_get_type(), shared_from_this());
  const auto output = makeStream<GOutputStream>(gated_output_get_type(), shared_from_this());
  return GObjectPtr<GIOStream>(g_simple_io_stream_new(input.get(), output.get()));
}

GatedLink& GatedLink::of(GDBusConnection* connection) {
  return linkOf(g_io_stream_get_input_stream(g_dbus_connection_get_stream(connection)));
}

// --- Reading --------------------------------------------------------------------------------------------------------

gssize GatedLink::read(char* buffer, gsize size, GCancellable* cancellable, GError** error) {
  for (;;) {
    if (const std::size_t count = gate_.give(buffer, size); count > 0) return static_cast<gssize>(count);
    const gssize taken = g_input_stream_read(G_INPUT_STREAM(input()), piece_.data(), PIECE, cancellable, error);
    if (taken <= 0) return taken;
    if (gate_.take({piece_.data(), static_cast<std::size_t>(taken)})) continue;
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA, "no D-Bus message");
    return -1;
  }
}

gssize GatedLink::readNonblocking(char* buffer, gsize size, GError** error) {
  for (std::size_t all = 0; all < MOST_READ;) {
    GErrorPtr failure;
    const gssize taken =
        g_pollable_input_stream_read_nonblocking(input(), piece_.data(), PIECE, nullptr, ErrorTo(failure));
    if (taken == 0) return 0;
    if (taken < 0 && g_error_matches(failure.get(), G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) break;
    if (taken < 0) {
      g_propagate_error(error, failure.release());
      return -1;
    }
    if (!gate_.take({piece_.data(), static_cast<std::size_t>(taken)})) {
      g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA, "no D-Bus message");
      return -1;
    }
    all += static_cast<std::size_t>(taken);
    if (static_cast<std::size_t>(taken) < PIECE) break;  // mostly there is no more
  }
  if (gate_.hasRefusals()) sendRefusalsSoon();
  if (const std::size_t count = gate_.give(buffer, size); count > 0) return static_cast<gssize>(count);
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK, "nothing may pass for now");
  return -1;
}

/// Ready when the socket is, and when the gate lets something pass that had to wait.
GSource* GatedLink::createReadSource(GPollableInputStream* gated, GCancellable* cancellable) {
  static GSourceFuncs alarms = {nullptr,
                                nullptr,
                                [](GSource* source, GSourceFunc, gpointer) -> gboolean {
                                  g_source_set_ready_time(source, -1);
                                  return G_SOURCE_CONTINUE;
                                },
                                nullptr,
                                nullptr,
                                nullptr};
  const GSourcePtr socket(g_pollable_input_stream_create_source(input(), nullptr));
  GSource* source = g_pollable_source_new_full(gated, socket.get(), cancellable);
  GSourcePtr alarm(g_source_new(&alarms, sizeof(GSource)));
  g_source_add_child_source(source, alarm.get());
  {
    const std::lock_guard guard(lock_);
    alarm_ = std::move(alarm);
  }
  if (gate_.hasSomething()) wake();  // since the read that found nothing
  return source;
}

void GatedLink::wake() {
  const std::lock_guard guard(lock_);
  if (alarm_) g_source_set_ready_time(alarm_.get(), 0);
}

void GatedLink::answered(const char* client, guint32 serial) {
  gate_.answered(client, serial);
  if (gate_.hasSomething()) wake();
}

void GatedLink::doneWith(const std::string& client, guint32 serial) {
  gate_.doneWith(client, serial);
  if (gate_.hasSomething()) wake();
}

// --- Refusing -------------------------------------------------------------------------------------------------------

/// Later, because the reader may hold locks of GDBus.
void GatedLink::sendRefusalsSoon() {
  {
    const std::lock_guard guard(lock_);
    if (sending_ || refusalsInFlight_ >= REFUSALS_AT_ONCE) return;
    sending_ = true;
  }
  const GSourcePtr soon(g_idle_source_new());
  g_source_set_priority(soon.get(), G_PRIORITY_DEFAULT);
  g_source_set_callback(
      soon.get(),
      [](gpointer link) -> gboolean {
        (*static_cast<SharedLink*>(link))->sendRefusals();
        return G_SOURCE_REMOVE;
      },
      new SharedLink(shared_from_this()), [](gpointer link) { delete static_cast<SharedLink*>(link); });
  g_source_attach(soon.get(), g_main_context_get_thread_default());
}

void GatedLink::sendRefusals() {
  const GObjectPtr<GDBusConnection> connection(static_cast<GDBusConnection*>(g_weak_ref_get(&connection_)));
  for (;;) {
    {
      const std::lock_guard guard(lock_);
      sending_ = connection && refusalsInFlight_ < REFUSALS_AT_ONCE;
      if (!sending_) break;
      ++refusalsInFlight_;
    }
    const auto refusal = gate_.nextRefusal();
    if (!refusal) {
      const std::lock_guard guard(lock_);
      --refusalsInFlight_;
      sending_ = false;
      break;
    }
    const auto message = messageOf(*refusal);
    g_dbus_connection_send_message(connection.get(), message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
  }
}

void GatedLink::refusalSent() {
  {
    const std::lock_guard guard(lock_);
    --refusalsInFlight_;
  }
  if (gate_.hasRefusals()) sendRefusalsSoon();
}

GObjectPtr<GDBusMessage> GatedLink::messageOf(const CallGate::Refusal& refusal) {
  std::string name = std::string(dbus::ERROR_PREFIX) + dbus::error::BUSY;
  const char* text = "too many calls of this client are waiting";
  if (refusal.reason == CallGate::Reason::tooManyURLs) {
    name = std::string(dbus::ERROR_PREFIX) + dbus::error::TOO_MANY_URLS;
    text = "more than 10,000 URLs, or more than 4 MiB, in one call";
  } else if (refusal.reason == CallGate::Reason::tooLarge) {
    name = INVALID_ARGUMENTS;
    text = "more than 64 KiB in one call";
  }
  GObjectPtr<GDBusMessage> message(g_dbus_message_new());
  g_dbus_message_set_message_type(message.get(), G_DBUS_MESSAGE_TYPE_ERROR);
  g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
  g_dbus_message_set_destination(message.get(), refusal.client.c_str());
  g_dbus_message_set_reply_serial(message.get(), refusal.serial);
  g_dbus_message_set_error_name(message.get(), name.c_str());
  g_dbus_message_set_body(message.get(), g_variant_new("(s)", text));
  const auto sent = +[](gpointer data) {
    passHandOver();
    const std::unique_ptr<SharedLink> link(static_cast<SharedLink*>(data));
    (*link)->refusalSent();
  };
  g_object_set_qdata_full(G_OBJECT(message.get()), refusalMark(), new SharedLink(shared_from_this()), sent);
  passHandOver();
  return message;
}

// --- The connection's messages --------------------------------------------------------------------------------------

namespace {

/// A call that awaits no answer. It is finished when its message is freed.
struct Unanswered {
  SharedLink link;
  std::string client;
  guint32 serial;
};

GDBusMessage* followCall(GDBusConnection*, GDBusMessage* message, gboolean incoming, gpointer data) {
  const auto& link = *static_cast<SharedLink*>(data);
  const auto type = g_dbus_message_get_message_type(message);
  if (incoming && type == G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
    const gchar* sender = g_dbus_message_get_sender(message);
    if (!sender || !(g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED)) return message;
    const auto gone = +[](gpointer unanswered) {
      passHandOver();
      const std::unique_ptr<Unanswered> call(static_cast<Unanswered*>(unanswered));
      call->link->doneWith(call->client, call->serial);
    };
    g_object_set_qdata_full(G_OBJECT(message), g_quark_from_static_string("vornet-unanswered"),
                            new Unanswered{link, sender, g_dbus_message_get_serial(message)}, gone);
    passHandOver();
  } else if (!incoming && (type == G_DBUS_MESSAGE_TYPE_METHOD_RETURN || type == G_DBUS_MESSAGE_TYPE_ERROR)) {
    const gchar* client = g_dbus_message_get_destination(message);
    const bool isRefusal = g_object_get_qdata(G_OBJECT(message), refusalMark()) != nullptr;
    if (client && !isRefusal) link->answered(client, g_dbus_message_get_reply_serial(message));
  }
  return message;
}

}  // namespace

void GatedLink::open(GDBusConnection* connection) {
  g_dbus_connection_add_filter(connection, &followCall, new SharedLink(shared_from_this()),
                               [](gpointer link) { delete static_cast<SharedLink*>(link); });
  g_weak_ref_set(&connection_, connection);
  gate_.open();
  if (gate_.hasSomething()) wake();
}

}  // namespace vornet::service
