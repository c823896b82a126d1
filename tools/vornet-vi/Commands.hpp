#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Extension.hpp"
#include "Options.hpp"
#include "Printer.hpp"

/// The commands. Each runs to its end on the calling thread, prints through `printer`, and throws Failure when the
/// extension refuses or fails, std::runtime_error for the disk; what Output throws passes through.
namespace vornet::vi {

/// Shows a folder's entries and badges once. `folder`: absolute.
void listFolder(Extension& extension, Printer& printer, const std::string& folder);

/// Shows the menu of `selection` (absolute paths).
void showMenu(Extension& extension, Printer& printer, const std::vector<std::string>& selection);

/// Performs the menu's entry `wanted` (see findEntry); refuses one that is greyed or absent.
void performEntry(Extension& extension, Printer& printer, const std::string& wanted,
                  const std::vector<std::string>& selection);

/// Shows what runs. Starts the extension only when `start`. Throws after printing when the extension cannot be started,
/// or runs without answering.
void showStatus(Extension& extension, Printer& printer, bool start);

/// The entry that `wanted` names: by its title, letter case apart, or by its action with or without the final ":".
std::optional<MenuEntry> findEntry(const std::vector<MenuEntry>& menu, std::string_view wanted);

}  // namespace vornet::vi
