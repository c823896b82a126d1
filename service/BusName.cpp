#include "BusName.hpp"

#include <unistd.h>

#include <memory>

namespace vornet::service {
namespace {

using Value = std::unique_ptr<GVariant, decltype(&g_variant_unref)>;

/// The bus's answer, a number, to a call of its `method`. Takes `arguments`.
std::optional<guint32> askBus(GDBusConnection* connection, const char* method, GVariant* arguments, GError** error) {
  const Value answer(
      g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                  method, arguments, G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error),
      g_variant_unref);
  if (!answer) return std::nullopt;
  guint32 number = 0;
  g_variant_get(answer.get(), "(u)", &number);
  return number;
}

}  // namespace

std::optional<BusNameOwner> claimBusName(GDBusConnection* connection, const std::string& name, std::string& error) {
  constexpr guint32 DO_NOT_QUEUE = 4;
  constexpr guint32 EXISTS = 3;  // the other answers mean that this connection has the name
  for (;;) {
    GError* failure = nullptr;
    const auto answer = askBus(connection, "RequestName", g_variant_new("(su)", name.c_str(), DO_NOT_QUEUE), &failure);
    if (!answer) {
      error = failure->message;
      g_error_free(failure);
      return std::nullopt;
    }
    if (*answer != EXISTS) return BusNameOwner{true, ::getpid()};
    const auto process = askBus(connection, "GetConnectionUnixProcessID", g_variant_new("(s)", name.c_str()), &failure);
    const bool hasGone = g_error_matches(failure, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER);
    g_clear_error(&failure);
    if (!hasGone) return BusNameOwner{false, process.value_or(0)};
  }
}

void releaseBusName(GDBusConnection* connection, const std::string& name) {
  askBus(connection, "ReleaseName", g_variant_new("(s)", name.c_str()), nullptr);
}

}  // namespace vornet::service
