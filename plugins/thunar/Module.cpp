// Thunar calls this when it loads the plug-in, opens a menu, and unloads the plug-in.
#include <utility>

#include "FileMenu.hpp"
#include "SelectionWatch.hpp"
#include "Thunarx.hpp"
#include "client/Log.hpp"

namespace vornet::thunar {
namespace {

/// The plug-in from its loading by Thunar to its unloading.
class Session {
 public:
  GList* entriesFor(const GList* files) {
    watch_.forget();
    return menu_.entriesFor(selectionOf(files));
  }

 private:
  FileMenu menu_;
  SelectionWatch watch_{{.viewShown = [this] { menu_.plugin().ensureStarted(); },
                         .selected = [this](const client::Selection& selection) { menu_.plugin().menu(selection); }}};
};

Session* session = nullptr;  // not destroyed by the process's end, when other libraries may be gone already
GType types[1] = {};

struct Provider {
  GObject parent;
};

struct ProviderClass {
  GObjectClass parent;
};

GList* fileMenuItems(ThunarxMenuProvider*, GtkWidget*, GList* files) {
  return client::guarded<GList*>(nullptr, [files] { return session ? session->entriesFor(files) : nullptr; });
}

/// Without an operation for a folder's background, which has no entries.
void implementMenuProvider(gpointer interface, gpointer) {
  static_cast<ThunarxMenuProviderIface*>(interface)->get_file_menu_items = fileMenuItems;
}

/// Registers the type of the object that Thunar makes, and asks for menu entries.
GType registerProvider(ThunarxProviderPlugin* plugin) {
  static const GTypeInfo TYPE = {sizeof(ProviderClass), nullptr, nullptr, nullptr, nullptr, nullptr,
                                 sizeof(Provider),      0,       nullptr, nullptr};
  static const GInterfaceInfo MENU_PROVIDER = {implementMenuProvider, nullptr, nullptr};
  const GType type =
      thunarx_provider_plugin_register_type(plugin, G_TYPE_OBJECT, "VornetThunarProvider", &TYPE, GTypeFlags(0));
  thunarx_provider_plugin_add_interface(plugin, type, THUNARX_TYPE_MENU_PROVIDER, &MENU_PROVIDER);
  return type;
}

}  // namespace
}  // namespace vornet::thunar

extern "C" {

G_MODULE_EXPORT void thunar_extension_initialize(ThunarxProviderPlugin* plugin) {
  vornet::client::guarded([plugin] {
    // The code stays: GLib may still hold callbacks into it.
    thunarx_provider_plugin_set_resident(plugin, TRUE);
    vornet::thunar::types[0] = vornet::thunar::registerProvider(plugin);
    if (!vornet::thunar::session) vornet::thunar::session = new vornet::thunar::Session();
  });
}

G_MODULE_EXPORT void thunar_extension_shutdown() {
  vornet::client::guarded([] { delete std::exchange(vornet::thunar::session, nullptr); });
}

G_MODULE_EXPORT void thunar_extension_list_types(const GType** types, gint* count) {
  *types = vornet::thunar::types;
  *count = 1;
}

}  // extern "C"
