// A service that does nothing, for comparison: it owns a name and answers each call of Echo with as many texts as the
// call has. Usage: vornet_bench_service NAME (on the bus of DBUS_SESSION_BUS_ADDRESS).
#include <gio/gio.h>

namespace {

void echo(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* arguments,
          GDBusMethodInvocation* invocation, gpointer) {
  GVariant* items = g_variant_get_child_value(arguments, 0);
  GVariantBuilder answer;
  g_variant_builder_init(&answer, G_VARIANT_TYPE("as"));
  for (gsize i = 0; i < g_variant_n_children(items); ++i) g_variant_builder_add(&answer, "s", "SYNCED");
  g_variant_unref(items);
  g_dbus_method_invocation_return_value(invocation, g_variant_new("(as)", &answer));
}

}  // namespace

int main(int argc, char** argv) {
  GDBusConnection* connection = argc == 2 ? g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr) : nullptr;
  if (!connection) return 1;
  GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(
      "<node><interface name='com.vornet.Bench'><method name='Echo'><arg type='as' direction='in'/>"
      "<arg type='as' direction='out'/></method></interface></node>",
      nullptr);
  const GDBusInterfaceVTable calls = {&echo, nullptr, nullptr, {}};
  g_dbus_connection_register_object(connection, "/com/vornet/Bench", node->interfaces[0], &calls, nullptr, nullptr,
                                    nullptr);
  g_bus_own_name_on_connection(connection, argv[1], G_BUS_NAME_OWNER_FLAGS_NONE, nullptr, nullptr, nullptr, nullptr);
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));  // until the bus goes away
}
