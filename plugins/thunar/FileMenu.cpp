#include "FileMenu.hpp"

#include <algorithm>
#include <utility>

#include "client/Log.hpp"
#include "dbus/GLibPtr.hpp"

namespace vornet::thunar {
namespace {

using Item = GObjectPtr<ThunarxMenuItem>;
using Widgets = std::unique_ptr<GList, decltype(&g_list_free)>;

Item itemOf(GWeakRef& reference) {
  return Item(static_cast<ThunarxMenuItem*>(g_weak_ref_get(&reference)));
}

/// The action of an entry, and the selection that it was shown for.
struct Choice {
  std::weak_ptr<client::Plugin> plugin;
  std::string action;
  std::shared_ptr<const client::Selection> selection;

  static void made(ThunarxMenuItem*, gpointer self) {
    client::guarded([self] {
      const auto& choice = *static_cast<Choice*>(self);
      if (const auto loaded = choice.plugin.lock()) loaded->perform(choice.action, *choice.selection);
    });
  }
  static void dispose(gpointer self, GClosure*) { delete static_cast<Choice*>(self); }
};

/// Calls `visit` for each GtkMenuItem of the menus that are on screen. None without a display.
template <typename Visit>
void forEachMenuItemOnScreen(Visit visit) {
  if (!gdk_display_get_default()) return;
  const Widgets windows(gtk_window_list_toplevels(), g_list_free);
  for (const GList* window = windows.get(); window; window = window->next) {
    GtkWidget* menu = gtk_bin_get_child(GTK_BIN(window->data));
    if (!menu || !GTK_IS_MENU(menu) || !gtk_widget_get_mapped(menu)) continue;
    const Widgets children(gtk_container_get_children(GTK_CONTAINER(menu)), g_list_free);
    for (const GList* child = children.get(); child; child = child->next) visit(GTK_WIDGET(child->data));
  }
}

/// True if choosing `widget` activates `item`.
bool isMadeFor(GtkWidget* widget, ThunarxMenuItem* item) {
  const guint activate = g_signal_lookup("activate", G_OBJECT_TYPE(widget));
  const auto match = GSignalMatchType(G_SIGNAL_MATCH_ID | G_SIGNAL_MATCH_DATA);
  return activate != 0 && g_signal_handler_find(widget, match, activate, 0, nullptr, nullptr, item) != 0;
}

}  // namespace

FileMenu::FileMenu() : plugin_(std::make_shared<client::Plugin>(*this)) {}

FileMenu::~FileMenu() {
  forgetShown();
}

void FileMenu::forgetShown() {
  shown_.clear();
  if (const guint source = std::exchange(binding_, 0)) g_source_remove(source);
}

GList* FileMenu::entriesFor(const client::Selection& selection) {
  selection_ = std::make_shared<client::Selection>(selection);
  forgetShown();
  const auto menu = plugin_->menu(selection);
  if (selection.size() > client::Plugin::LARGEST_SELECTION) return nullptr;  // none would ever apply
  const bool anyEnabled = std::ranges::any_of(menu, &client::MenuEntry::enabled);
  GList* items = nullptr;
  for (const auto& entry : menu)
    if (entry.enabled || !anyEnabled) items = g_list_append(items, itemFor(entry));
  // Thunar makes the widgets as soon as it has the items, within the callback that it handles now. What is due with
  // high priority comes right after that, before the menu is first drawn and before any further input.
  if (items) {
    const auto bind = +[](gpointer self) -> gboolean {
      client::guarded([self] { static_cast<FileMenu*>(self)->bindWidgets(); });
      return G_SOURCE_REMOVE;
    };
    binding_ = g_idle_add_full(G_PRIORITY_HIGH, bind, this, nullptr);
  }
  return items;
}

ThunarxMenuItem* FileMenu::itemFor(const client::MenuEntry& entry) {
  ThunarxMenuItem* item = thunarx_menu_item_new(("VornetVI::" + entry.action).c_str(), entry.title.c_str(),
                                                entry.tip.empty() ? nullptr : entry.tip.c_str(),
                                                entry.icon.empty() ? nullptr : entry.icon.c_str());
  thunarx_menu_item_set_sensitive(item, entry.enabled);
  g_signal_connect_data(item, "activate", G_CALLBACK(Choice::made), new Choice{plugin_, entry.action, selection_},
                        Choice::dispose, GConnectFlags(0));
  shown_.emplace_back(item, entry.action);
  return item;
}

/// Binds what Thunar draws for an entry to whether the entry is enabled, which Thunar does not do.
void FileMenu::bindWidgets() {
  binding_ = 0;
  for (auto& shown : shown_) {
    const auto item = itemOf(shown.item);
    if (!item) continue;
    forEachMenuItemOnScreen([&item](GtkWidget* widget) {
      if (!isMadeFor(widget, item.get())) return;
      g_object_bind_property(item.get(), "sensitive", widget, "sensitive", G_BINDING_SYNC_CREATE);
    });
  }
}

void FileMenu::menuChanged(const client::Selection& selection) {
  client::guarded([&] {
    const auto isOpen = [](Shown& shown) { return itemOf(shown.item) != nullptr; };
    if (selection != *selection_ || std::ranges::none_of(shown_, isOpen)) return;
    const auto menu = plugin_->menu(selection);
    for (auto& shown : shown_) {
      const bool isEnabled = std::ranges::any_of(
          menu, [&shown](const auto& entry) { return entry.enabled && entry.action == shown.action; });
      // Of the ways to set it, this is the one that notifies.
      if (const auto item = itemOf(shown.item))
        g_object_set(item.get(), "sensitive", static_cast<gboolean>(isEnabled), nullptr);
    }
  });
}

}  // namespace vornet::thunar
