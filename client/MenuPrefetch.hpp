#pragma once

#include <gio/gio.h>

#include <functional>
#include <list>

#include "ExtensionLink.hpp"
#include "FileManager.hpp"

namespace vornet::client {

/// The entries of a menu as the extension sends it, a(ssbs): at most a hundred, their titles cut at 200 characters,
/// without those whose action is too long. `icon` is the name that the extension gives the image.
Menu menuOf(GVariant* entries);

/// The menus of what is selected, fetched when the selection changes, so that opening one waits for nothing. The last
/// few are remembered: when one changes, each window asks for its own again. Not thread-safe: the context's thread
/// only.
class MenuPrefetch {
 public:
  using Changed = std::function<void(const Selection& selection)>;

  /// `changed` is called when the entries of a remembered selection have changed.
  MenuPrefetch(ExtensionLink& link, Changed changed);
  MenuPrefetch(const MenuPrefetch&) = delete;
  MenuPrefetch& operator=(const MenuPrefetch&) = delete;

  /// As Plugin::menu().
  Menu menu(const Selection& selection);

  void extensionReady();
  void extensionGone();
  void observedFoldersChanged();
  void syncApplicationChanged();

 private:
  struct Remembered {
    Selection selection;
    Menu entries;
    gint64 answeredAt = 0;   ///< monotonic, in microseconds; 0 while there is no answer
    unsigned requestId = 0;  ///< of the request in flight; 0 for none
  };

  using Menus = std::list<Remembered>;

  Menu entriesFor(const Selection& selection);
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
  bool isSilent_ = false;    ///< the sync application, when it was last asked
  unsigned generation_ = 0;  ///< counts the extension's processes
};

}  // namespace vornet::client
