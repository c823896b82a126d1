#pragma once

#include <memory>

#include "ShownEntries.hpp"
#include "Thunarx.hpp"
#include "client/FileManager.hpp"
#include "client/Plugin.hpp"

namespace vornet::thunar {

/// The entries for what is selected. Thunar asks for them when a menu opens, which is too late to ask the extension;
/// so selected() asks ahead. Entries that were shown before the answer came are greyed, and follow it.
/// The main thread's only.
class FileMenu : public client::FileManager {
 public:
  FileMenu();

  /// Readies the extension for the first selection.
  void prepare();

  /// The user has selected that.
  void selected(const client::Selection& selection);

  /// New entries for a menu that opens; the caller's to free, with their list. Those that do not apply are left out,
  /// for Thunar would show them like the others; unless none applies, or none is known yet to apply.
  GList* entriesFor(const client::Selection& selection);

  void menuChanged() override;

 private:
  ThunarxMenuItem* itemFor(const client::MenuEntry& entry);

  std::shared_ptr<client::Plugin> plugin_;  ///< entries that outlive this object hold weak pointers
  std::shared_ptr<const client::Selection> selection_ = std::make_shared<client::Selection>();
  ShownEntries shown_;
};

}  // namespace vornet::thunar
