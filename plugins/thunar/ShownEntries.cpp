#include "ShownEntries.hpp"

#include <algorithm>
#include <memory>
#include <vector>

#include "MenuWidgets.hpp"
#include "client/Guarded.hpp"

namespace vornet::thunar {
namespace {

using Item = std::unique_ptr<ThunarxMenuItem, decltype(&g_object_unref)>;

Item itemOf(GWeakRef& reference) {
  return {static_cast<ThunarxMenuItem*>(g_weak_ref_get(&reference)), g_object_unref};
}

}  // namespace

ShownEntries::~ShownEntries() {
  clear();
}

void ShownEntries::add(ThunarxMenuItem* item, const std::string& action) {
  entries_.emplace_back(item, action);
  // Thunar makes the widgets as soon as it has the items, within the callback that it handles now. What is due with
  // high priority comes right after that, before the menu is first drawn and before any further input.
  if (binding_ == 0) binding_ = g_idle_add_full(G_PRIORITY_HIGH, bind, this, nullptr);
}

void ShownEntries::clear() {
  entries_.clear();
  if (binding_ != 0) g_source_remove(binding_);
  binding_ = 0;
}

bool ShownEntries::any() const {
  return std::any_of(entries_.begin(), entries_.end(),
                     [](const Entry& entry) { return itemOf(entry.item) != nullptr; });
}

void ShownEntries::setEnabled(const std::function<bool(const std::string& action)>& isEnabled) {
  for (const auto& entry : entries_) {
    const auto item = itemOf(entry.item);
    // Of the ways to set it, this is the one that tells of it.
    if (item) g_object_set(item.get(), "sensitive", static_cast<gboolean>(isEnabled(entry.action)), nullptr);
  }
}

gboolean ShownEntries::bind(gpointer self) {
  client::guarded([self] {
    auto& shown = *static_cast<ShownEntries*>(self);
    shown.binding_ = 0;
    std::vector<Item> items;
    for (const auto& entry : shown.entries_) {
      if (auto item = itemOf(entry.item)) items.push_back(std::move(item));
    }
    if (items.empty()) return;
    forEachMenuItemOnScreen([&items](GtkWidget* widget) {
      for (const auto& item : items) {
        if (!isMadeFor(widget, item.get())) continue;
        g_object_bind_property(item.get(), "sensitive", widget, "sensitive", G_BINDING_SYNC_CREATE);
      }
    });
  });
  return G_SOURCE_REMOVE;
}

}  // namespace vornet::thunar
