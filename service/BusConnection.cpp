#include "BusConnection.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "CallGate.hpp"
#include "dbus/Interface.hpp"

namespace vornet::service {
namespace {

constexpr const char* INVALID_ARGUMENTS = "org.freedesktop.DBus.Error.InvalidArgs";

constexpr std::size_t PIECE = 64 * 1024;

// After so many bytes without a message for GDBus, its thread turns to what is to be written.
constexpr std::size_t MOST_AT_ONCE = 1024 * 1024;

// So many refusals are given to GDBus at a time; the others take less room in the gate.
constexpr int REFUSALS_AT_ONCE = 16;

// The socket's own buffer, in bytes: answers that are in it are overtaken by none.
constexpr gint SEND_BUFFER = 16 * 1024;

/// What the streams, the connection's filter and the messages under way share.
class Link : public std::enable_shared_from_this<Link> {
 public:
  explicit Link(GSocketConnection* stream) : stream_(G_IO_STREAM(stream)) { g_weak_ref_init(&connection_, nullptr); }
  ~Link() {
    g_weak_ref_clear(&connection_);
    g_object_unref(stream_);
    if (alarm_) g_source_unref(alarm_);
  }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  GPollableInputStream* input() const { return G_POLLABLE_INPUT_STREAM(g_io_stream_get_input_stream(stream_)); }
  GPollableOutputStream* output() const { return G_POLLABLE_OUTPUT_STREAM(g_io_stream_get_output_stream(stream_)); }
  gboolean close(GError** error) { return g_io_stream_close(stream_, nullptr, error); }

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
  GDBusMessage* messageOf(const CallGate::Refusal& refusal);

  GIOStream* const stream_;
  CallGate gate_;
  std::array<char, PIECE> piece_;  // used by the one thread that reads

