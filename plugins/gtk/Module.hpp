#pragma once

#include <glib-object.h>

#include <memory>
#include <optional>

#include "KnownItems.hpp"
#include "Menus.hpp"
#include "client/Plugin.hpp"

namespace vornet::gtk {

class FolderWatch;

/// What lives from the file manager's loading of the plug-in to its unloading. One at a time; the main thread's.
class Module : public client::FileManager {
 public:
  /// The one that there is; null before loading and after unloading.
  static Module* current();

  /// Called by the file manager: registers the types with `types`, and makes the current module.
  static void load(GTypeModule* types);
  /// Ends the current module: the bus is left, and nothing of the file manager is listened to any more.
  static void unload();

  ~Module() override;

  /// Made when it is first needed.
  client::Plugin& plugin();

  KnownItems& items() { return items_; }
  Menus& menus() { return menus_; }
  FolderWatch& folders() { return *folders_; }

  /// `provider` is the object by which the file manager asks for menus.
  void setProvider(GObject* provider);

  void menuChanged() override;

 private:
  Module();

  std::optional<client::Plugin> plugin_;
  KnownItems items_;
  Menus menus_;
  std::unique_ptr<FolderWatch> folders_;
  GWeakRef provider_;
};

}  // namespace vornet::gtk
