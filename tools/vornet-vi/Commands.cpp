#include "Commands.hpp"

#include "Folder.hpp"
#include "ShownFolder.hpp"
#include "StopReason.hpp"
#include "client/GLibPtr.hpp"

namespace vornet::vi {
namespace {

using client::GCharPtr;

std::string folded(std::string_view text) {
  const GCharPtr valid{g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()))};
  const GCharPtr normal{g_utf8_normalize(valid.get(), -1, G_NORMALIZE_ALL)};
  const GCharPtr fold{g_utf8_casefold(normal.get(), -1)};
  return fold.get();
}

}  // namespace

std::optional<MenuEntry> findEntry(const std::vector<MenuEntry>& menu, std::string_view wanted) {
  for (const MenuEntry& entry : menu)
    if (entry.action == wanted || entry.action == std::string{wanted} + ":") return entry;
  for (const MenuEntry& entry : menu)
    if (folded(entry.title) == folded(wanted)) return entry;
  return std::nullopt;
}

void listFolder(Extension& extension, Printer& printer, const std::string& folder) {
  // Badges are answered also where the extension has no room to observe the folder. A change that it sends after its
  // answer is the newer truth.
  ShownFolder shown(extension, folder, [](const Item&, bool, const std::string&) {});
  shown.observe();
  printer.useBadges(extension.info().badges);
  shown.read();
  while (shown.isBusy()) g_main_context_iteration(nullptr, TRUE);
  if (shown.failure()) throw Failure(*shown.failure());
  printer.list(folder, sortedItems(shown.items()), false);
  if (shown.isObserved()) extension.endObserving(folder);
}

void showMenu(Extension& extension, Printer& printer, const client::Selection& selection) {
  printer.menu(extension.menu(selection));
}

void performEntry(Extension& extension, Printer& printer, const std::string& wanted,
                  const client::Selection& selection) {
  const auto entry = findEntry(extension.menu(selection), wanted);
  if (!entry) throw Failure{FailureKind::refused, "the menu has no entry \"" + wanted + "\""};
  if (!entry->enabled)
    throw Failure{FailureKind::refused, "\"" + entry->title + "\" is not available for this selection"};
  extension.performAction(entry->action, selection);
  printer.performed(*entry, selection);
}

void showStatus(Extension& extension, Printer& printer, bool start) {
  std::optional<Failure> failure;
  if (start) {
    try {
      extension.start();
    } catch (const Failure& notStarted) {
      if (notStarted.kind() != FailureKind::notStarted) throw;
      failure.emplace(notStarted);
    }
  }
  Status status;
  status.process = extension.process();
  status.canBeStarted = extension.canBeStarted();
  if (status.process) {
    try {
      status.info = extension.infoIfRunning();
    } catch (const Failure& silent) {
      if (silent.kind() == FailureKind::gone || silent.kind() == FailureKind::notInstalled)
        status.process.reset();
      else
        failure.emplace(silent);
    }
  }
  if (start && !status.process && !failure)
    failure.emplace(FailureKind::gone, "the extension ended as soon as it was started");
  if (!status.process) status.stopReason = lastStopReason();
  status.syncApplication = askSyncApplication();
  printer.status(status);
  if (failure) throw Failure{*failure};
}

}  // namespace vornet::vi
