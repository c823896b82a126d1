#include "KnownItems.hpp"

#include <algorithm>
#include <chrono>
#include <utility>

#include "Module.hpp"

namespace vornet::gtk {
namespace {

using namespace std::chrono_literals;

// By then the file manager has ceased to watch a folder that it has left, so that it does not ask for the items when
// they are invalidated.
constexpr auto LEAVING = 1s;

// By then the extension has answered for a folder that came back.
constexpr auto SETTLING = 2s;

// Items dealt with between two looks at the clock.
constexpr std::size_t STEP = 16;

std::string pathIn(const std::string& folder, const std::string& name) {
  return folder == "/" ? folder + name : folder + "/" + name;
}

/// Calls `deal` for each element of `elements`, a few milliseconds at a time, until it returns false.
template <typename Element, typename Deal>
void dealWith(client::SlicedWork& work, std::vector<Element> elements, Deal deal) {
  work.add([elements = std::move(elements), deal = std::move(deal)]() mutable {
    for (std::size_t i = 0; i < STEP && !elements.empty(); ++i) {
      const Element element = std::move(elements.back());
      elements.pop_back();
      if (!deal(element)) return false;
    }
    return !elements.empty();
  });
}

}  // namespace

KnownItems::KnownItems(Module& module) : module_(module), work_(nullptr), leaving_(nullptr), settling_(nullptr) {}

KnownItems::Folder* KnownItems::find(std::string_view path) {
  const auto found = folders_.find(std::string(path));
  return found == folders_.end() ? nullptr : &found->second;
}

// --- Tabs -----------------------------------------------------------------------------------------------------------

void KnownItems::opened(const std::string& folder) {
  ++folders_[folder].tabs;
}

void KnownItems::closed(const std::string& path) {
  Folder* folder = find(path);
  if (!folder || --folder->tabs > 0) return;
  folder->leftAt = g_get_monotonic_time();
  leaveSoon();
}

void KnownItems::shown(const std::string& path) {
  module_.plugin().folderShown(path);
  Folder* folder = find(path);
  if (!folder || ++folder->shown > 1 || folder->items.empty()) return;
  bringBack(path, false);
  returned_.push_back(path);
  settling_.start(SETTLING, [this] {
    for (const auto& back : std::exchange(returned_, {})) bringBack(back, true);
  });
}

void KnownItems::hidden(const std::string& path) {
  module_.plugin().folderHidden(path);
  if (Folder* folder = find(path)) --folder->shown;
}

void KnownItems::leaveSoon() {
  if (!leaving_.isRunning()) leaving_.start(LEAVING, [this] { leave(); });
}

/// When the user comes back, the file manager asks for the items that it has kept.
void KnownItems::leave() {
  const gint64 now = g_get_monotonic_time();
  bool later = false;
  std::erase_if(folders_, [&](auto& entry) {
    auto& [path, folder] = entry;
    if (folder.tabs > 0) return false;
    if (now - folder.leftAt < std::chrono::microseconds(LEAVING).count()) {
      later = true;
      return false;
    }
    std::vector<std::shared_ptr<ShownFile>> files;
    files.reserve(folder.items.size());
    for (auto& [name, item] : folder.items) files.push_back(std::move(item.file));
    dealWith(work_, std::move(files), [](const std::shared_ptr<ShownFile>& file) {
      file->redraw({});
      return true;
    });
    return true;
  });
  if (later) leaveSoon();
}

// --- Emblems --------------------------------------------------------------------------------------------------------

std::string KnownItems::emblem(const std::string& path, manager::FileInfo* file) {
  Folder* folder = find(client::folderOf(path));
  if (!folder) return module_.plugin().emblem(path, std::make_unique<ShownFile>(file));
  if (folder->items.size() >= folder->crowded) dropGone(*folder);
  Item& item = folder->items[std::string(client::nameOf(path))];
  item.file = std::make_shared<ShownFile>(file);
  if (folder->shown == 0) return item.emblem;
  auto emblem = module_.plugin().emblem(path, std::make_unique<ShownFile>(file));
  item.emblem = g_intern_string(emblem.c_str());
  return emblem;
}

/// Items that were deleted or renamed while a tab holds their folder.
void KnownItems::dropGone(Folder& folder) {
  std::erase_if(folder.items, [](const auto& item) { return item.second.file->isGone(); });
  folder.crowded = std::max(folder.crowded, 2 * folder.items.size());
}

/// Shows the items of a folder that is in front again to the library. Those whose emblem is known to be another by now
/// are drawn anew; of the others the emblems stay as they are until the library tells, or everything is settled.
void KnownItems::bringBack(const std::string& path, bool settled) {
  const Folder* folder = find(path);
  if (!folder) return;
  std::vector<std::string> names;
  names.reserve(folder->items.size());
  for (const auto& [name, item] : folder->items) names.push_back(name);
  dealWith(work_, std::move(names),
           [this, path, settled](const std::string& name) { return bringBackItem(path, name, settled); });
}

/// False when the folder is not in front any more.
bool KnownItems::bringBackItem(const std::string& path, const std::string& name, bool settled) {
  Folder* folder = find(path);
  if (!folder || folder->shown == 0) return false;
  const auto found = folder->items.find(name);
  if (found == folder->items.end()) return true;
  const auto file = found->second.file;
  if (file->isGone()) {
    folder->items.erase(found);
    return true;
  }
  const auto itemPath = pathIn(path, name);
  const auto emblem = module_.plugin().emblem(itemPath, std::make_unique<ShownFile>(*file));
  const bool isKnown = settled || !emblem.empty();
  if (isKnown && emblem != found->second.emblem) file->redraw(itemPath);  // it asks for it, within the call or later
  return true;
}

}  // namespace vornet::gtk
