#include "Commands.hpp"

#include "Doctor.hpp"
#include "Folder.hpp"
#include "ShownFolder.hpp"
#include "Status.hpp"
#include "dbus/GLibPtr.hpp"

namespace vornet::vi {
namespace {

std::string folded(std::string_view text) {
  const GCharPtr valid{g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()))};
  const GCharPtr normal{g_utf8_normalize(valid.get(), -1, G_NORMALIZE_ALL)};
  const GCharPtr fold{g_utf8_casefold(normal.get(), -1)};
  return fold.get();
}

}  // namespace

std::optional<MenuEntry> findEntry(const std::vector<MenuEntry>& menu, std::string_view wanted) {
  for (const MenuEntry& entry : menu)
    if (entry.action == wanted || entry.action == std::string(wanted) + ":") return entry;
  for (const MenuEntry& entry : menu)
    if (folded(entry.title) == folded(wanted)) return entry;
  return std::nullopt;
}

void listFolder(Extension& extension, Printer& printer, const Notices& notices, const std::string& folder) {
  // The extension answers badges even where it has no room to observe the folder. A change that it sends after its
  // answer is newer.
  ShownFolder shown(extension, folder, [](const Item&, bool, const std::string&) {});
  shown.observe();
  printer.useBadges(extension.info().badges);
  shown.read();
  while (shown.isBusy()) g_main_context_iteration(nullptr, TRUE);
  if (shown.failure()) throw Failure(*shown.failure());
  printer.list(folder, sortedItems(shown.items()), false);
  if (const auto silence = silenceIn(extension.info())) notices.warning(SILENT, *silence + ": badges may be old");
  if (shown.isObserved()) extension.endObserving(folder);
}

void showMenu(Extension& extension, Printer& printer, const client::Selection& selection) {
  printer.menu(extension.menu(selection));
}

void performEntry(Extension& extension, Printer& printer, const std::string& wanted,
                  const client::Selection& selection) {
  const auto entry = findEntry(extension.menu(selection), wanted);
  if (!entry) throw Failure{FailureKind::refused, "the menu has no entry \"" + wanted + "\""};
  if (!entry->enabled) {
    const auto silence = silenceIn(extension.info());
    throw Failure{FailureKind::refused,
                  "\"" + entry->title + "\" is not available" + (silence ? ": " + *silence : " for this selection")};
  }
  extension.performAction(entry->action, selection);
  printer.performed(*entry, selection);
}

void showStatus(Extension& extension, Printer& printer, bool start) {
  const Status status = examine(extension, start);
  printer.status(status);
  const auto count = status.problems.size();
  if (count > 0)
    throw Failure{FailureKind::unhealthy, std::to_string(count) + (count == 1 ? " problem found" : " problems found")};
}

}  // namespace vornet::vi
