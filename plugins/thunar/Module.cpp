// What Thunar calls when it loads the plug-in, and when it lets go of it.
#include <memory>
#include <utility>

#include "FileMenu.hpp"
#include "Provider.hpp"
#include "SelectionWatch.hpp"
#include "Selections.hpp"
#include "client/Guarded.hpp"

namespace vornet::thunar {
namespace {

class Session {
 public:
  Session() {
    setEntries([this](const GList* files) {
      watch_.forget();
      return menu_.entriesFor(selectionOf(files));
    });
  }
  ~Session() { setEntries(nullptr); }

 private:
  FileMenu menu_;
  SelectionWatch watch_{{.viewShown = [this] { menu_.prepare(); },
                         .selected = [this](const client::Selection& selection) { menu_.selected(selection); }}};
};

Session* session = nullptr;  // not destroyed by the process's end, when other libraries may be gone already
GType types[1] = {};

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
