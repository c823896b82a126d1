#include "Provider.hpp"

#include <tuple>

#include "FileInfo.hpp"
#include "FolderWatch.hpp"
#include "Manager.hpp"
#include "MenuItems.hpp"
#include "Module.hpp"
#include "client/Guarded.hpp"

namespace vornet::gtk {
namespace {

using namespace manager;

/// Always complete: a file that is left unfinished holds back all others of its folder.
OperationResult updateFileInfo(InfoProvider*, FileInfo* file, GClosure*, OperationHandle**) {
  return client::guarded(COMPLETE, [file] {
    Module* module = Module::current();
    const auto path = pathOf(file);
    if (!module || !path) return COMPLETE;
    const auto emblem = module->items().emblem(*path, file);
    if (!emblem.empty()) VORNET_CALL(file_info_add_emblem)(file, emblem.c_str());
    return COMPLETE;
  });
}

void cancelUpdate(InfoProvider*, OperationHandle*) {}

GList* fileItems(const GList* files) {
  return client::guarded<GList*>(nullptr, [files]() -> GList* {
    Module* module = Module::current();
    return module ? menuItems(module->menus(), files) : nullptr;
  });
}

void initialiseInfoProvider(gpointer interface, gpointer) {
  auto* functions = static_cast<InfoProviderInterface*>(interface);
  functions->update_file_info = updateFileInfo;
  functions->cancel_update = cancelUpdate;
}

void initialiseMenuProvider(gpointer interface, gpointer) {
  // The files come last; before them, some file managers hand over the window.
  static_cast<MenuProviderInterface*>(interface)->get_file_items = [](MenuProvider*, auto... arguments) -> GList* {
    return fileItems(std::get<sizeof...(arguments) - 1>(std::tuple(arguments...)));
  };
}

#if defined(VORNET_FOR_NEMO)
/// How the plug-in is listed among the file manager's plug-ins.
GList* nameAndDescription(NemoNameAndDescProvider*) {
  return g_list_append(nullptr, g_strdup("Vornet VI:::Sync badges and actions"));
}

void initialiseNameProvider(gpointer interface, gpointer) {
  static_cast<NemoNameAndDescProviderInterface*>(interface)->get_name_and_desc = nameAndDescription;
}
#endif

void initialise(GTypeInstance* provider, gpointer) {
  if (Module* module = Module::current()) module->setProvider(G_OBJECT(provider));
}

}  // namespace

GType registerProvider(GTypeModule* types) {
  constexpr GTypeInfo description = {sizeof(GObjectClass), nullptr, nullptr,    nullptr, nullptr, nullptr,
                                     sizeof(GObject),      0,       initialise, nullptr};
  constexpr GInterfaceInfo infoProvider = {initialiseInfoProvider, nullptr, nullptr};
  constexpr GInterfaceInfo menuProvider = {initialiseMenuProvider, nullptr, nullptr};
  const GType type = g_type_module_register_type(types, G_TYPE_OBJECT, "VornetProvider", &description, GTypeFlags{});
  if (!type) return 0;
  g_type_module_add_interface(types, type, VORNET_CONSTANT(TYPE_INFO_PROVIDER), &infoProvider);
  g_type_module_add_interface(types, type, VORNET_CONSTANT(TYPE_MENU_PROVIDER), &menuProvider);
#if defined(VORNET_FOR_NEMO)
  constexpr GInterfaceInfo nameProvider = {initialiseNameProvider, nullptr, nullptr};
  g_type_module_add_interface(types, type, NEMO_TYPE_NAME_AND_DESC_PROVIDER, &nameProvider);
#endif
  FolderWatch::addInterfaces(types, type);
  return type;
}

}  // namespace vornet::gtk
