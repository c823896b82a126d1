#include "BusConnection.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string_view>
#include <utility>

#include "GatedLink.hpp"

namespace vornet::service {
namespace {

// The socket's own buffer, in bytes: answers queue behind what it holds.
constexpr gint SEND_BUFFER = 16 * 1024;

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

/// Proves to the bus which user this is, by the mechanism EXTERNAL. GDBus offers that for sockets only, and the gate is
/// not one.
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
  if (answer.starts_with("OK "))
    return g_output_stream_write_all(output, BEGIN.data(), BEGIN.size(), nullptr, nullptr, error);
  if (error && !*error) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_PERMISSION_DENIED, "the bus does not accept this user: %s",
                answer.empty() ? "no answer" : answer.c_str());
  }
  return false;
}

/// The bus's answer, a number, to a call of its `method`. Takes `arguments`.
std::optional<guint32> askBus(GDBusConnection* connection, const char* method, GVariant* arguments, GError** error) {
  const GVariantPtr answer(g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                       "org.freedesktop.DBus", method, arguments, G_VARIANT_TYPE("(u)"),
                                                       G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error));
  if (!answer) return std::nullopt;
  guint32 number = 0;
  g_variant_get(answer.get(), "(u)", &number);
  return number;
}

}  // namespace

GObjectPtr<GDBusConnection> connectToSessionBus(GError** error) {
  const GCharPtr address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, error));
  if (!address) return nullptr;
  GObjectPtr<GIOStream> socket(g_dbus_address_get_stream_sync(address.get(), nullptr, nullptr, error));
  if (!socket || !authenticate(socket.get(), error)) return nullptr;
  g_socket_set_option(g_socket_connection_get_socket(G_SOCKET_CONNECTION(socket.get())), SOL_SOCKET, SO_SNDBUF,
                      SEND_BUFFER, nullptr);
  const auto link = std::make_shared<GatedLink>(std::move(socket));
  const auto gated = link->makeGatedStream();
  GObjectPtr<GDBusConnection> connection(g_dbus_connection_new_sync(
      gated.get(), nullptr, G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION, nullptr, nullptr, error));
  if (connection) link->open(connection.get());
  return connection;
}

bool hasUnansweredCalls(GDBusConnection* connection) {
  const bool has = !g_dbus_connection_is_closed(connection) && GatedLink::of(connection).hasUnansweredCalls();
  passHandOver();  // GLib's thread may free the stream later
  return has;
}

std::optional<BusNameOwner> claimBusName(GDBusConnection* connection, const std::string& name, std::string& error) {
  constexpr guint32 DO_NOT_QUEUE = 4;
  constexpr guint32 EXISTS = 3;  // the other answers mean that this connection has the name
  for (;;) {
    GErrorPtr failure;
    const auto answer =
        askBus(connection, "RequestName", g_variant_new("(su)", name.c_str(), DO_NOT_QUEUE), ErrorTo(failure));
    if (!answer) {
      error = failure->message;
      return std::nullopt;
    }
    if (*answer != EXISTS) return BusNameOwner{true, ::getpid()};
    const auto process =
        askBus(connection, "GetConnectionUnixProcessID", g_variant_new("(s)", name.c_str()), ErrorTo(failure));
    if (!g_error_matches(failure.get(), G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER))
      return BusNameOwner{false, process.value_or(0)};
  }
}

void releaseBusName(GDBusConnection* connection, const std::string& name) {
  askBus(connection, "ReleaseName", g_variant_new("(s)", name.c_str()), nullptr);
}

}  // namespace vornet::service
