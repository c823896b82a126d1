#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Client.hpp"
#include "Options.hpp"
#include "Printer.hpp"

/// The commands. Each runs to its end on the calling thread, prints through `printer`, and throws Failure when it is
/// refused or fails; what Output throws passes through.
namespace vornet::vi {

/// Shows a folder's entries and badges once. `folder`: absolute.
void listFolder(Client& client, Printer& printer, const std::string& folder);

/// Shows the menu of `selection` (absolute paths).
void showMenu(Client& client, Printer& printer, const std::vector<std::string>& selection);

/// Performs the menu's entry `wanted` (see findEntry); refuses one that is greyed or absent.
void performEntry(Client& client, Printer& printer, const std::string& wanted,
                  const std::vector<std::string>& selection);

/// Shows what runs. Starts the extension only when `start`. Throws after printing when the extension cannot be started,
/// or runs without answering.
void showStatus(Client& client, Printer& printer, bool start);

/// The entry that `wanted` names: by its title, letter case apart, or by its action with or without the final ":".
std::optional<MenuEntry> findEntry(const std::vector<MenuEntry>& menu, std::string_view wanted);

/// Begins to observe `folder`; where it lies outside, the failure names the observed folder, or says that there is
/// none.
void beginObserving(Client& client, const std::string& folder);

}  // namespace vornet::vi
