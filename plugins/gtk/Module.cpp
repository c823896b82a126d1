#include "Module.hpp"

#include <gmodule.h>

#include <utility>

#include "FolderWatch.hpp"
#include "Manager.hpp"
#include "client/Log.hpp"
#include "dbus/GLibPtr.hpp"

namespace vornet::gtk {
namespace {

Module* currentModule = nullptr;
GType providerType = 0;

}  // namespace

Module* Module::current() {
  return currentModule;
}

void Module::load(GTypeModule* types) {
  unload();
  providerType = registerProvider(types);
  currentModule = new Module();
}

void Module::unload() {
  delete std::exchange(currentModule, nullptr);
}

Module::Module() : folders_(FolderWatch::make()) {
  g_weak_ref_init(&provider_, nullptr);
}

Module::~Module() {
  g_weak_ref_clear(&provider_);
}

client::Plugin& Module::plugin() {
  if (!plugin_) plugin_.emplace(*this);
  return *plugin_;
}

void Module::setProvider(GObject* provider) {
  g_weak_ref_set(&provider_, provider);
}

client::Menu Module::menu(const client::Selection& selection) {
  menuSelection_ = selection;
  return plugin().menu(selection);
}

/// Each window then asks for the menu of its selection.
void Module::menuChanged(const client::Selection& selection) {
  client::guarded([&] {
    if (selection == menuSelection_) refreshOpenMenu(plugin().menu(selection));
    const GObjectPtr<manager::MenuProvider> provider(static_cast<manager::MenuProvider*>(g_weak_ref_get(&provider_)));
    if (provider) VORNET_CALL(menu_provider_emit_items_updated_signal)(provider.get());
  });
}

void Module::badgesCame(const std::string& folder) {
  client::guarded([&] { unanswered_.answer(folder, fill); });
}

}  // namespace vornet::gtk

// The plug-in's entry points.
extern "C" {

G_MODULE_EXPORT void VORNET_CALL(module_initialize)(GTypeModule* types) {
  vornet::client::guarded([types] { vornet::gtk::Module::load(types); });
}

G_MODULE_EXPORT void VORNET_CALL(module_shutdown)() {
  vornet::client::guarded([] { vornet::gtk::Module::unload(); });
}

G_MODULE_EXPORT void VORNET_CALL(module_list_types)(const GType** types, int* count) {
  *types = &vornet::gtk::providerType;
  *count = vornet::gtk::providerType ? 1 : 0;
}
}
