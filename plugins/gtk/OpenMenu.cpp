// Nemo asks for entries when it opens a menu, not when something is selected, and never again for a menu that is open.
// The answer comes when the menu is open already, so it is applied there: its items and their actions are GTK's.
#include <gtk/gtk.h>

#include <string>

#include "Module.hpp"
#include "dbus/GLibPtr.hpp"

namespace vornet::gtk {
namespace {

void refreshItem(GtkWidget* item, const client::Menu& menu) {
  if (!gtk_widget_get_mapped(item) || !g_object_class_find_property(G_OBJECT_GET_CLASS(item), "related-action")) return;
  GObject* found = nullptr;
  g_object_get(item, "related-action", &found, nullptr);
  const GObjectPtr<GObject> action(found);
  if (!action) return;
  gchar* text = nullptr;
  g_object_get(action.get(), "name", &text, nullptr);
  const GCharPtr name(text);
  for (const auto& entry : menu)
    if (name && name.get() == ENTRY_NAME + entry.action)
      g_object_set(action.get(), "sensitive", static_cast<gboolean>(entry.enabled), "tooltip",
                   entry.tip.empty() ? entry.title.c_str() : entry.tip.c_str(), nullptr);
}

void refresh(GtkWidget* widget, gpointer data) {
  if (GTK_IS_MENU_ITEM(widget)) refreshItem(widget, *static_cast<const client::Menu*>(data));
  if (GTK_IS_CONTAINER(widget)) gtk_container_forall(GTK_CONTAINER(widget), refresh, data);
}

}  // namespace

void refreshOpenMenu(const client::Menu& menu) {
  const GListPtr windows(gtk_window_list_toplevels());
  for (const GList* window = windows.get(); window; window = window->next) {
    auto* content = gtk_bin_get_child(GTK_BIN(window->data));
    if (GTK_IS_MENU(content)) refresh(content, const_cast<client::Menu*>(&menu));
  }
}

}  // namespace vornet::gtk
