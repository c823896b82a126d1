#pragma once

#include <string>
#include <vector>

namespace vornet::client {

/// Local paths, as the disk has them.
using Selection = std::vector<std::string>;

struct MenuEntry {
  std::string title;
  std::string action;  ///< what Plugin::perform() takes: "copyLink:"
  bool enabled = false;
  std::string icon;  ///< name in the icon theme; empty for none

  bool operator==(const MenuEntry&) const = default;
};

/// The entries to show, in their order; empty where no entry belongs.
using Menu = std::vector<MenuEntry>;

}  // namespace vornet::client
