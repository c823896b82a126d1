// An extension of its own process that answers and sends more than is sensible: FloodingExtension BUS-ADDRESS ROOT-URL.
// It does what the "action" of PerformAction says, a word and numbers, and refuses the call when all is sent:
//   changes MESSAGES ITEMS   BadgesChanged, each naming ITEMS times one of a hundred items of the root, "0" to "99",
//                            which get other badges with each message and are PENDING in the end
//   strangers MESSAGES ITEMS the same with items that nobody shows
//   folders MESSAGES ITEMS   PropertiesChanged with so many roots, the right one first
//   wrong MESSAGES ITEMS     BadgesChanged of another type
//   menu ITEMS               GetMenu answers so many entries from now on
#include <gio/gio.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "FinderSync1.h"

namespace {

constexpr const char* NAME = "com.vornet.KelvaneSync.FinderBadgeExtension";
constexpr const char* OBJECT = "/com/vornet/FinderSync1";
constexpr const char* INTERFACE = "com.vornet.FinderSync1";

struct Flood {
  GDBusConnection* connection = nullptr;
  std::string root;
  std::string badge = "SYNCED";
  unsigned entries = 1;

  void emit(const std::string& client, const char* interface, const char* signal, GVariant* values) const {
    g_dbus_connection_emit_signal(connection, client.c_str(), OBJECT, interface, signal, values, nullptr);
    g_dbus_connection_flush_sync(connection, nullptr, nullptr);
  }

  GVariant* changes(unsigned items, const char* badges[2], const char* folder) const {
    std::vector<std::string> urls;
    for (int i = 0; i < 100; ++i) urls.push_back(root + folder + "/" + std::to_string(i));
    GVariantBuilder list;
    g_variant_builder_init(&list, G_VARIANT_TYPE("a(ss)"));
    // Two rounds with one badge, two with the other: each item changes again and again.
    for (unsigned i = 0; i < items; ++i)
      g_variant_builder_add(&list, "(ss)", urls[i % 100].c_str(), badges[i / 200 % 2]);
    return g_variant_new("(a(ss))", &list);
  }

  void run(const std::string& client, const std::string& order) {
    std::istringstream words(order);
    std::string word;
    unsigned messages = 0;
    unsigned items = 0;
    words >> word >> messages >> items;
    if (word == "menu") entries = messages;
    const char* different[] = {"SKIPPED", "SYNCED"};
    const char* last[] = {"PENDING", "PENDING"};
    for (unsigned i = 1; i <= messages && word != "menu"; ++i) {
      if (word == "changes") {
        badge = "PENDING";
        emit(client, INTERFACE, "BadgesChanged", changes(items, i < messages ? different : last, ""));
      } else if (word == "strangers") {
        emit(client, INTERFACE, "BadgesChanged", changes(items, different, "/elsewhere"));
      } else if (word == "wrong") {
        GVariantBuilder list;
        g_variant_builder_init(&list, G_VARIANT_TYPE("aas"));
        const char* const texts[] = {"a", "b", nullptr};
        for (unsigned item = 0; item < items; ++item) g_variant_builder_add(&list, "^as", texts);
        emit(client, INTERFACE, "BadgesChanged", g_variant_new("(aas)", &list));
      } else if (word == "folders") {
        GVariantBuilder changed;
        GVariantBuilder roots;
        g_variant_builder_init(&roots, G_VARIANT_TYPE_STRING_ARRAY);
        g_variant_builder_add(&roots, "s", root.c_str());
        for (unsigned item = 1; item < items; ++item) g_variant_builder_add(&roots, "s", "file:///nowhere/at/all");
        g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
        g_variant_builder_add(&changed, "{sv}", "ObservedFolders", g_variant_builder_end(&roots));
        emit(client, "org.freedesktop.DBus.Properties", "PropertiesChanged",
             g_variant_new("(sa{sv}as)", INTERFACE, &changed, nullptr));
      }
    }
  }
};

void take(GDBusConnection*, const gchar* sender, const gchar*, const gchar*, const gchar* name, GVariant* arguments,
          GDBusMethodInvocation* invocation, gpointer self) {
  auto& flood = *static_cast<Flood*>(self);
  const std::string method = name;
  GVariant* values = nullptr;
  if (method == "RequestBadges") {
    GVariant* items = g_variant_get_child_value(arguments, 0);
    const gsize count = g_variant_n_children(items);
    g_variant_unref(items);
    GVariantBuilder identifiers;
    g_variant_builder_init(&identifiers, G_VARIANT_TYPE_STRING_ARRAY);
    for (gsize i = 0; i < count; ++i) g_variant_builder_add(&identifiers, "s", flood.badge.c_str());
    values = g_variant_new("(as)", &identifiers);
  } else if (method == "GetMenu") {
    GVariantBuilder entries;
    g_variant_builder_init(&entries, G_VARIANT_TYPE("a(ssbs)"));
    for (unsigned i = 0; i < flood.entries; ++i)
      g_variant_builder_add(&entries, "(ssbs)", std::to_string(i).c_str(), "share:", TRUE, "QMT");
    values = g_variant_new("(a(ssbs))", &entries);
  } else if (method == "PerformAction") {
    const gchar* order = nullptr;
    g_variant_get_child(arguments, 0, "&s", &order);
    flood.run(sender, order);
    g_dbus_method_invocation_return_dbus_error(invocation, "com.vornet.FinderSync1.Error.Failed", "all is sent");
    return;
  }
  g_dbus_method_invocation_return_value(invocation, values);
}

GVariant* property(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GError**, gpointer self) {
  const gchar* const roots[] = {static_cast<Flood*>(self)->root.c_str()};
  return g_variant_new_strv(roots, 1);
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 3) return 2;
  Flood flood;
  flood.root = arguments[2];
  flood.connection = g_dbus_connection_new_for_address_sync(
      arguments[1],
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr);
  if (!flood.connection) return 1;
  static const GDBusInterfaceVTable table = {&take, &property, nullptr, {}};
  g_dbus_connection_register_object(flood.connection, OBJECT, vornet_finder_sync1_interface_info(), &table, &flood,
                                    nullptr, nullptr);
  g_bus_own_name_on_connection(flood.connection, NAME, G_BUS_NAME_OWNER_FLAGS_NONE, nullptr, nullptr, nullptr, nullptr);
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
  return 0;
}
