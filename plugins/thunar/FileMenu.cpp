#include "FileMenu.hpp"

#include <algorithm>

#include "client/Guarded.hpp"

namespace vornet::thunar {
namespace {

/// What choosing an entry does.
struct Choice {
  std::weak_ptr<client::Plugin> plugin;
  std::string action;
  std::shared_ptr<const client::Selection> selection;

  static void made(ThunarxMenuItem*, gpointer self) {
    client::guarded([self] {
      const auto& choice = *static_cast<Choice*>(self);
      if (const auto plugin = choice.plugin.lock()) plugin->perform(choice.action, *choice.selection);
    });
  }
  static void dispose(gpointer self, GClosure*) { delete static_cast<Choice*>(self); }
};

bool isEnabled(const client::MenuEntry& entry) {
  return entry.enabled;
}

}  // namespace

FileMenu::FileMenu() : plugin_(std::make_shared<client::Plugin>(*this)) {}

void FileMenu::prepare() {
  // Any selection has the extension started and asked for the synced folder; this one is never asked about.
  if (selection_->empty()) plugin_->menu({"/"});
}

void FileMenu::selected(const client::Selection& selection) {
  if (selection != *selection_) {
    selection_ = std::make_shared<client::Selection>(selection);
    shown_.clear();
  }
  plugin_->menu(selection);
}

GList* FileMenu::entriesFor(const client::Selection& selection) {
  selection_ = std::make_shared<client::Selection>(selection);
  shown_.clear();
  const auto menu = plugin_->menu(selection);
  if (selection.size() > client::Plugin::LARGEST_SELECTION) return nullptr;  // none would ever apply
  const bool anyEnabled = std::any_of(menu.begin(), menu.end(), isEnabled);
  GList* items = nullptr;
  for (const auto& entry : menu) {
    if (entry.enabled || !anyEnabled) items = g_list_append(items, itemFor(entry));
  }
  return items;
}

ThunarxMenuItem* FileMenu::itemFor(const client::MenuEntry& entry) {
  ThunarxMenuItem* item = thunarx_menu_item_new(("VornetVI::" + entry.action).c_str(), entry.title.c_str(), nullptr,
                                                entry.icon.empty() ? nullptr : entry.icon.c_str());
  thunarx_menu_item_set_sensitive(item, entry.enabled);
  g_signal_connect_data(item, "activate", G_CALLBACK(Choice::made), new Choice{plugin_, entry.action, selection_},
                        Choice::dispose, GConnectFlags(0));
  shown_.add(item, entry.action);
  return item;
}

void FileMenu::menuChanged() {
  client::guarded([this] {
    if (!shown_.any()) return;
    const auto menu = plugin_->menu(*selection_);
    shown_.setEnabled([&menu](const std::string& action) {
      return std::any_of(menu.begin(), menu.end(),
                         [&action](const auto& entry) { return entry.enabled && entry.action == action; });
    });
  });
}

}  // namespace vornet::thunar
