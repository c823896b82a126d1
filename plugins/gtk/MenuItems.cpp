#include "MenuItems.hpp"

#include <memory>
#include <string>

#include "FileInfo.hpp"
#include "Manager.hpp"
#include "Menus.hpp"
#include "Module.hpp"
#include "OpenMenu.hpp"
#include "client/Guarded.hpp"

namespace vornet::gtk {
namespace {

/// What an item does when it is chosen. All items of a menu share the selection.
struct Choice {
  std::string action;
  std::shared_ptr<const client::Selection> selection;
};

void perform(manager::MenuItem*, gpointer data) {
  client::guarded([data] {
    const auto* choice = static_cast<const Choice*>(data);
    if (Module* module = Module::current()) module->plugin().perform(choice->action, *choice->selection);
  });
}

void drop(gpointer data, GClosure*) {
  delete static_cast<Choice*>(data);
}

/// Empty when one of the files is no local one. Reads no more files than are worth it.
client::Selection read(const GList* files) {
  client::Selection selection;
  for (; files && selection.size() <= client::Plugin::LARGEST_SELECTION; files = files->next) {
    auto path = pathOf(static_cast<manager::FileInfo*>(files->data));
    if (!path) return {};
    selection.push_back(std::move(*path));
  }
  return selection;
}

manager::MenuItem* makeItem(const client::MenuEntry& entry, std::shared_ptr<const client::Selection> selection) {
  auto choice = std::make_unique<Choice>(Choice{entry.action, std::move(selection)});
  const std::string name = ENTRY_NAME + entry.action;
  auto* item = VORNET_CALL(menu_item_new)(name.c_str(), entry.title.c_str(), entry.title.c_str(),
                                          entry.icon.empty() ? nullptr : entry.icon.c_str());
  g_object_set(item, "sensitive", static_cast<gboolean>(entry.enabled), nullptr);
  g_signal_connect_data(item, "activate", G_CALLBACK(perform), choice.release(), drop, GConnectFlags{});
  return item;
}

}  // namespace

GList* menuItems(Menus& menus, const GList* files) {
  const auto selection = std::make_shared<const client::Selection>(read(files));
  GList* items = nullptr;
  // Asked for nothing as well: the selection before is none any more.
  for (const auto& entry : menus.menu(*selection)) items = g_list_prepend(items, makeItem(entry, selection));
  return g_list_reverse(items);
}

}  // namespace vornet::gtk