  std::mutex lock_;  // guards what follows
  GSource* alarm_ = nullptr;
  GWeakRef connection_;
  int refusalsUnderWay_ = 0;
  bool sending_ = false;
};

using SharedLink = std::shared_ptr<Link>;

GQuark refusalMark() {
  return g_quark_from_static_string("vornet-refusal");
}

/// GLib counts references such that what one thread made another may free, but it is not instrumented: the thread
/// sanitizer sees no order. Whoever gives GLib an object, or gets it back, passes here.
void passHandOver() {
  static std::mutex lock;
  const std::lock_guard guard(lock);
}

// --- The streams ----------------------------------------------------------------------------------------------------

struct GatedInput {
  GInputStream parent;
  SharedLink* link;
};
struct GatedInputClass {
  GInputStreamClass parent;
};
struct GatedOutput {
  GOutputStream parent;
  SharedLink* link;
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

Link& linkOf(gpointer stream, GType type) {
  return type == gated_input_get_type() ? **static_cast<GatedInput*>(stream)->link
                                        : **static_cast<GatedOutput*>(stream)->link;
}
Link& inputLink(gpointer stream) {
  return linkOf(stream, gated_input_get_type());
}
Link& outputLink(gpointer stream) {
  return linkOf(stream, gated_output_get_type());
}

void gated_input_init(GatedInput*) {}
void gated_output_init(GatedOutput*) {}

void gated_input_class_init(GatedInputClass* type) {
  type->parent.read_fn = [](GInputStream* stream, void* buffer, gsize size, GCancellable* cancellable, GError** error) {
    return inputLink(stream).read(static_cast<char*>(buffer), size, cancellable, error);
  };
  type->parent.close_fn = [](GInputStream* stream, GCancellable*, GError** error) {
    const gboolean closed = inputLink(stream).close(error);
    passHandOver();
    return closed;
  };
  G_OBJECT_CLASS(type)->finalize = [](GObject* stream) {
    passHandOver();
    delete reinterpret_cast<GatedInput*>(stream)->link;
    G_OBJECT_CLASS(gated_input_parent_class)->finalize(stream);
  };
}

void becomePollableInput(gpointer type, gpointer) {
  auto* interface = static_cast<GPollableInputStreamInterface*>(type);
  interface->is_readable = [](GPollableInputStream* stream) -> gboolean {
    const Link& link = inputLink(stream);
    const gboolean readable = link.hasSomething() || g_pollable_input_stream_is_readable(link.input());
    passHandOver();
    return readable;
  };
  interface->create_source = [](GPollableInputStream* stream, GCancellable* cancellable) {
    GSource* source = inputLink(stream).createReadSource(stream, cancellable);
    passHandOver();
    return source;
  };
  interface->read_nonblocking = [](GPollableInputStream* stream, void* buffer, gsize size, GError** error) {
    const gssize count = inputLink(stream).readNonblocking(static_cast<char*>(buffer), size, error);
    passHandOver();  // another thread may free the stream
    return count;
  };
}

/// Only hands on; GDBus writes past a stream that it knows as a socket's.
void gated_output_class_init(GatedOutputClass* type) {
  type->parent.write_fn = [](GOutputStream* stream, const void* buffer, gsize size, GCancellable* cancellable,
                             GError** error) {
    return g_output_stream_write(G_OUTPUT_STREAM(outputLink(stream).output()), buffer, size, cancellable, error);
  };
  type->parent.close_fn = [](GOutputStream* stream, GCancellable*, GError** error) {
    const gboolean closed = outputLink(stream).close(error);
    passHandOver();
    return closed;
  };
  G_OBJECT_CLASS(type)->finalize = [](GObject* stream) {
    passHandOver();
    delete reinterpret_cast<GatedOutput*>(stream)->link;
    G_OBJECT_CLASS(gated_output_parent_class)->finalize(stream);
  };
}

void becomePollableOutput(gpointer type, gpointer) {
  auto* interface = static_cast<GPollableOutputStreamInterface*>(type);
  interface->is_writable = [](GPollableOutputStream* stream) {
    return g_pollable_output_stream_is_writable(outputLink(stream).output());
  };
  interface->create_source = [](GPollableOutputStream* stream, GCancellable* cancellable) {
    GSource* socket = g_pollable_output_stream_create_source(outputLink(stream).output(), nullptr);
    GSource* source = g_pollable_source_new_full(stream, socket, cancellable);
    g_source_unref(socket);
    return source;
  };
  interface->write_nonblocking = [](GPollableOutputStream* stream, const void* buffer, gsize size, GError** error) {
    return g_pollable_output_stream_write_nonblocking(outputLink(stream).output(), buffer, size, nullptr, error);
  };
}

// --- Reading --------------------------------------------------------------------------------------------------------

gssize Link::read(char* buffer, gsize size, GCancellable* cancellable, GError** error) {
  for (;;) {
    if (const std::size_t count = gate_.give(buffer, size); count > 0) return static_cast<gssize>(count);
    const gssize taken = g_input_stream_read(G_INPUT_STREAM(input()), piece_.data(), PIECE, cancellable, error);
    if (taken <= 0) return taken;
    if (gate_.take({piece_.data(), static_cast<std::size_t>(taken)})) continue;
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA, "no D-Bus message");
    return -1;
  }
}

gssize Link::readNonblocking(char* buffer, gsize size, GError** error) {
  for (std::size_t all = 0; all < MOST_AT_ONCE;) {
    GError* failure = nullptr;
    const gssize taken = g_pollable_input_stream_read_nonblocking(input(), piece_.data(), PIECE, nullptr, &failure);
    if (taken == 0) return 0;
    if (taken < 0 && g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
      g_error_free(failure);
      break;
    }
    if (taken < 0) {
      g_propagate_error(error, failure);
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
GSource* Link::createReadSource(GPollableInputStream* gated, GCancellable* cancellable) {
  static GSourceFuncs alarms = {nullptr,
                                nullptr,
                                [](GSource* source, GSourceFunc, gpointer) -> gboolean {
                                  g_source_set_ready_time(source, -1);
                                  return G_SOURCE_CONTINUE;
                                },
                                nullptr,
                                nullptr,
                                nullptr};
  GSource* socket = g_pollable_input_stream_create_source(input(), nullptr);
  GSource* source = g_pollable_source_new_full(gated, socket, cancellable);
  g_source_unref(socket);
  GSource* alarm = g_source_new(&alarms, sizeof(GSource));
  g_source_add_child_source(source, alarm);
  {
    const std::lock_guard guard(lock_);
    if (alarm_) g_source_unref(alarm_);
    alarm_ = alarm;
  }
  if (gate_.hasSomething()) wake();  // since the read that found nothing
  return source;
}

void Link::wake() {
  const std::lock_guard guard(lock_);
  if (alarm_) g_source_set_ready_time(alarm_, 0);
}

void Link::answered(const char* client, guint32 serial) {
  gate_.answered(client, serial);
  if (gate_.hasSomething()) wake();
}

void Link::doneWith(const std::string& client, guint32 serial) {
  gate_.doneWith(client, serial);
  if (gate_.hasSomething()) wake();
}

// --- Refusing -------------------------------------------------------------------------------------------------------

/// Not at once: whoever reads may hold locks of GDBus.
void Link::sendRefusalsSoon() {
  {
    const std::lock_guard guard(lock_);
    if (sending_ || refusalsUnderWay_ >= REFUSALS_AT_ONCE) return;
    sending_ = true;
  }
  GSource* soon = g_idle_source_new();
  g_source_set_priority(soon, G_PRIORITY_DEFAULT);
  g_source_set_callback(
      soon,
      [](gpointer link) -> gboolean {
        (*static_cast<SharedLink*>(link))->sendRefusals();
        return G_SOURCE_REMOVE;
      },
      new SharedLink(shared_from_this()), [](gpointer link) { delete static_cast<SharedLink*>(link); });
  g_source_attach(soon, g_main_context_get_thread_default());
  g_source_unref(soon);
}

void Link::sendRefusals() {
  auto* connection = static_cast<GDBusConnection*>(g_weak_ref_get(&connection_));
  for (;;) {
    {
      const std::lock_guard guard(lock_);
      sending_ = connection && refusalsUnderWay_ < REFUSALS_AT_ONCE;
      if (!sending_) break;
      ++refusalsUnderWay_;
    }
    const auto refusal = gate_.nextRefusal();
    if (!refusal) {
      const std::lock_guard guard(lock_);
      --refusalsUnderWay_;
      sending_ = false;
      break;
    }
    GDBusMessage* message = messageOf(*refusal);
    g_dbus_connection_send_message(connection, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(message);
  }
  if (connection) g_object_unref(connection);
}

void Link::refusalSent() {
  {
    const std::lock_guard guard(lock_);
    --refusalsUnderWay_;
  }
  if (gate_.hasRefusals()) sendRefusalsSoon();
}

GDBusMessage* Link::messageOf(const CallGate::Refusal& refusal) {
  std::string name = std::string(dbus::ERROR_PREFIX) + dbus::error::BUSY;
  const char* text = "too many calls of this client are waiting";
  if (refusal.reason == CallGate::Reason::tooManyURLs) {
    name = std::string(dbus::ERROR_PREFIX) + dbus::error::TOO_MANY_URLS;
    text = "more than 10,000 URLs, or more than 4 MiB, in one call";
  } else if (refusal.reason == CallGate::Reason::tooLarge) {
    name = INVALID_ARGUMENTS;
    text = "more than 64 KiB in one call";
  }
  GDBusMessage* message = g_dbus_message_new();
  g_dbus_message_set_message_type(message, G_DBUS_MESSAGE_TYPE_ERROR);
  g_dbus_message_set_flags(message, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
  g_dbus_message_set_destination(message, refusal.client.c_str());
  g_dbus_message_set_reply_serial(message, refusal.serial);
  g_dbus_message_set_error_name(message, name.c_str());
  g_dbus_message_set_body(message, g_variant_new("(s)", text));
  const auto sent = +[](gpointer data) {
    passHandOver();
    const std::unique_ptr<SharedLink> link(static_cast<SharedLink*>(data));
    (*link)->refusalSent();
  };
  g_object_set_qdata_full(G_OBJECT(message), refusalMark(), new SharedLink(shared_from_this()), sent);
  passHandOver();
  return message;
}

// --- The connection -------------------------------------------------------------------------------------------------

/// A call that awaits no answer. It is done with when its message goes.
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

void Link::open(GDBusConnection* connection) {
  g_dbus_connection_add_filter(connection, &followCall, new SharedLink(shared_from_this()),
                               [](gpointer link) { delete static_cast<SharedLink*>(link); });
  g_weak_ref_set(&connection_, connection);
  gate_.open();
  if (gate_.hasSomething()) wake();
}

/// The bus's answer to a line of the authentication, without its end; empty when there is none.
std::string readLine(GInputStream* input, GError** error) {
  constexpr std::size_t LONGEST_LINE = 16 * 1024;  // of a bus that speaks the protocol
  std::string line;
  char next = 0;
  // One by one: what follows the line belongs to GDBus.
  while (line.size() < LONGEST_LINE && g_input_stream_read(input, &next, 1, nullptr, error) == 1) {
    line += next;
    if (line.ends_with("\r\n")) return line.substr(0, line.size() - 2);
  }
  return {};
}

/// Proves to the bus which user this is: the mechanism EXTERNAL of the bus's authentication. GDBus
/// offers it for sockets alone, and the gate is none.
bool authenticate(GIOStream* socket, GError** error) {
  std::string user;
  for (const char digit : std::to_string(::getuid())) {
    user += '3';  // digits in hexadecimal
    user += digit;
  }
  const std::string greeting = std::string(1, '\0') + "AUTH EXTERNAL " + user + "\r\n";
  constexpr std::string_view BEGIN = "BEGIN\r\n";
  GOutputStream* output = g_io_stream_get_output_stream(socket);
  if (!g_output_stream_write_all(output, greeting.data(), greeting.size(), nullptr, nullptr, error)) return false;
  const auto answer = readLine(g_io_stream_get_input_stream(socket), error);
  if (answer.starts_with("OK ")) {
    return g_output_stream_write_all(output, BEGIN.data(), BEGIN.size(), nullptr, nullptr, error);
  }
  if (error && !*error) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_PERMISSION_DENIED, "the bus does not accept this user: %s",
                answer.empty() ? "no answer" : answer.c_str());
  }
  return false;
}

}  // namespace

GDBusConnection* connectToSessionBus(GError** error) {
  gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, error);
  if (!address) return nullptr;
  GIOStream* socket = g_dbus_address_get_stream_sync(address, nullptr, nullptr, error);
  g_free(address);
  if (!socket) return nullptr;
  if (!authenticate(socket, error)) {
    g_object_unref(socket);
    return nullptr;
  }
  g_socket_set_option(g_socket_connection_get_socket(G_SOCKET_CONNECTION(socket)), SOL_SOCKET, SO_SNDBUF, SEND_BUFFER,
                      nullptr);
  const auto link = std::make_shared<Link>(G_SOCKET_CONNECTION(socket));

  auto* input = static_cast<GatedInput*>(g_object_new(gated_input_get_type(), nullptr));
  auto* output = static_cast<GatedOutput*>(g_object_new(gated_output_get_type(), nullptr));
  input->link = new SharedLink(link);
  output->link = new SharedLink(link);
  GIOStream* gated = g_simple_io_stream_new(&input->parent, &output->parent);
  g_object_unref(input);
  g_object_unref(output);
  GDBusConnection* connection = g_dbus_connection_new_sync(
      gated, nullptr, G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION, nullptr, nullptr, error);
  g_object_unref(gated);
  if (connection) link->open(connection);
  return connection;
}

bool hasUnansweredCalls(GDBusConnection* connection) {
  GInputStream* input = g_io_stream_get_input_stream(g_dbus_connection_get_stream(connection));
  const bool has = !g_dbus_connection_is_closed(connection) && inputLink(input).hasUnansweredCalls();
  passHandOver();  // GLib's thread may free the stream later
  return has;
}

}  // namespace vornet::service
