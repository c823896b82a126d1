#include "Commands.hpp"

#include <map>

#include "BadgeLoader.hpp"
#include "Folder.hpp"
#include "GLibPtr.hpp"
#include "PathURL.hpp"

namespace vornet::vi {
namespace {

/// Why `subject` is not served: no folder is observed, or another one.
Failure outsideFailure(Client& client, const std::string& subject) {
  const std::vector<std::string> observed = client.info().observedFolders;
  if (observed.empty()) {
    return {FailureKind::outside, "the sync application is not configured, so no folder is observed"};
  }
  std::string folders;
  for (const std::string& folder : observed) {
    folders.append(folders.empty() ? "" : ", ").append(folder);
  }
  return {FailureKind::outside, subject + ": outside the observed folder " + folders};
}

/// The first of `selection` that lies outside all `observed` folders; the first of all if none does.
std::string firstOutside(const std::vector<std::string>& selection, const std::vector<std::string>& observed) {
  for (const std::string& path : selection) {
    bool inside = false;
    for (const std::string& folder : observed) {
      inside = inside || path == folder || path.starts_with(folder == "/" ? folder : folder + "/");
    }
    if (!inside) {
      return path;
    }
  }
  return selection.front();
}

std::vector<MenuEntry> menuOf(Client& client, const std::vector<std::string>& selection) {
  for (const std::string& path : selection) {
    requireExisting(path);
  }
  std::vector<MenuEntry> entries = client.menu(selection);
  if (entries.empty()) {
    throw outsideFailure(client, firstOutside(selection, client.info().observedFolders));
  }
  return entries;
}

std::string folded(std::string_view text) {
  const GCharPtr valid{g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()))};
  const GCharPtr normal{g_utf8_normalize(valid.get(), -1, G_NORMALIZE_ALL)};
  const GCharPtr fold{g_utf8_casefold(normal.get(), -1)};
  return fold.get();
}

}  // namespace

std::optional<MenuEntry> findEntry(const std::vector<MenuEntry>& menu, std::string_view wanted) {
  for (const MenuEntry& entry : menu) {
    if (entry.action == wanted || entry.action == std::string{wanted} + ":") {
      return entry;
    }
  }
  for (const MenuEntry& entry : menu) {
    if (folded(entry.title) == folded(wanted)) {
      return entry;
    }
  }
  return std::nullopt;
}

void beginObserving(Client& client, const std::string& folder) {
  try {
    client.beginObserving(folder);
  } catch (const Failure& failure) {
    if (failure.kind() == FailureKind::outside) {
      throw outsideFailure(client, folder);
    }
    throw;
  }
}

void listFolder(Client& client, Printer& printer, const std::string& folder) {
  // Badges are answered also where the extension has no room to observe the folder.
  bool observed = true;
  try {
    beginObserving(client, folder);
  } catch (const Failure& failure) {
    if (failure.kind() != FailureKind::noRoom) {
      throw;
    }
    observed = false;
  }
  printer.useBadges(client.info().badges);

  std::map<std::string, Item> items;
  std::vector<std::string> names;
  for (Entry& entry : readFolder(folder)) {
    names.push_back(entry.name);
    items[entry.name].entry = std::move(entry);
  }
  const auto setBadge = [&items](const std::string& name, const std::string& identifier) {
    if (const auto found = items.find(name); found != items.end()) {
      found->second.badge = identifier;
    }
  };
  // A change that the extension tells after its answer is the newer truth.
  client.onBadgesChanged([&](const Client::Changes& changes) {
    for (const auto& [path, identifier] : changes) {
      if (const auto name = nameInFolder(path, folder)) {
        setBadge(*name, identifier);
      }
    }
  });
  BadgeLoader loader{client, folder, setBadge};
  loader.ask(names);
  while (loader.isBusy()) {
    g_main_context_iteration(nullptr, TRUE);
  }
  client.onBadgesChanged(nullptr);
  if (loader.failure()) {
    throw Failure{*loader.failure()};
  }
  printer.list(folder, sortedItems(items), false);
  if (observed) {
    client.endObserving(folder);
  }
}

void showMenu(Client& client, Printer& printer, const std::vector<std::string>& selection) {
  printer.menu(menuOf(client, selection));
}

void performEntry(Client& client, Printer& printer, const std::string& wanted,
                  const std::vector<std::string>& selection) {
  const auto entry = findEntry(menuOf(client, selection), wanted);
  if (!entry) {
    throw Failure{FailureKind::refused, "the menu has no entry \"" + wanted + "\""};
  }
  if (!entry->enabled) {
    throw Failure{FailureKind::refused, "\"" + entry->title + "\" is not available for this selection"};
  }
  client.performAction(entry->action, selection);
  printer.performed(*entry, selection);
}

void showStatus(Client& client, Printer& printer, bool start) {
  if (start) {
    client.start();
  }
  Status status;
  status.process = client.process();
  status.canBeStarted = client.canBeStarted();
  std::optional<Failure> silent;
  if (status.process) {
    try {
      status.info = client.infoIfRunning();
    } catch (const Failure& failure) {
      if (failure.kind() == FailureKind::gone || failure.kind() == FailureKind::notInstalled) {
        status.process.reset();
      } else {
        silent.emplace(failure);
      }
    }
  }
  status.syncApplication = askSyncApplication();
  printer.status(status);
  if (silent) {
    throw Failure{*silent};
  }
}

}  // namespace vornet::vi
