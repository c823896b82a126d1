#pragma once

#include <list>
#include <memory>
#include <string>

#include "Thunarx.hpp"
#include "client/FileManager.hpp"
#include "client/Plugin.hpp"

namespace vornet::thunar {

/// The entries for what is selected. Thunar asks for them when a menu opens, and does not redraw them when they change:
/// those that were shown before the answer came are greyed, and their widgets are bound to follow it. The main thread's
/// only.
class FileMenu : public client::FileManager {
 public:
  FileMenu();
  ~FileMenu() override;
  FileMenu(const FileMenu&) = delete;
  FileMenu& operator=(const FileMenu&) = delete;

  client::Plugin& plugin() { return *plugin_; }

  /// New entries for a menu that opens; the caller's to free, with their list. Those that do not apply are left out,
  /// because Thunar would show them like the others; unless none applies, or none is yet known to apply.
  GList* entriesFor(const client::Selection& selection);

  void menuChanged(const client::Selection& selection) override;

 private:
  /// An entry of the menu that was opened last, which Thunar may have freed.
  struct Shown {
    Shown(ThunarxMenuItem* shown, const std::string& chosen) : action(chosen) { g_weak_ref_init(&item, shown); }
    ~Shown() { g_weak_ref_clear(&item); }
    Shown(const Shown&) = delete;
    Shown& operator=(const Shown&) = delete;

    GWeakRef item;
    const std::string action;
  };

  ThunarxMenuItem* itemFor(const client::MenuEntry& entry);
  void forgetShown();
  void bindWidgets();

  std::shared_ptr<client::Plugin> plugin_;  ///< entries that outlive this object hold weak pointers
  std::shared_ptr<const client::Selection> selection_ = std::make_shared<client::Selection>();
  std::list<Shown> shown_;
  guint binding_ = 0;  ///< the source that calls bindWidgets()
};

}  // namespace vornet::thunar
