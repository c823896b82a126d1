#include "Badges.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

#include "Log.hpp"
#include "Paths.hpp"
#include "dbus/Interface.hpp"

namespace vornet::client {
namespace {

// The bus's name for Busy.
constexpr const char* TOO_MANY_CALLS = "org.freedesktop.DBus.Error.LimitsExceeded";

// A folder with fewer items is not searched for those that are gone. In others each question looks at so many buckets:
// an item has one or two of them, so those that are gone remain few beside the others.
constexpr std::size_t FEW_ITEMS = 1024;
constexpr std::size_t BUCKETS_A_CALL = 2;

bool isOverload(const std::string& error) {
  return error == "Busy" || error == TOO_MANY_CALLS;
}

/// True if asking again cannot help while the folder and the extension stay as they are.
bool isFinal(const std::string& error) {
  return error == "InvalidURL" || error == "OutsideObservedFolders" || error == "NotAFolder";
}

struct Badge {
  const char* identifier;
  const char* emblem;  // name in the icon theme
  const char* label;
};

constexpr Badge BADGES[] = {{"SYNCED", "emblem-vornet-synced", "Synced"},
                            {"PENDING", "emblem-vornet-pending", "Sync in progress"},
                            {"SKIPPED", "emblem-vornet-skipped", "Not synced"}};

/// The icon of the badge `identifier`, a literal: "SYNCED" -> "emblem-vornet-synced"; "" for an unknown identifier.
std::string_view emblemOf(std::string_view identifier) {
  for (const auto& badge : BADGES)
    if (identifier == badge.identifier) return badge.emblem;
  return {};
}

}  // namespace

const char* labelOf(std::string_view emblem) {
  for (const auto& badge : BADGES)
    if (emblem == badge.emblem) return badge.label;
  return "";
}

Badges::Badges(GMainContext* context, ExtensionLink& link, FoldersOnScreen& folders, const Pace& pace,
               std::function<void(const std::string&)> came)
    : link_(link),
      folders_(folders),
      work_(context),
      stream_(context, link, work_, *this),
      gathering_(context),
      pause_(context),
      failedAgain_(context),
      missed_(context),
      unobserved_(context),
      leaving_(context),
      expecting_(context),
      coming_(context),
      tracing_(context),
      busyRetries_(pace.retries),
      failureRetries_(pace.retries),
      gatheringTime_(pace.gathering),
      missedPause_(Backoff(pace.retries).next()),
      unobservedPace_(pace.unobserved),
      leavingTime_(pace.leaving),
      expectingTime_(pace.expecting),
      comingTime_(pace.coming),
      came_(std::move(came)) {}

bool Badges::mayCarryBadges(std::string_view path) const {
  return !link_.foldersKnown() || link_.observedFolders().empty() || link_.isObserved(path);
}

std::string_view Badges::emblem(Folder& folder, std::string_view name, std::shared_ptr<ShownItem> item) {
  if (folder.entries.empty() && folder.remembered.empty()) folder.remembered = left_.take(folder.path);
  forgetSomeGone(folder);
  const auto [found, isNew] = folder.entries.try_emplace(std::string(name));
  Entry& entry = found->second;
  entry.item = std::move(item);
  if (isNew) {
    folder.lastNew = g_get_monotonic_time();
    if (const auto known = folder.unshown.extract(found->first)) {
      entry.emblem = known.mapped();
      entry.snapshot = folder.snapshot;
    } else if (const auto last = folder.remembered.extract(found->first); last && !folder.isComplete) {
      entry.emblem = last.mapped();
    }
    if (folder.isComplete && isTracing() && !tracing_.isRunning()) {
      tracing_.start(gatheringTime_, [this, path = folder.path, id = folder.id] {
        if (Folder* current = folders_.find(path, id)) traceAnswered(*current, 0);
      });
    }
    if (!hasStream(folder)) {
      entry.waiting = true;
      folder.waiting.push_back(found->first);
      if (folder.observed || folder.tooMany) askSoon();
    }
  }
  return entry.emblem;
}

bool Badges::areComing(Folder& folder) {
  if (folder.awaited != 0) return true;
  const bool isOnScreen = folder.shown > 0 || folder.expected != 0;
  const bool isFirst = !folder.came && folder.entries.empty() && folder.remembered.empty() && !left_.has(folder.path);
  const bool arePossible =
      (link_.isReady() ? hasStream(folder) && !folder.refused : link_.isStarting()) && mayCarryBadges(folder.path);
  if (!isOnScreen || !isFirst || !arePossible) return false;
  folder.awaited = g_get_monotonic_time();
  if (!coming_.isRunning()) coming_.start(comingTime_, [this] { forgetAwaited(); });
  return true;
}

/// The first badges of `folder` are known, or nobody should wait for them.
void Badges::awaitNoLonger(Folder& folder) {
  folder.came = true;
  if (std::exchange(folder.awaited, 0) == 0) return;
  work_.add([this, path = folder.path] {  // after what is to be drawn, and not within a call of the file manager
    guarded([&] { came_(path); });
    return false;
  });
}

void Badges::forgetAwaited() {
  const std::chrono::microseconds now(g_get_monotonic_time());
  std::chrono::microseconds next(0);
  for (const auto& [path, folder] : folders_.all()) {
    if (folder->awaited == 0) continue;
    const auto left = std::chrono::microseconds(folder->awaited) + comingTime_ - now;
    if (left.count() <= 0)
      awaitNoLonger(*folder);
    else if (next.count() == 0 || left < next)
      next = left;
  }
  if (next.count() > 0) coming_.start(std::chrono::ceil<std::chrono::milliseconds>(next), [this] { forgetAwaited(); });
}

/// Forgets items that were deleted or renamed while their folder was held, among the few that are looked at next: all
/// at once would take milliseconds.
void Badges::forgetSomeGone(Folder& folder) {
  if (folder.entries.size() < FEW_ITEMS) return;
  std::vector<std::string> gone;
  for (std::size_t i = 0; i < BUCKETS_A_CALL; ++i) {
    const auto bucket = folder.lookedAt++ % folder.entries.bucket_count();
    for (auto named = folder.entries.begin(bucket); named != folder.entries.end(bucket); ++named)
      if (named->second.item->isGone()) gone.push_back(named->first);
  }
  for (const auto& name : gone) forgetGone(folder, name);
  if (folder.waiting.size() >= 2 * folder.entries.size() + FEW_ITEMS)
    std::erase_if(folder.waiting, [&folder](const std::string& name) { return !folder.entries.contains(name); });
}

/// Keeps the item's badge: when the item is made again, the stream does not repeat it. While a snapshot is being sent,
/// a badge that it has not named yet may be out of date.
void Badges::forgetGone(Folder& folder, const std::string& name) {
  const auto found = folder.entries.find(name);
  const Entry entry = std::move(found->second);
  folder.entries.erase(found);
  if (entry.emblem.empty()) return;
  if (folder.isComplete || (folder.stream != 0 && entry.snapshot == folder.snapshot)) {
    if (!keep(folder, name, entry.emblem)) requestSnapshot(folder);
  } else if (folder.remembered.size() < LeftFolders::MOST_ITEMS) {
    folder.remembered.insert_or_assign(name, entry.emblem);
  }
}

// --- Observing ------------------------------------------------------------------------------------------------------

void Badges::syncObservations(Folder& folder) {
  const bool possible = link_.isReady() && !folder.refused && link_.isObserved(folder.path);
  const bool isWanted = folder.inferred || folder.expected != 0;
  const int wanted = !possible ? 0 : folder.shown > 0 ? folder.shown : isWanted ? 1 : 0;
  while (folder.begun < wanted && !folder.refused && !folder.tooMany) begin(folder);
  for (; folder.begun > wanted; --folder.begun)
    if (link_.isReady()) link_.send("EndObserving", g_variant_new("(s)", urlOfPath(folder.path).c_str()));
  if (folder.begun == 0) {
    folder.observed = false;
    endStream(folder);
  }
  if (wanted == 0) folder.tooMany = false;
  if (folder.begun > 0 && folder.stream == 0 && hasStream(folder)) requestSnapshot(folder);
  if (folder.awaited != 0 && link_.isReady() && !hasStream(folder)) awaitNoLonger(folder);
}

void Badges::begin(Folder& folder) {
  ++folder.begun;
  const auto answered = [this, path = folder.path, id = folder.id, generation = generation_](GVariant* done,
                                                                                             const std::string& error) {
    Folder* current = generation == generation_ ? folders_.find(path, id) : nullptr;
    if (!current || current->begun == 0) return;
    done ? began(*current) : notBegun(*current, error);
  };
  link_.callRunning("BeginObserving", g_variant_new("(s)", urlOfPath(folder.path).c_str()), "()", answered);
}

void Badges::began(Folder& folder) {
  busyRetries_.reset();
  folder.observed = true;
  if (std::exchange(folder.tooMany, false)) {
    askForAll(folder);  // a change of what was answered before might not be sent
    syncObservations(folder);
  }
  askSoon();
}

void Badges::notBegun(Folder& folder, const std::string& error) {
  --folder.begun;
  if (error == "TooManyFolders") {
    if (folder.observed) return;
    if (!std::exchange(folder.tooMany, true)) {
      endStream(folder);
      awaitNoLonger(folder);
      askForAll(folder);
    }
    refreshUnobservedLater();
    askSoon();
  } else if (isFinal(error)) {
    folder.refused = true;
    awaitNoLonger(folder);
  } else {
    pause();
  }
}

/// To be called when the extension is too busy, or fails.
void Badges::pause() {
  if (pause_.isRunning()) return;
  pause_.start(busyRetries_.next(), [this] {
    for (const auto& path : folders_.paths()) syncObservations(*folders_.find(path));
    stream_.ask();
  });
}

void Badges::refreshUnobservedLater() {
  if (!unobserved_.isRunning()) unobserved_.start(unobservedPace_, [this] { refreshUnobserved(); });
}

void Badges::refreshUnobserved() {
  bool some = false;
  for (const auto& path : folders_.paths()) {
    Folder& folder = *folders_.find(path);
    if (!folder.tooMany || !link_.isReady()) continue;
    some = true;
    askForAll(folder);
    if (folder.begun == 0) begin(folder);  // a place may have become free
  }
  if (!some) return;
  stream_.ask();
  refreshUnobservedLater();
}

// --- Snapshots ------------------------------------------------------------------------------------------------------

/// True if the extension sends the badges of `folder` by itself. It does not for an inferred folder, which may hold a
/// single result of a search.
bool Badges::hasStream(const Folder& folder) const {
  if (folder.stream != 0) return true;
  const bool isShown = folder.shown > 0 || folder.expected != 0;
  return link_.isReady() && link_.interfaceVersion() >= 2 && isShown && !folder.tooMany && !folder.singly;
}

void Badges::requestSnapshot(Folder& folder) {
  newStream(folder);
  const auto answered = [this, stream = folder.stream, generation = generation_](GVariant* done,
                                                                                 const std::string& error) {
    Folder* current = generation == generation_ ? folders_.findStream(stream) : nullptr;
    if (current && !done) snapshotRefused(*current, error);
  };
  link_.callRunning("RequestSnapshot", g_variant_new("(st)", urlOfPath(folder.path).c_str(), folder.stream), "()",
                    answered);
}

void Badges::snapshotRefused(Folder& folder, const std::string& error) {
  endStream(folder);
  if (isOverload(error)) {
    askForAll(folder);  // if it is expected no more, and has no further snapshot
    return pause();
  }
  if (folder.observed) askSingly(folder);  // else observing has failed, and is tried again
}

void Badges::askSingly(Folder& folder) {
  endStream(folder);
  folder.singly = true;
  awaitNoLonger(folder);
  askForAll(folder);
  askSoon();
}

/// Its badges may change unnoticed from now on.
void Badges::endStream(Folder& folder) {
  if (std::exchange(folder.stream, 0) == 0) return;
  const bool wasComplete = std::exchange(folder.isComplete, false);
  auto latest = std::exchange(folder.unshown, {});
  if (!wasComplete && latest.size() + folder.remembered.size() <= LeftFolders::MOST_ITEMS)
    latest.merge(folder.remembered);
  folder.remembered = std::move(latest);
  folder.keptBytes = 0;
}

void Badges::folderBadges(guint64 stream, unsigned char flags, const std::vector<BadgeStream::NamedBadge>& items) {
  Folder* folder = folders_.findStream(stream);
  if (!folder) return;
  if (flags & dbus::NO_SNAPSHOT) return askSingly(*folder);
  busyRetries_.reset();
  if (flags & dbus::SNAPSHOT_BEGINS) {
    const auto current = folder->stream;
    endStream(*folder);  // the items shown keep their emblems until it ends
    folder->stream = current;
    ++folder->snapshot;
  }
  for (const auto& [name, identifier] : items)
    if (!applyStreamed(*folder, name, emblemOf(identifier))) return requestSnapshot(*folder);
  if (flags & dbus::SNAPSHOT_ENDS) snapshotEnded(*folder);
}

/// False when there is no room: another request will be answered that there is no snapshot of so many.
bool Badges::applyStreamed(Folder& folder, std::string_view name, std::string_view emblem) {
  std::string key(name);
  if (const auto found = folder.entries.find(key); found != folder.entries.end()) {
    found->second.snapshot = folder.snapshot;
    applyBadge(folder, key, emblem);
  } else if (emblem.empty()) {
    folder.unshown.erase(key);
    folder.remembered.erase(key);
  } else if (const auto kept = folder.unshown.find(key); kept != folder.unshown.end()) {
    kept->second = emblem;
  } else {
    return keep(folder, std::move(key), emblem);
  }
  return true;
}

/// False when there is no room.
bool Badges::keep(Folder& folder, std::string name, std::string_view emblem) {
  folder.keptBytes += name.size();
  if (folder.unshown.size() >= dbus::MAX_ITEMS_A_SNAPSHOT || folder.keptBytes > dbus::MAX_BYTES_A_SNAPSHOT)
    return false;
  folder.unshown.emplace(std::move(name), emblem);
  return true;
}

/// No other item has a badge.
void Badges::snapshotEnded(Folder& folder) {
  folder.isComplete = true;
  awaitNoLonger(folder);
  folder.remembered.clear();
  folder.entries.reserve(folder.unshown.size());  // growing by and by would take milliseconds in the end
  for (const auto& name : std::exchange(folder.waiting, {}))
    if (const auto found = folder.entries.find(name); found != folder.entries.end()) found->second.waiting = false;
  for (const auto& [name, entry] : folder.entries)
    if (entry.snapshot != folder.snapshot && !entry.emblem.empty()) applyBadge(folder, name, {});
  if (!folder.entries.empty()) traceLater(folder, 0);
}

// --- Coming and going -----------------------------------------------------------------------------------------------

void Badges::expect(Folder& folder) {
  folder.expected = g_get_monotonic_time();
  if (!expecting_.isRunning()) expecting_.start(expectingTime_, [this] { forgetExpected(); });
  observe(folder);
}

void Badges::forgetExpected() {
  const gint64 now = g_get_monotonic_time();
  bool some = false;
  for (const auto& path : folders_.paths()) {
    Folder& folder = *folders_.find(path);
    if (folder.expected == 0) continue;
    if (now - folder.expected < std::chrono::microseconds(expectingTime_).count()) {
      some = true;
      continue;
    }
    folder.expected = 0;
    if (!folder.entries.empty() && !folder.isHeld()) folder.inferred = folder.wasInferred = true;
    if (!folder.inferred) {
      forget(folder);
      continue;
    }
    askForAll(folder);  // its snapshot may have been refused
    askSoon();
    syncObservations(folder);
  }
  if (some) expecting_.start(expectingTime_, [this] { forgetExpected(); });
}

void Badges::show(Folder& folder) {
  folder.leftAt = 0;
  observe(folder);
}

void Badges::observe(Folder& folder) {
  if (folder.begun == 0) askForAll(folder);
  syncObservations(folder);
}

void Badges::leave(Folder& folder) {
  folder.leftAt = g_get_monotonic_time();
  if (!leaving_.isRunning()) leaving_.start(leavingTime_, [this] { forgetLeft(); });
}

void Badges::forgetLeft() {
  const gint64 now = g_get_monotonic_time();
  bool later = false;
  for (const auto& path : folders_.paths()) {
    Folder& folder = *folders_.find(path);
    if (folder.leftAt == 0) continue;
    if (folder.expected != 0 || now - folder.leftAt < std::chrono::microseconds(leavingTime_).count()) {
      later = true;
      continue;
    }
    folder.leftAt = 0;
    forget(folder, true);
  }
  if (later) leaving_.start(leavingTime_, [this] { forgetLeft(); });
}

void Badges::forget(Folder& folder, bool redraws) {
  folder.inferred = false;
  folder.expected = 0;
  const bool isComplete = folder.isComplete;
  const bool isKnown = isComplete || folder.entries.empty();  // what is remembered; otherwise it is out of date
  awaitNoLonger(folder);
  syncObservations(folder);
  if (folder.isHeld()) return;
  const auto left = std::make_shared<LeftFolder>();
  left->path = folder.path;
  left->emblems = isKnown ? std::move(folder.remembered) : Emblems();
  left->entries.swap(folder.entries);
  left->isComplete = isComplete;
  folders_.erase(left->path);
  left_.add(left);
  if (left_.read(*left, SlicedWork::STEP)) work_.add([this, left] { return left_.read(*left, SlicedWork::STEP); });
  if (redraws || left->entries.size() > SlicedWork::STEP) letGo(left->path, {left, &left->entries}, redraws);
}

/// Frees items of the folder at `path`, after they have been redrawn if `redraws`.
void Badges::letGo(const std::string& path, const std::shared_ptr<Entries>& entries, bool redraws) {
  work_.add([path, entries, redraws] {
    for (std::size_t i = 0; i < SlicedWork::STEP && !entries->empty(); ++i) {
      const auto node = entries->extract(entries->begin());
      const Entry& entry = node.mapped();
      if (redraws) guarded([&] { entry.item->redraw(childPath(path, node.key()), std::string(entry.emblem)); });
    }
    return !entries->empty();
  });
}

// --- Asking ---------------------------------------------------------------------------------------------------------

void Badges::askForAll(Folder& folder) {
  if (hasStream(folder)) return;
  for (auto& [name, entry] : folder.entries) {
    if (std::exchange(entry.waiting, true)) continue;
    folder.waiting.push_back(name);
  }
}

void Badges::askSoon() {
  if (!gathering_.isRunning() && !stream_.isFull()) gathering_.start(gatheringTime_, [this] { stream_.ask(); });
}

/// Failed batches come last.
std::optional<Badges::Batch> Badges::nextBatch() {
  if (!link_.isReady() || pause_.isRunning()) return std::nullopt;
  const auto asked = [this](const Folder& folder) { return (folder.observed || folder.tooMany) && !hasStream(folder); };
  for (const auto& [path, folder] : folders_.all()) {
    auto& waiting = folder->waiting;
    if (!asked(*folder) || waiting.empty()) continue;
    const auto first = waiting.end() - static_cast<std::ptrdiff_t>(std::min(dbus::BATCH, waiting.size()));
    std::vector<std::string> names(std::make_move_iterator(first), std::make_move_iterator(waiting.end()));
    waiting.erase(first, waiting.end());
    return batchOf(*folder, std::move(names));
  }
  if (failedAgain_.isRunning()) return std::nullopt;
  for (const auto& [path, folder] : folders_.all()) {
    if (!asked(*folder) || folder->again.empty()) continue;
    auto names = std::move(folder->again.front());
    folder->again.pop_front();
    return batchOf(*folder, std::move(names));
  }
  return std::nullopt;
}

/// A batch of those of `names` that the folder still has.
Badges::Batch Badges::batchOf(Folder& folder, std::vector<std::string> names) {
  std::erase_if(names, [&folder](const std::string& name) {
    const auto found = folder.entries.find(name);
    if (found == folder.entries.end()) return true;
    found->second.waiting = false;
    if (!found->second.item->isGone()) return false;
    folder.entries.erase(found);
    return true;
  });
  folder.unanswered += names.size();
  return {folder.path, folder.id, std::move(names), {}};
}

void Badges::requestFailed(Batch batch, const CallError& error) {
  if (Folder* folder = folders_.find(batch.folder, batch.folderId)) failed(*folder, std::move(batch.names), error);
}

/// Retries the batch by halves, so that an item that makes the extension refuse all of them ends up alone.
void Badges::failed(Folder& folder, std::vector<std::string> names, const std::string& error) {
  folder.unanswered -= std::min(folder.unanswered, names.size());
  std::erase_if(names, [&folder](const std::string& name) {
    const auto found = folder.entries.find(name);
    return found == folder.entries.end() || std::exchange(found->second.waiting, true);
  });
  if (names.empty()) return;
  if (isOverload(error)) {
    std::move(names.begin(), names.end(), std::back_inserter(folder.waiting));
    return pause();
  }
  if (error == "InvalidURL" && names.size() == 1) {
    folder.entries[names.front()].waiting = false;
    return;
  }
  const auto middle = names.begin() + static_cast<std::ptrdiff_t>((names.size() + 1) / 2);
  std::vector<std::string> half(std::make_move_iterator(middle), std::make_move_iterator(names.end()));
  names.erase(middle, names.end());
  folder.again.push_back(std::move(names));
  if (!half.empty()) folder.again.push_back(std::move(half));
  if (error == "InvalidURL" || failedAgain_.isRunning()) return;
  failedAgain_.start(failureRetries_.next(), [this] { stream_.ask(); });
}

// --- Answers and changes --------------------------------------------------------------------------------------------

bool Badges::badgesAnswered(const Batch& batch, std::size_t begin, std::size_t end) {
  busyRetries_.reset();
  failureRetries_.reset();
  Folder* folder = folders_.find(batch.folder, batch.folderId);
  if (!folder) return false;
  for (; begin < end; ++begin) applyBadge(*folder, batch.names[begin], emblemOf(batch.identifiers[begin]));
  if (end == batch.names.size()) traceLater(*folder, end);
  return true;
}

/// After the redrawing.
void Badges::traceLater(const Folder& folder, std::size_t items) {
  work_.add([this, path = folder.path, id = folder.id, items] {
    if (Folder* current = folders_.find(path, id)) traceAnswered(*current, items);
    return false;
  });
}

void Badges::traceAnswered(Folder& folder, std::size_t items) {
  folder.unanswered -= std::min(folder.unanswered, items);
  if (folder.unanswered > 0 || !folder.waiting.empty() || !isTracing()) return;
  const auto milliseconds = static_cast<double>(g_get_monotonic_time() - folder.lastNew) / 1000;
  trace("the badges of %zu items are known, %.1f ms after the last of them came", folder.entries.size(), milliseconds);
}

void Badges::badgeChanged(const std::string& path, const std::string& identifier) {
  if (Folder* folder = folders_.find(folderOf(path)))
    applyBadge(*folder, std::string(nameOf(path)), emblemOf(identifier));
}

/// Requests everything again; while changes keep coming too fast, only once in a while. Until then the streams are
/// ignored: a snapshot of which a part is missing would take away badges.
void Badges::changesMissed() {
  for (const auto& [path, folder] : folders_.all())
    if (folder->stream != 0) newStream(*folder);
  if (missed_.isRunning()) return;
  missed_.start(missedPause_, [this] {
    for (const auto& [path, folder] : folders_.all()) {
      if (folder->stream != 0) requestSnapshot(*folder);
      askForAll(*folder);
    }
    stream_.ask();
  });
}

void Badges::applyBadge(Folder& folder, const std::string& name, std::string_view emblem) {
  const auto found = folder.entries.find(name);
  if (found == folder.entries.end() || found->second.emblem == emblem) return;
  found->second.emblem = emblem;
  if (std::exchange(found->second.changed, true)) return;
  folder.changed.push_back(name);
  if (std::exchange(isRedrawing_, true)) return;
  work_.add([this] {
    for (std::size_t i = 0; i < SlicedWork::STEP; ++i)
      if (!redrawNext()) return isRedrawing_ = false;
    return true;
  });
}

bool Badges::redrawNext() {
  for (const auto& [path, folder] : folders_.all()) {
    if (folder->changed.empty()) continue;
    const auto name = std::move(folder->changed.back());
    folder->changed.pop_back();
    if (const auto found = folder->entries.find(name); found != folder->entries.end()) found->second.changed = false;
    redraw(*folder, name);
    return true;
  }
  return false;
}

/// Does nothing if `folder` has no item named so. The folder may be forgotten within the call.
void Badges::redraw(const Folder& folder, const std::string& name) {
  const auto found = folder.entries.find(name);
  if (found == folder.entries.end()) return;
  const auto item = found->second.item;  // the file manager may call emblem() within the call and replace it
  const std::string emblem(found->second.emblem);
  guarded([&] { item->redraw(childPath(folder.path, name), emblem); });
}

/// Walks the buckets: a copy of all names would take milliseconds. Items that come meanwhile may be passed over: the
/// file manager has just asked for them.
void Badges::redrawAll(const Folder& folder) {
  work_.add([this, path = folder.path, id = folder.id, bucket = std::size_t(0)]() mutable {
    const Folder* current = folders_.find(path, id);
    if (!current) return false;
    std::vector<std::string> names;  // the file manager may call emblem() within the call, which adds items
    for (std::size_t i = 0; i < SlicedWork::STEP && bucket < current->entries.bucket_count(); ++i, ++bucket)
      std::transform(current->entries.begin(bucket), current->entries.end(bucket), std::back_inserter(names),
                     [](const auto& entry) { return entry.first; });
    for (const auto& name : names)
      if ((current = folders_.find(path, id))) redraw(*current, name);
    return current && bucket < current->entries.bucket_count();
  });
}

/// Clears a folder that is outside the synced folder now. Keeps the items of a folder that a window shows: they get
/// badges when it is inside again, and the file manager does not ask for them then.
void Badges::clear(Folder& folder) {
  endStream(folder);
  awaitNoLonger(folder);
  folder.remembered.clear();
  if (folder.shown > 0 || folder.isHeld() || link_.observedFolders().empty()) {
    for (const auto& [name, entry] : folder.entries) applyBadge(folder, name, {});
    return;
  }
  bool hadBadges = false;
  for (auto& [name, entry] : folder.entries) hadBadges |= !std::exchange(entry.emblem, {}).empty();
  letGo(folder.path, std::make_shared<Entries>(std::exchange(folder.entries, {})), hadBadges);
  folder.waiting.clear();
  folder.again.clear();
}

// --- The extension --------------------------------------------------------------------------------------------------

void Badges::extensionReady() {
  extensionGone();
  observedFoldersChanged();
}

void Badges::extensionGone() {
  ++generation_;
  stream_.reset();
  for (auto* timer : {&pause_, &failedAgain_, &missed_, &unobserved_}) timer->stop();
  busyRetries_.reset();
  failureRetries_.reset();
  for (const auto& [path, folder] : folders_.all()) {
    folder->begun = 0;
    folder->observed = folder->refused = folder->tooMany = folder->singly = false;
    endStream(*folder);
    folder->unanswered = 0;
    for (auto& names : std::exchange(folder->again, {}))
      std::move(names.begin(), names.end(), std::back_inserter(folder->waiting));
  }
}

void Badges::observedFoldersChanged() {
  left_.keepOnly([this](const std::string& path) { return link_.isObserved(path); });
  for (const auto& path : folders_.paths()) {
    Folder& folder = *folders_.find(path);
    folder.refused = folder.tooMany = false;
    if (link_.isObserved(path) && folder.stream != 0)
      requestSnapshot(folder);
    else if (link_.isObserved(path))
      askForAll(folder);
    else
      clear(folder);
    if (folder.shown == 0 && !folder.isHeld() && !mayCarryBadges(path))
      forget(folder);
    else
      syncObservations(folder);
  }
  askSoon();
}

}  // namespace vornet::client
