#include "support/gtk/TestHost.hpp"

#include <dlfcn.h>

#include <stdexcept>
#include <utility>

namespace vornet::test {
namespace {

using namespace gtk::manager;

#define VORNET_TEXT(text) #text
#define VORNET_ENTRY_POINT(name) VORNET_TEXT(name)

/// The plug-in's library as GObject sees it, the way file managers load one.
struct PluginModule {
  GTypeModule parent;
  void* library;
};

template <typename Function>
Function* entryPoint(PluginModule* module, const char* name) {
  auto* function = reinterpret_cast<Function*>(::dlsym(module->library, name));
  if (!function) throw std::runtime_error(std::string("the plug-in has no ") + name);
  return function;
}

GType moduleType() {
  static const GType registered = [] {
    const auto initialiseClass = [](gpointer type, gpointer) {
      auto* functions = static_cast<GTypeModuleClass*>(type);
      functions->load = [](GTypeModule* module) -> gboolean {
        auto* self = reinterpret_cast<PluginModule*>(module);
        self->library = ::dlopen(VORNET_PLUGIN_FILE, RTLD_NOW | RTLD_LOCAL);
        if (!self->library) throw std::runtime_error(::dlerror());
        entryPoint<void(GTypeModule*)>(self, VORNET_ENTRY_POINT(VORNET_CALL(module_initialize)))(module);
        return TRUE;
      };
      functions->unload = [](GTypeModule*) {};  // never comes: GObject keeps classes that were used
    };
    const GTypeInfo description = {sizeof(GTypeModuleClass), nullptr, nullptr, initialiseClass, nullptr, nullptr,
                                   sizeof(PluginModule),     0,       nullptr, nullptr};
    return g_type_register_static(G_TYPE_TYPE_MODULE, "VornetTestModule", &description, GTypeFlags{});
  }();
  return registered;
}

std::string textOf(GObject* object, const char* property) {
  gchar* text = nullptr;
  g_object_get(object, property, &text, nullptr);
  const std::string result = text ? text : "";
  g_free(text);
  return result;
}

std::vector<TestHost::Entry> takeEntries(GList* items) {
  std::vector<TestHost::Entry> entries;
  for (const GList* at = items; at; at = at->next) {
    auto* object = static_cast<GObject*>(at->data);
    gboolean sensitive = FALSE;
    g_object_get(object, "sensitive", &sensitive, nullptr);
    entries.push_back({textOf(object, "name"), textOf(object, "label"), sensitive != FALSE, textOf(object, "icon"),
                       textOf(object, "tip"),
                       std::shared_ptr<MenuItem>(static_cast<MenuItem*>(at->data), g_object_unref)});
  }
  g_list_free(items);
  return entries;
}

}  // namespace

TestHost::TestHost() : module_(static_cast<GTypeModule*>(g_object_new(moduleType(), nullptr))) {
  g_type_module_use(module_);
  const GType* types = nullptr;
  int count = 0;
  entryPoint<void(const GType**, int*)>(reinterpret_cast<PluginModule*>(module_),
                                        VORNET_ENTRY_POINT(VORNET_CALL(module_list_types)))(&types, &count);
  if (count != 1) throw std::runtime_error("the plug-in has not one type");
  provider_ = static_cast<GObject*>(g_object_new(types[0], nullptr));
  infoProvider_ = reinterpret_cast<InfoProvider*>(provider_);
  const auto updated = +[](GObject*, gpointer times) { ++*static_cast<int*>(times); };
  g_signal_connect(provider_, "items-updated", G_CALLBACK(updated), &itemsUpdated_);
}

TestHost::~TestHost() {
  unload();
}

void TestHost::unload() {
  if (!provider_) return;
  infoProvider_ = nullptr;
  g_clear_object(&provider_);
  entryPoint<void()>(reinterpret_cast<PluginModule*>(module_), VORNET_ENTRY_POINT(VORNET_CALL(module_shutdown)))();
}

std::unique_ptr<FakeFile> TestHost::file(const std::string& pathOrURL) {
  std::string url = pathOrURL;
  if (pathOrURL.starts_with("/")) {
    gchar* made = g_filename_to_uri(pathOrURL.c_str(), nullptr, nullptr);
    url = made;
    g_free(made);
  }
  return std::make_unique<FakeFile>(url, infoProvider_);
}

std::unique_ptr<FakeFile> TestHost::watchedFile(const std::string& pathOrURL) {
  auto made = file(pathOrURL);
  made->watch();
  return made;
}

std::vector<TestHost::Column> TestHost::columns() const {
  if (!g_type_is_a(G_OBJECT_TYPE(provider_), VORNET_CONSTANT(TYPE_COLUMN_PROVIDER))) return {};
  GList* made = VORNET_CALL(column_provider_get_columns)(reinterpret_cast<ColumnProvider*>(provider_));
  std::vector<Column> columns;
  for (const GList* at = made; at; at = at->next) {
    auto* object = static_cast<GObject*>(at->data);
    columns.push_back(
        {textOf(object, "name"), textOf(object, "attribute"), textOf(object, "label"), textOf(object, "description")});
  }
  g_list_free_full(made, g_object_unref);
  return columns;
}

std::vector<TestHost::Entry> TestHost::menu(const std::vector<FakeFile*>& files) {
  GList* list = nullptr;
  for (auto file = files.rbegin(); file != files.rend(); ++file) list = g_list_prepend(list, (*file)->info());
#if defined(VORNET_FOR_NAUTILUS)
  GList* items = VORNET_CALL(menu_provider_get_file_items)(reinterpret_cast<MenuProvider*>(provider_), list);
#else
  GList* items = VORNET_CALL(menu_provider_get_file_items)(reinterpret_cast<MenuProvider*>(provider_), nullptr, list);
#endif
  g_list_free(list);
  return takeEntries(items);
}

std::vector<TestHost::Entry> TestHost::backgroundMenu(FakeFile& folder) {
  auto* provider = reinterpret_cast<MenuProvider*>(provider_);
#if defined(VORNET_FOR_NAUTILUS)
  return takeEntries(VORNET_CALL(menu_provider_get_background_items)(provider, folder.info()));
#else
  return takeEntries(VORNET_CALL(menu_provider_get_background_items)(provider, nullptr, folder.info()));
#endif
}

}  // namespace vornet::test
