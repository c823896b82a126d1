#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Extension.hpp"
#include "Notices.hpp"
#include "Options.hpp"
#include "Printer.hpp"

/// The commands. Each runs to its end on the calling thread, prints through `printer`, and throws Failure when the
/// extension refuses or fails, std::runtime_error for the disk; what Output throws passes through.
namespace vornet::vi {

/// Shows a folder's entries and badges once, and warns when these may be old because the sync application is silent.
/// `folder`: absolute.
void listFolder(Extension& extension, Printer& printer, const Notices& notices, const std::string& folder);

/// Shows `folder` (absolute), then every change of its badges and entries. When the extension ends it is restarted, the
/// folder observed and all badges requested again. Where the extension has no room to observe the folder, badges are
/// requested every few seconds; where it is too busy, requests are retried after a second. `notices` gets a warning
/// when the sync application falls silent, and when it answers again.
///
/// Returns when `duration` is over or SIGINT or SIGTERM came, having ended the observation. Throws Failure when the
/// folder cannot be observed, or the extension stops answering, std::runtime_error when the folder vanishes, BrokenPipe
/// when nobody reads `outputDescriptor` any more, and what Output throws. One thread, the extension's; takes SIGINT and
/// SIGTERM.
void watchFolder(Extension& extension, Printer& printer, const Notices& notices, const std::string& folder,
                 int outputDescriptor, std::optional<std::chrono::milliseconds> duration);

/// Shows the menu of `selection` (absolute paths).
void showMenu(Extension& extension, Printer& printer, const std::vector<std::string>& selection);

/// Performs the menu's entry `wanted` (see findEntry); refuses one that is greyed or absent.
void performEntry(Extension& extension, Printer& printer, const std::string& wanted,
                  const std::vector<std::string>& selection);

/// Shows what runs and what is wrong. Starts the extension only when `start`. Throws after printing when anything is
/// wrong.
void showStatus(Extension& extension, Printer& printer, bool start);

/// The entry that `wanted` names: by its title, letter case apart, or by its action with or without the final ":".
std::optional<MenuEntry> findEntry(const std::vector<MenuEntry>& menu, std::string_view wanted);

}  // namespace vornet::vi
