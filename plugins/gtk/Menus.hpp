#pragma once

#include <glib.h>

#include <list>
#include <utility>

#include "client/Menu.hpp"

namespace vornet::gtk {

class Module;

/// The menus of several windows. When the plug-in says that its entries have changed, each window of the file manager
/// asks for the menu of its own selection; the shared library prefetches that of the last selection asked for. Taken as
/// they come, the windows' questions would replace each other without end. So the answers are remembered for the
/// questions that follow. The main thread's.
class Menus {
 public:
  explicit Menus(Module& module) : module_(module) {}

  /// As client::Plugin::menu().
  client::Menu menu(const client::Selection& selection);

  /// The library has an answer. The menu that it is, of the last selection.
  client::Menu changed();

 private:
  void remember(const client::Selection& selection, const client::Menu& menu);

  Module& module_;
  client::Selection last_;
  std::list<std::pair<client::Selection, client::Menu>> remembered_;  ///< the latest first
  gint64 changedAt_ = 0;                                              ///< monotonic, in microseconds
};

}  // namespace vornet::gtk
