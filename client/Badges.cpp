#include "Badges.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

#include "Paths.hpp"
#include "Trace.hpp"
#include "Values.hpp"

namespace vornet::client {
namespace {

// The bus carries a million paths a second in batches of this size; four in flight keep the extension's threads busy.
constexpr std::size_t BATCH = 500;
constexpr unsigned BATCHES_IN_FLIGHT = 4;

// The bus's own word for Busy.
constexpr const char* TOO_MANY_CALLS = "org.freedesktop.DBus.Error.LimitsExceeded";

bool isOverload(const std::string& error) {
  return error == "Busy" || error == TOO_MANY_CALLS;
}

/// Whether asking again cannot help while the folder and the extension stay as they are.
bool isFinal(const std::string& error) {
  return error == "InvalidURL" || error == "OutsideObservedFolders" || error == "NotAFolder";
}

/// The emblems that an answer to `count` questions means; none when it has another number of them.
std::vector<std::string_view> emblemsOf(GVariant* values, std::size_t count) {
  std::vector<std::string_view> emblems;
  const Value identifiers = childOf(values, 0);
  if (g_variant_n_children(identifiers.get()) != count) return emblems;
  emblems.reserve(count);
  for (std::size_t i = 0; i < count; ++i) emblems.push_back(emblemOf(textOf(childOf(identifiers.get(), i))));
  return emblems;
}

}  // namespace

struct Badges::Batch {
  std::string folder;
  unsigned folderId = 0;
  unsigned generation = 0;
  std::vector<std::string> names;
};

Badges::Badges(GMainContext* context, ExtensionLink& link, FoldersOnScreen& folders, const Pace& pace)
    : link_(link),
      folders_(folders),
      updates_(context, folders, [this] { askForEverythingLater(); }),
      questions_(context),
      gathering_(context),
      pause_(context),
      failedAgain_(context),
      missed_(context),
      unobserved_(context),
      leaving_(context),
      busyRetries_(pace.retries),
      failureRetries_(pace.retries),
      gatheringTime_(pace.gathering),
      missedPause_(Backoff(pace.retries).next()),
      unobservedPace_(pace.unobserved),
      leavingTime_(pace.leaving) {}

bool Badges::mayCarryBadges(std::string_view path) const {
  return !link_.foldersKnown() || link_.observedFolders().empty() || link_.isObserved(path);
}

std::string_view Badges::emblem(Folder& folder, std::string_view name, std::unique_ptr<ShownItem> item) {
  if (folder.entries.empty()) folder.remembered = left_.take(folder.path);
  if (folder.entries.size() >= folder.crowded) forgetGone(folder);
  const auto [found, isNew] = folder.entries.try_emplace(std::string(name));
  Entry& entry = found->second;
  entry.item = std::move(item);
  if (isNew) {
    if (const auto known = folder.remembered.extract(found->first)) entry.emblem = known.mapped();
    entry.waiting = true;
    folder.waiting.push_back(found->first);
    folder.lastNew = g_get_monotonic_time();
    if (folder.observed || folder.tooMany) askSoon();
  }
  return entry.emblem;
}

/// Items that were deleted or renamed while their folder was held.
void Badges::forgetGone(Folder& folder) {
  std::erase_if(folder.entries, [](const auto& entry) { return entry.second.item->isGone(); });
  folder.crowded = std::max(folder.crowded, 2 * folder.entries.size());
}

// --- Observing ------------------------------------------------------------------------------------------------------

void Badges::syncObservations(Folder& folder) {
  const bool possible = link_.isReady() && !folder.refused && link_.isObserved(folder.path);
  const int wanted = !possible ? 0 : folder.shown > 0 ? folder.shown : folder.inferred ? 1 : 0;
  while (folder.begun < wanted && !folder.refused && !folder.tooMany) begin(folder);
  for (; folder.begun > wanted; --folder.begun)
    if (link_.isReady()) link_.send("EndObserving", g_variant_new("(s)", urlOfPath(folder.path).c_str()));
  if (folder.begun == 0) folder.observed = false;
  if (wanted == 0) folder.tooMany = false;
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
    folder.tooMany = true;
    refreshUnobservedLater();
    askSoon();
  } else if (isFinal(error)) {
    folder.refused = true;
  } else {
    pause();
  }
}

