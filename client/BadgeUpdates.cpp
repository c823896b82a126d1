#include "BadgeUpdates.hpp"

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

#include "Guarded.hpp"
#include "Paths.hpp"
#include "Values.hpp"

namespace vornet::client {
namespace {

// Items dealt with between two looks at the clock.
constexpr std::size_t STEP = 16;

// Changes of one message that are read. The extension sends 2,000 at a time.
constexpr std::size_t MOST_READ = 20'000;

// Messages with more changes are freed on a thread of their own.
constexpr std::size_t LARGE = 5000;

// Memory of the changes that wait to be read, all messages together, in bytes: those of 50,000 items. Beside its text,
// a change is three values.
constexpr std::size_t MOST_UNREAD = 16 << 20;
constexpr std::size_t BYTES_OF_A_CHANGE = 256;

// No item with a longer URL is on screen: every byte of its path takes three at most.
constexpr std::size_t LONGEST_URL = 3 * PATH_MAX + 32;

}  // namespace

std::string_view emblemOf(std::string_view identifier) {
  for (const auto& [known, emblem] : {std::pair{"SYNCED", "emblem-vornet-synced"},
                                      {"PENDING", "emblem-vornet-pending"},
                                      {"SKIPPED", "emblem-vornet-skipped"}}) {
    if (identifier == known) return emblem;
  }
  return {};
}

struct BadgeUpdates::Message {
  std::shared_ptr<GVariant> changes;
  std::size_t items = 0;  ///< those that are read
  std::size_t next = 0;
};

BadgeUpdates::BadgeUpdates(GMainContext* context, FoldersOnScreen& folders, std::function<void()> missed)
    : folders_(folders), missed_(std::move(missed)), work_(context), disposal_(context) {}

// --- Taking in ------------------------------------------------------------------------------------------------------

void BadgeUpdates::takeAnswer(Answer answer, std::function<void()> applied) {
  auto kept = std::make_shared<Answer>(std::move(answer));
  work_.add([this, kept, applied = std::move(applied), generation = generation_, next = std::size_t(0)]() mutable {
    Folder* folder = generation == generation_ ? folders_.find(kept->folder, kept->folderId) : nullptr;
    if (!folder) return false;
    const std::size_t end = std::min(next + STEP, kept->names.size());
    for (; next < end; ++next) applyBadge(*folder, kept->names[next], kept->emblems[next]);
    if (next < kept->names.size()) return true;
    work_.add([applied] {  // behind the redrawing
      applied();
      return false;
    });
    return false;
  });
}

void BadgeUpdates::takeChanges(GVariant* changes) {
  const std::size_t items = g_variant_n_children(changes);
  const bool isLarge = items > LARGE;
  const bool isTooLarge = items > MOST_READ;
  if (isLarge) disposal_.add(changes);
  if (isTooLarge) missed_();
  // One message that is larger than all is read as well, when it is the only one.
  const auto fits = [this](std::size_t bytes) { return unread_ == 0 || unread_ + bytes <= MOST_UNREAD; };
  std::size_t bytes = items * BYTES_OF_A_CHANGE;
  if (!fits(bytes)) return missed_();
  if (!isTooLarge) bytes += g_variant_get_size(changes);
  if (!fits(bytes)) return missed_();

  const std::shared_ptr<GVariant> kept(g_variant_ref(changes), g_variant_unref);
  auto message = std::make_shared<Message>(Message{kept, std::min(items, MOST_READ), 0});
  unread_ += bytes;
  work_.add([this, message = std::move(message), isLarge, bytes, generation = generation_] {
    if (generation == generation_) {
      if (read(*message)) return true;
      unread_ -= bytes;
    }
    if (isLarge) disposal_.add(message->changes.get());
    return false;
  });
}

/// False when it is read to its end.
bool BadgeUpdates::read(Message& message) {
  const std::size_t end = std::min(message.next + STEP, message.items);
  for (; message.next < end; ++message.next) {
    const Value change = childOf(message.changes.get(), message.next);
    const Value url = childOf(change.get(), 0);
    if (strnlen(textOf(url), LONGEST_URL + 1) > LONGEST_URL) continue;
    const auto path = pathOfURL(textOf(url));
    Folder* folder = path ? folders_.find(folderOf(*path)) : nullptr;
    if (folder) applyBadge(*folder, std::string(nameOf(*path)), emblemOf(textOf(childOf(change.get(), 1))));
  }
  return message.next < message.items;
}

void BadgeUpdates::dropUnread() {
  ++generation_;
  unread_ = 0;
}

// --- Redrawing ------------------------------------------------------------------------------------------------------

void BadgeUpdates::applyBadge(Folder& folder, const std::string& name, std::string_view emblem) {
  const auto found = folder.entries.find(name);
  if (found == folder.entries.end() || found->second.emblem == emblem) return;
  found->second.emblem = emblem;
  if (std::exchange(found->second.changed, true)) return;
  folder.changed.push_back(name);
  if (std::exchange(isRedrawing_, true)) return;
  work_.add([this] {
    for (std::size_t i = 0; i < STEP; ++i)
      if (!redrawNext()) return isRedrawing_ = false;
    return true;
  });
}

bool BadgeUpdates::redrawNext() {
  for (const auto& [path, folder] : folders_.all()) {
    if (folder->changed.empty()) continue;
    const auto name = std::move(folder->changed.back());
    folder->changed.pop_back();
    const auto found = folder->entries.find(name);
    if (found == folder->entries.end()) return true;
    found->second.changed = false;
    const auto item = found->second.item;  // the file manager may ask within the call, and bring another
    const auto itemPath = path == "/" ? path + name : path + "/" + name;
    const std::string emblem(found->second.emblem);
    guarded([&] { item->redraw(itemPath, emblem); });
    return true;
  }
  return false;
}

void BadgeUpdates::redrawAll(const Folder& folder) {
  struct Item {
    std::string name;
    std::shared_ptr<ShownItem> item;
    std::string_view emblem;
  };
  auto items = std::make_shared<std::vector<Item>>();
  items->reserve(folder.entries.size());
  for (const auto& [name, entry] : folder.entries) items->push_back({name, entry.item, entry.emblem});
  work_.add([this, items, path = folder.path, id = folder.id] {
    const std::string base = path == "/" ? "/" : path + "/";
    for (std::size_t i = 0; i < STEP && !items->empty(); ++i) {
      const Item one = std::move(items->back());
      items->pop_back();
      const Folder* current = folders_.find(path, id);
      auto emblem = one.emblem;
      if (current) {
        if (const auto found = current->entries.find(one.name); found != current->entries.end())
          emblem = found->second.emblem;  // it may have changed since
      }
      one.item->redraw(base + one.name, std::string(emblem));
    }
    return !items->empty();
  });
}

}  // namespace vornet::client
