#pragma once

#include <gio/gio.h>

#include "ExtensionLink.hpp"
#include "Menu.hpp"

namespace vornet::client {

/// The menu of what is selected, asked for when it is selected, so that opening it waits for nothing. Not thread-safe:
/// the context's thread only.
class MenuPrefetch {
 public:
  /// `changed` is called when the entries of the last selection have become others.
  MenuPrefetch(ExtensionLink& link, std::function<void()> changed);
  MenuPrefetch(const MenuPrefetch&) = delete;
  MenuPrefetch& operator=(const MenuPrefetch&) = delete;

  /// As Plugin::menu().
  Menu menu(const Selection& selection);

  void extensionReady();
  void extensionGone();
  void observedFoldersChanged();

 private:
  bool belongs(const Selection& selection) const;
  Menu greyed() const;
  void ask();
  void answered(unsigned question, GVariant* values);

  ExtensionLink& link_;
  std::function<void()> changed_;

  Selection selection_;
  Menu entries_;
  gint64 answeredAt_ = 0;   ///< monotonic, in microseconds; 0 while there is no answer
  bool asked_ = false;      ///< a question about this selection is under way, or waits for its turn
  bool waiting_ = false;    ///< it waits
  unsigned question_ = 0;   ///< the last one's number; answers to former ones are dropped
  unsigned underWay_ = 0;   ///< calls, whatever their selection
  unsigned extension_ = 0;  ///< counts the extension's processes
};

}  // namespace vornet::client
