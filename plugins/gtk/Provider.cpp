#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include "FolderWatch.hpp"
#include "Manager.hpp"
#include "Module.hpp"
#include "client/Log.hpp"
#include "client/Paths.hpp"
#include "dbus/GLibPtr.hpp"

namespace vornet::gtk {
namespace {

using namespace manager;

/// The path of `file`; none when it is no local file (trash, network, recent files). Put together from its folder's and
/// its name, because the file manager would make a URL for each file. It has no folder where it is itself one on
/// screen.
std::optional<std::string> pathOf(FileInfo* file) {
  const GObjectPtr<GFile> folder(VORNET_CALL(file_info_get_parent_location)(file));
  if (folder && g_file_is_native(folder.get())) {
    const GCharPtr name(VORNET_CALL(file_info_get_name)(file));
    if (const char* path = g_file_peek_path(folder.get()); path && name) return client::childPath(path, name.get());
  }
  const GCharPtr url(VORNET_CALL(file_info_get_uri)(file));
  return client::pathOfURL(url.get());
}

// --- Emblems and the column ------------------------------------------------------------------------------------------

/// A file that the file manager shows, for as long as the file manager itself keeps it.
class ShownFile : public client::ShownItem {
 public:
  explicit ShownFile(FileInfo* file) { g_weak_ref_init(&file_, file); }
  ~ShownFile() override { g_weak_ref_clear(&file_); }
  ShownFile(const ShownFile&) = delete;
  ShownFile& operator=(const ShownFile&) = delete;

  /// Emblems are only ever added to a file; the file manager drops all and asks again for a file that is invalidated.
  void redraw(const std::string&, const std::string&) override {
    if (const auto file = get()) VORNET_CALL(file_info_invalidate_extension_info)(file.get());
  }

  bool isGone() const override { return !get(); }

 private:
  GObjectPtr<FileInfo> get() const { return GObjectPtr<FileInfo>(static_cast<FileInfo*>(g_weak_ref_get(&file_))); }

  mutable GWeakRef file_;  // reading it takes a reference
};

/// The column's name and that of the attribute with its text.
constexpr const char* COLUMN = "VornetVI::sync_status";

void fill(FileInfo* file, const std::optional<std::string>& path) {
  Module* module = Module::current();
  const auto emblem =
      module && path ? module->plugin().emblem(*path, std::make_shared<ShownFile>(file)) : std::string();
  if (!emblem.empty()) VORNET_CALL(file_info_add_emblem)(file, emblem.c_str());
  // Also "": without a text Nemo and Caja show "unknown".
  VORNET_CALL(file_info_add_string_attribute)(file, COLUMN, client::labelOf(emblem));
}

/// Leaves the first file of a folder unanswered while its badges are on their way. That holds back all others of the
/// folder, so that each is drawn once, with its emblem.
OperationResult updateFileInfo(InfoProvider* provider, FileInfo* file, GClosure* complete, OperationHandle** handle) {
  return client::guarded(COMPLETE, [=] {
    Module* module = Module::current();
    const auto path = pathOf(file);
    if (module && path && module->plugin().areBadgesComing(*path)) {
      *handle = module->unanswered().add(provider, file, complete, std::string(client::folderOf(*path)));
      return IN_PROGRESS;
    }
    fill(file, path);
    return COMPLETE;
  });
}

void cancelUpdate(InfoProvider*, OperationHandle* handle) {
  if (Module* module = Module::current()) module->unanswered().cancel(handle);
}

/// The list is the file manager's, which drops its reference to the column, too. The column itself stays: Nemo 6.4's
/// library frees a column twice.
GList* columns(ColumnProvider*) {
  static auto* const column = VORNET_CALL(column_new)(COLUMN, COLUMN, "Sync status", "Whether the item is synced");
  return g_list_append(nullptr, g_object_ref(column));
}

// --- Menus ----------------------------------------------------------------------------------------------------------

/// The action of a menu item. All items of a menu share the selection.
struct Choice {
  std::string action;
  std::shared_ptr<const client::Selection> selection;

