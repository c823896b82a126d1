// The extension's interface with nothing behind it: each call is answered at once, badges with empty identifiers, menus
// with no entries. A flood costs here only what the bus and GDBus cost.
// Usage: vornet-echo NAME (on the bus of DBUS_SESSION_BUS_ADDRESS, until the bus goes away).
#include <FinderSync1.h>

#include <cstdio>
#include <string_view>
#include <vector>

#include "dbus/Interface.hpp"

namespace {

void answer(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method, GVariant* arguments,
            GDBusMethodInvocation* call, gpointer) {
  GVariant* values = nullptr;
  if (method == std::string_view("RequestBadges")) {
    GVariant* items = g_variant_get_child_value(arguments, 0);
    const std::vector<const gchar*> identifiers(g_variant_n_children(items), "");
    values = g_variant_new("(@as)", g_variant_new_strv(identifiers.data(), static_cast<gssize>(identifiers.size())));
    g_variant_unref(items);
  } else if (method == std::string_view("GetMenu")) {
    values = g_variant_new("(a(ssbs))", nullptr);
  }
  g_dbus_method_invocation_return_value(call, values);
}

void lost(GDBusConnection*, const gchar* name, gpointer loop) {
  std::fprintf(stderr, "the bus name %s is not ours\n", name);
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  if (!connection) return 1;
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  const GDBusInterfaceVTable calls{&answer, nullptr, nullptr, {}};
  if (!g_dbus_connection_register_object(connection, vornet::dbus::OBJECT_PATH, vornet_finder_sync1_interface_info(),
                                         &calls, nullptr, nullptr, nullptr)) {
    return 1;
  }
  g_bus_own_name_on_connection(connection, argv[1], G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE, nullptr, &lost, loop, nullptr);
  g_main_loop_run(loop);
  return 1;
}
