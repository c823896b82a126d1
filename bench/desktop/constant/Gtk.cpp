// The limit of emblems in Nautilus, Nemo and Caja: every file gets the same one at once. With VORNET_BENCH_SPY in its
// environment it gives none, and writes which files the file manager asks for.
#include "Manager.hpp"

namespace {

using namespace vornet::gtk::manager;

GType providerType = 0;

OperationResult updateFileInfo(InfoProvider*, FileInfo* file, GClosure*, OperationHandle**) {
  static const bool spies = g_getenv("VORNET_BENCH_SPY") != nullptr;
  if (spies) {
    char* const url = VORNET_CALL(file_info_get_uri)(file);
    g_printerr("asked for %s\n", url);
    g_free(url);
  } else {
    VORNET_CALL(file_info_add_emblem)(file, "emblem-vornet-synced");
  }
  return COMPLETE;
}

void initialiseInfoProvider(gpointer interface, gpointer) {
  auto* functions = static_cast<InfoProviderInterface*>(interface);
  functions->update_file_info = updateFileInfo;
  functions->cancel_update = [](InfoProvider*, OperationHandle*) {};
}

}  // namespace

extern "C" {

G_MODULE_EXPORT void VORNET_CALL(module_initialize)(GTypeModule* types) {
  constexpr GTypeInfo description = {sizeof(GObjectClass), nullptr, nullptr, nullptr, nullptr, nullptr,
                                     sizeof(GObject),      0,       nullptr, nullptr};
  constexpr GInterfaceInfo infoProvider = {initialiseInfoProvider, nullptr, nullptr};
  providerType = g_type_module_register_type(types, G_TYPE_OBJECT, "VornetBenchProvider", &description, GTypeFlags{});
  g_type_module_add_interface(types, providerType, VORNET_CONSTANT(TYPE_INFO_PROVIDER), &infoProvider);
}

G_MODULE_EXPORT void VORNET_CALL(module_shutdown)() {}

G_MODULE_EXPORT void VORNET_CALL(module_list_types)(const GType** types, int* count) {
  *types = &providerType;
  *count = 1;
}
}
