#include "Provider.hpp"

#include "client/Guarded.hpp"

namespace vornet::thunar {
namespace {

EntriesFor& entries() {
  static auto* const function = new EntriesFor();  // outlives what other libraries do while the process ends
  return *function;
}

struct Provider {
  GObject parent;
};

struct ProviderClass {
  GObjectClass parent;
};

GList* fileMenuItems(ThunarxMenuProvider*, GtkWidget*, GList* files) {
  return client::guarded<GList*>(nullptr, [files] { return entries() ? entries()(files) : nullptr; });
}

/// Without an operation for a folder's background, which has no entries.
void implementMenuProvider(gpointer interface, gpointer) {
  static_cast<ThunarxMenuProviderIface*>(interface)->get_file_menu_items = fileMenuItems;
}

}  // namespace

GType registerProvider(ThunarxProviderPlugin* plugin) {
  static const GTypeInfo TYPE = {sizeof(ProviderClass), nullptr, nullptr, nullptr, nullptr, nullptr,
                                 sizeof(Provider),      0,       nullptr, nullptr};
  static const GInterfaceInfo MENU_PROVIDER = {implementMenuProvider, nullptr, nullptr};
  const GType type =
      thunarx_provider_plugin_register_type(plugin, G_TYPE_OBJECT, "VornetThunarProvider", &TYPE, GTypeFlags(0));
  thunarx_provider_plugin_add_interface(plugin, type, THUNARX_TYPE_MENU_PROVIDER, &MENU_PROVIDER);
  return type;
}

void setEntries(EntriesFor function) {
  entries() = std::move(function);
}

}  // namespace vornet::thunar
