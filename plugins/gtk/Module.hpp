#pragma once

#include <glib-object.h>

#include <memory>
#include <optional>
#include <string>

#include "UnansweredFiles.hpp"
#include "client/Plugin.hpp"

namespace vornet::gtk {

class FolderWatch;

/// The plug-in from its loading by the file manager to its unloading. One at a time; the main thread's.
class Module : public client::FileManager {
 public:
  /// The present one; null before loading and after unloading.
  static Module* current();

  /// Called by the file manager: registers the types with `types`, and makes the current module.
  static void load(GTypeModule* types);
  /// Ends the current module: it leaves the bus, and stops listening to the file manager.
  static void unload();

  ~Module() override;

  /// Made when it is first needed.
  client::Plugin& plugin();

  FolderWatch& folders() { return *folders_; }

  UnansweredFiles& unanswered() { return unanswered_; }

  /// `provider` is the object by which the file manager asks for menus.
  void setProvider(GObject* provider);

  /// The entries of a menu that the file manager builds for `selection`.
  client::Menu menu(const client::Selection& selection);

  void menuChanged(const client::Selection& selection) override;
  void badgesCame(const std::string& folder) override;

 private:
  Module();

  std::optional<client::Plugin> plugin_;
  UnansweredFiles unanswered_;
  std::unique_ptr<FolderWatch> folders_;
  GWeakRef provider_;
  client::Selection menuSelection_;  ///< that of the menu that was built last
};

/// Registers the type of the object that the file manager makes, and asks for emblems and menus. The type; 0 if it
/// cannot be registered. In Provider.cpp.
GType registerProvider(GTypeModule* types);

/// Gives `file` its emblem and the text of the column. In Provider.cpp.
void fill(manager::FileInfo* file);

/// The beginning of the names of our entries; their action follows.
inline constexpr const char* ENTRY_NAME = "Vornet::";

/// Enables and greys our entries in a menu that is open as `menu` says. Only where the file manager does not ask for
/// them again by itself.
#if defined(VORNET_FOR_NEMO)
void refreshOpenMenu(const client::Menu& menu);
#else
inline void refreshOpenMenu(const client::Menu&) {}
#endif

}  // namespace vornet::gtk