/// The extension is too busy, or fails.
void Badges::pause() {
  if (pause_.isRunning()) return;
  pause_.start(busyRetries_.next(), [this] {
    for (const auto& path : folders_.paths()) syncObservations(*folders_.find(path));
    ask();
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
  ask();
  refreshUnobservedLater();
}

// --- Coming and going -----------------------------------------------------------------------------------------------

void Badges::show(Folder& folder) {
  folder.leftAt = 0;
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
    if (now - folder.leftAt < std::chrono::microseconds(leavingTime_).count()) {
      later = true;
      continue;
    }
    folder.leftAt = 0;
    redrawAll(folder);
    forget(folder);
  }
  if (later) leaving_.start(leavingTime_, [this] { forgetLeft(); });
}

void Badges::forget(Folder& folder) {
  folder.inferred = false;
  syncObservations(folder);
  if (folder.isHeld()) return;
  Emblems emblems;
  for (const auto& [name, entry] : folder.entries)
    if (!entry.emblem.empty()) emblems.emplace(name, entry.emblem);
  if (folder.entries.empty()) emblems = std::move(folder.remembered);  // nobody asked; otherwise they are out of date
  left_.add(folder.path, std::move(emblems));
  folders_.erase(std::string(folder.path));
}

// --- Asking ---------------------------------------------------------------------------------------------------------

void Badges::askForAll(Folder& folder) {
  for (auto& [name, entry] : folder.entries) {
    if (std::exchange(entry.waiting, true)) continue;
    folder.waiting.push_back(name);
  }
}

/// Changes were missed. While they keep coming too fast, once in a while is enough.
void Badges::askForEverythingLater() {
  if (missed_.isRunning()) return;
  missed_.start(missedPause_, [this] {
    for (const auto& [path, folder] : folders_.all()) askForAll(*folder);
    ask();
  });
}

void Badges::askSoon() {
  if (gathering_.isRunning() || batchesInFlight_ >= BATCHES_IN_FLIGHT) return;
  gathering_.start(gatheringTime_, [this] { ask(); });
}

/// One batch in a turn: its URLs take a while to write.
void Badges::ask() {
  if (std::exchange(isAsking_, true)) return;
  questions_.add([this] {
    const bool may = link_.isReady() && !pause_.isRunning() && batchesInFlight_ < BATCHES_IN_FLIGHT;
    return isAsking_ = may && askForNextBatch();
  });
}

/// What failed comes last.
bool Badges::askForNextBatch() {
  const auto asked = [](const Folder& folder) { return folder.observed || folder.tooMany; };
  for (const auto& [path, folder] : folders_.all()) {
    auto& waiting = folder->waiting;
    if (!asked(*folder) || waiting.empty()) continue;
    const auto first = waiting.end() - static_cast<std::ptrdiff_t>(std::min(BATCH, waiting.size()));
    std::vector<std::string> names(std::make_move_iterator(first), std::make_move_iterator(waiting.end()));
    waiting.erase(first, waiting.end());
    askForBatch(*folder, std::move(names));
    return true;
  }
  if (failedAgain_.isRunning()) return false;
  for (const auto& [path, folder] : folders_.all()) {
    if (!asked(*folder) || folder->again.empty()) continue;
    auto names = std::move(folder->again.front());
    folder->again.pop_front();
    askForBatch(*folder, std::move(names));
    return true;
  }
  return false;
}

void Badges::askForBatch(Folder& folder, std::vector<std::string> names) {
  auto batch = std::make_shared<Batch>(Batch{folder.path, folder.id, generation_, {}});
  const std::string base = folder.path == "/" ? "/" : folder.path + "/";
  GVariantBuilder urls;
  g_variant_builder_init(&urls, G_VARIANT_TYPE_STRING_ARRAY);
  for (auto& name : names) {
    const auto found = folder.entries.find(name);
    if (found == folder.entries.end()) continue;
    if (found->second.item->isGone()) {
      folder.entries.erase(found);
      continue;
    }
    found->second.waiting = false;
    g_variant_builder_add(&urls, "s", urlOfPath(base + name).c_str());
    batch->names.push_back(std::move(name));
  }
  if (batch->names.empty()) {
    g_variant_builder_clear(&urls);
    return;
  }
  folder.unanswered += batch->names.size();
  ++batchesInFlight_;
  link_.callRunning("RequestBadges", g_variant_new("(as)", &urls), "(as)",
                    [this, batch](GVariant* values, const std::string& error) { answered(*batch, values, error); });
}

void Badges::answered(Batch& batch, GVariant* values, const std::string& error) {
  if (batch.generation != generation_) return;
  --batchesInFlight_;
  Folder* folder = folders_.find(batch.folder, batch.folderId);
  auto emblems = values ? emblemsOf(values, batch.names.size()) : std::vector<std::string_view>();
  if (!emblems.empty()) {
    busyRetries_.reset();
    failureRetries_.reset();
  }
  if (folder && emblems.empty()) {
    failed(*folder, std::move(batch.names), error);
  } else if (folder) {
    const auto items = batch.names.size();
    const auto applied = [this, path = batch.folder, id = batch.folderId, items] {
      if (Folder* current = folders_.find(path, id)) traceAnswered(*current, items);
    };
    updates_.takeAnswer({batch.folder, batch.folderId, std::move(batch.names), std::move(emblems)}, applied);
  }
  ask();
}

/// The batch is asked for again: by halves, so that an item that makes the extension refuse all of them ends up alone.
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
  failedAgain_.start(failureRetries_.next(), [this] { ask(); });
}

void Badges::traceAnswered(Folder& folder, std::size_t items) {
  folder.unanswered -= std::min(folder.unanswered, items);
  if (folder.unanswered > 0 || !folder.waiting.empty() || !isTracing()) return;
  const auto milliseconds = static_cast<double>(g_get_monotonic_time() - folder.lastNew) / 1000;
  trace("the badges of %zu items are known, %.1f ms after the last of them came", folder.entries.size(), milliseconds);
}

/// The folder lies outside the synced folder now. Of one that a window holds the items are kept: they get badges when
/// it comes to lie within again, and the file manager does not ask for them then.
void Badges::clear(Folder& folder) {
  folder.remembered.clear();
  if (folder.shown > 0 || folder.isHeld() || link_.observedFolders().empty()) {
    for (const auto& [name, entry] : folder.entries) updates_.applyBadge(folder, name, {});
    return;
  }
  bool hadBadges = false;
  for (auto& [name, entry] : folder.entries) hadBadges |= !std::exchange(entry.emblem, {}).empty();
  if (hadBadges) redrawAll(folder);
  folder.entries.clear();
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
  batchesInFlight_ = 0;
  updates_.dropUnread();
  for (auto* timer : {&pause_, &failedAgain_, &missed_, &unobserved_}) timer->stop();
  busyRetries_.reset();
  failureRetries_.reset();
  for (const auto& [path, folder] : folders_.all()) {
    folder->begun = 0;
    folder->observed = folder->refused = folder->tooMany = false;
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
    if (link_.isObserved(path))
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