  static void made(MenuItem*, gpointer self) {
    client::guarded([self] {
      const auto& choice = *static_cast<const Choice*>(self);
      if (Module* module = Module::current()) module->plugin().perform(choice.action, *choice.selection);
    });
  }
  static void dispose(gpointer self, GClosure*) { delete static_cast<Choice*>(self); }
};

/// Empty when one of the files is no local one. Reads no more files than are worth it.
client::Selection selectionOf(const GList* files) {
  client::Selection selection;
  for (; files && selection.size() <= client::Plugin::LARGEST_SELECTION; files = files->next) {
    auto path = pathOf(static_cast<FileInfo*>(files->data));
    if (!path) return {};
    selection.push_back(std::move(*path));
  }
  return selection;
}

MenuItem* makeItem(const client::MenuEntry& entry, std::shared_ptr<const client::Selection> selection) {
  auto choice = std::make_unique<Choice>(Choice{entry.action, std::move(selection)});
  const std::string name = ENTRY_NAME + entry.action;
  const std::string& tip = entry.tip.empty() ? entry.title : entry.tip;
  auto* item = VORNET_CALL(menu_item_new)(name.c_str(), entry.title.c_str(), tip.c_str(),
                                          entry.icon.empty() ? nullptr : entry.icon.c_str());
  g_object_set(item, "sensitive", static_cast<gboolean>(entry.enabled), nullptr);
  g_signal_connect_data(item, "activate", G_CALLBACK(Choice::made), choice.release(), Choice::dispose, GConnectFlags{});
  return item;
}

/// New items of the file manager, which owns them and the list. A choice performs its action on these files, whatever
/// is selected by then.
GList* fileItems(const GList* files) {
  return client::guarded<GList*>(nullptr, [files]() -> GList* {
    Module* module = Module::current();
    if (!module) return nullptr;
    const auto selection = std::make_shared<const client::Selection>(selectionOf(files));
    GList* items = nullptr;
    for (const auto& entry : module->menu(*selection)) items = g_list_prepend(items, makeItem(entry, selection));
    return g_list_reverse(items);
  });
}

// --- The type -------------------------------------------------------------------------------------------------------

void initialiseInfoProvider(gpointer interface, gpointer) {
  auto* functions = static_cast<InfoProviderInterface*>(interface);
  functions->update_file_info = updateFileInfo;
  functions->cancel_update = cancelUpdate;
}

void initialiseColumnProvider(gpointer interface, gpointer) {
  static_cast<ColumnProviderInterface*>(interface)->get_columns = columns;
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

void fill(FileInfo* file) {
  fill(file, pathOf(file));
}

GType registerProvider(GTypeModule* types) {
  constexpr GTypeInfo description = {sizeof(GObjectClass), nullptr, nullptr,    nullptr, nullptr, nullptr,
                                     sizeof(GObject),      0,       initialise, nullptr};
  constexpr GInterfaceInfo infoProvider = {initialiseInfoProvider, nullptr, nullptr};
  constexpr GInterfaceInfo columnProvider = {initialiseColumnProvider, nullptr, nullptr};
  constexpr GInterfaceInfo menuProvider = {initialiseMenuProvider, nullptr, nullptr};
  const GType type = g_type_module_register_type(types, G_TYPE_OBJECT, "VornetProvider", &description, GTypeFlags{});
  if (!type) return 0;
  g_type_module_add_interface(types, type, VORNET_CONSTANT(TYPE_INFO_PROVIDER), &infoProvider);
  g_type_module_add_interface(types, type, VORNET_CONSTANT(TYPE_COLUMN_PROVIDER), &columnProvider);
  g_type_module_add_interface(types, type, VORNET_CONSTANT(TYPE_MENU_PROVIDER), &menuProvider);
#if defined(VORNET_FOR_NEMO)
  constexpr GInterfaceInfo nameProvider = {initialiseNameProvider, nullptr, nullptr};
  g_type_module_add_interface(types, type, NEMO_TYPE_NAME_AND_DESC_PROVIDER, &nameProvider);
#endif
  FolderWatch::addInterfaces(types, type);
  return type;
}

}  // namespace vornet::gtk
