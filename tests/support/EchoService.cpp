// The extension's interface with nothing behind it: each call is answered at once, badges with empty identifiers, menus
// with no entries. A flood costs here only what the bus and GDBus cost.
// Usage: vornet-echo NAME (on the bus of DBUS_SESSION_BUS_ADDRESS, until the bus goes away).
#include <FinderSync1.h>

#include <cstdio>
#include <vector>

namespace {

using Object = VornetFinderSync1;
using Call = GDBusMethodInvocation;

gboolean folder(Object*, Call* call, const gchar*, gpointer) {
  g_dbus_method_invocation_return_value(call, nullptr);
  return TRUE;
}

gboolean badges(Object* object, Call* call, const gchar* const* items, gpointer) {
  std::vector<const gchar*> identifiers;
  for (; *items; ++items) identifiers.push_back("");
  identifiers.push_back(nullptr);
  vornet_finder_sync1_complete_request_badges(object, call, identifiers.data());
  return TRUE;
}

gboolean menu(Object* object, Call* call, const gchar* const*, gpointer) {
  vornet_finder_sync1_complete_get_menu(object, call, g_variant_new("a(ssbs)", nullptr));
  return TRUE;
}

gboolean action(Object* object, Call* call, const gchar*, const gchar* const*, gpointer) {
  vornet_finder_sync1_complete_perform_action(object, call);
  return TRUE;
}

void lost(GDBusConnection*, const gchar* name, gpointer loop) {
  std::fprintf(stderr, "the bus name %s is not ours\n", name);
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: vornet-echo NAME\n", stderr);
    return 2;
  }
  GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
  if (!connection) return 1;
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  VornetFinderSync1* object = vornet_finder_sync1_skeleton_new();
  g_signal_connect(object, "handle-begin-observing", G_CALLBACK(&folder), nullptr);
  g_signal_connect(object, "handle-end-observing", G_CALLBACK(&folder), nullptr);
  g_signal_connect(object, "handle-request-badges", G_CALLBACK(&badges), nullptr);
  g_signal_connect(object, "handle-get-menu", G_CALLBACK(&menu), nullptr);
  g_signal_connect(object, "handle-perform-action", G_CALLBACK(&action), nullptr);
  if (!g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(object), connection, "/com/vornet/FinderSync1",
                                        nullptr)) {
    return 1;
  }
  g_bus_own_name_on_connection(connection, argv[1], G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE, nullptr, &lost, loop, nullptr);
  g_main_loop_run(loop);
  return 1;
}
