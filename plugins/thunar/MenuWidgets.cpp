#include "MenuWidgets.hpp"

#include <memory>

namespace vornet::thunar {
namespace {

using Widgets = std::unique_ptr<GList, decltype(&g_list_free)>;

}  // namespace

void forEachMenuItemOnScreen(const std::function<void(GtkWidget*)>& visit) {
  if (!gdk_display_get_default()) return;
  const Widgets windows(gtk_window_list_toplevels(), g_list_free);
  for (const GList* window = windows.get(); window; window = window->next) {
    GtkWidget* menu = gtk_bin_get_child(GTK_BIN(window->data));
    if (!menu || !GTK_IS_MENU(menu) || !gtk_widget_get_mapped(menu)) continue;
    const Widgets children(gtk_container_get_children(GTK_CONTAINER(menu)), g_list_free);
    for (const GList* child = children.get(); child; child = child->next) visit(GTK_WIDGET(child->data));
  }
}

bool isMadeFor(GtkWidget* widget, ThunarxMenuItem* item) {
  const guint activate = g_signal_lookup("activate", G_OBJECT_TYPE(widget));
  const auto match = GSignalMatchType(G_SIGNAL_MATCH_ID | G_SIGNAL_MATCH_DATA);
  return activate != 0 && g_signal_handler_find(widget, match, activate, 0, nullptr, nullptr, item) != 0;
}

}  // namespace vornet::thunar
