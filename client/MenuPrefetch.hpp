#pragma once

#include <gio/gio.h>

#include <functional>
#include <list>

#include "ExtensionLink.hpp"
#include "Menu.hpp"

namespace vornet::client {

/// The menus of what is selected, fetched when it is selected, so that opening one waits for nothing. Those of the last
/// few selections are remembered: when one changes, each window asks for the menu of its own selection again. Not
/// thread-safe: the context's thread only.
class MenuPrefetch {
 public:
  using Changed = std::function<void(const Selection& selection)>;

  /// `changed` is called when the entries of a selection that is remembered have changed.
  MenuPrefetch(ExtensionLink& link, Changed changed);
  MenuPrefetch(const MenuPrefetch&) = delete;
  MenuPrefetch& operator=(const MenuPrefetch&) = delete;

  /// As Plugin::menu().
  Menu menu(const Selection& selection);

  void extensionReady();
  void extensionGone();
  void observedFoldersChanged();

 private:
  struct Remembered {
    Selection selection;
    Menu entries;
    gint64 answeredAt = 0;   ///< monotonic, in microseconds; 0 while there is no answer
    unsigned requestId = 0;  ///< of the request in flight; 0 for none
  };

  using Menus = std::list<Remembered>;

  bool belongs(const Selection& selection) const;
  Menu greyed() const;
  Menus::iterator find(const Selection& selection);
  Remembered& remember(const Selection& selection);
  void ask(Remembered& menu);
  void askNext();
  void answered(unsigned requestId, GVariant* values);

  ExtensionLink& link_;
  const Changed changed_;

  Menus remembered_;   ///< the one that was asked for last comes first
  Selection waiting_;  ///< to be requested when one in flight is answered; empty for none
  unsigned lastRequestId_ = 0;
  unsigned inFlight_ = 0;
  unsigned generation_ = 0;  ///< counts the extension's processes
};

}  // namespace vornet::client
