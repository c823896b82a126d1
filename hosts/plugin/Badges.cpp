#include "Badges.hpp"

#include <algorithm>
#include <utility>

#include "Paths.hpp"
#include "Trace.hpp"

namespace vornet::plugin {
namespace {

using namespace std::chrono_literals;

// The bus carries a million paths a second in batches of this size; four under way keep the extension's threads busy.
constexpr std::size_t BATCH = 500;
constexpr unsigned BATCHES_UNDER_WAY = 4;

// So long the first item waits for others of its batch.
constexpr auto GATHERING = 5ms;

// After the extension was too busy.
constexpr auto RETRY = 1s;

// The bus's own word for it.
constexpr const char* TOO_MANY_CALLS = "org.freedesktop.DBus.Error.LimitsExceeded";

// Items dealt with between two looks at the clock.
constexpr std::size_t STEP = 16;

}  // namespace

struct Badges::Batch {
  std::string folder;
  std::vector<std::string> names;
  unsigned extension = 0;
};

Badges::Badges(GMainContext* context, ExtensionLink& link, FoldersOnScreen& folders)
    : link_(link), folders_(folders), questions_(context), work_(context), gathering_(context), retry_(context) {}

const std::string& Badges::badge(Folder& folder, std::string_view name, std::unique_ptr<ShownItem> item) {
  const auto [found, isNew] = folder.entries.try_emplace(std::string(name));
  Entry& entry = found->second;
  entry.item = std::move(item);
  if (isNew) {
    entry.waiting = true;
    folder.waiting.push_back(found->first);
    folder.lastNew = g_get_monotonic_time();
    if (folder.observed) askSoon();
  }
  return entry.identifier;
}

// --- Observing ------------------------------------------------------------------------------------------------------

void Badges::adjust(Folder& folder) {
  const bool possible = link_.isReady() && !folder.refused && link_.isObserved(folder.path);
  const int wanted = !possible ? 0 : folder.shown > 0 ? folder.shown : folder.inferred ? 1 : 0;
  while (folder.begun < wanted && !folder.refused) begin(folder);
  for (; folder.begun > wanted; --folder.begun) {
    if (link_.isReady()) link_.send("EndObserving", g_variant_new("(s)", urlOfPath(folder.path).c_str()));
  }
  if (folder.begun == 0) folder.observed = false;
}

void Badges::begin(Folder& folder) {
  ++folder.begun;
  const auto begun = [this, path = folder.path, extension = extension_](GVariant* done, const std::string& error) {
    Folder* current = extension == extension_ ? folders_.find(path) : nullptr;
    if (!current || current->begun == 0) return;
    if (done) {
      current->observed = true;
      askSoon();  // only now: of what was answered before, a change might not be told
    } else {
      --current->begun;
      if (error == "Busy" || error == TOO_MANY_CALLS) {
        beginAgainLater();
      } else {
        current->refused = true;
      }
    }
  };
  link_.call("BeginObserving", g_variant_new("(s)", urlOfPath(folder.path).c_str()), begun);
}

void Badges::beginAgainLater() {
  if (retry_.isRunning()) return;
  retry_.start(RETRY, [this] {
    for (const auto& path : folders_.paths()) adjust(*folders_.find(path));
    ask();
  });
}

void Badges::drop(Folder& folder) {
  folder.shown = 0;
  folder.inferred = false;
  adjust(folder);
  folders_.erase(std::string(folder.path));
}

// --- Asking ---------------------------------------------------------------------------------------------------------

void Badges::askForAll(Folder& folder) {
  for (auto& [name, entry] : folder.entries) {
    if (std::exchange(entry.waiting, true)) continue;
    folder.waiting.push_back(name);
  }
}

void Badges::askSoon() {
  if (!gathering_.isRunning() && batchesUnderWay_ < BATCHES_UNDER_WAY) gathering_.start(GATHERING, [this] { ask(); });
}

/// One batch in a turn: its URLs take a while to write.
void Badges::ask() {
  if (std::exchange(isAsking_, true)) return;
  questions_.add([this] {
    isAsking_ = link_.isReady() && batchesUnderWay_ < BATCHES_UNDER_WAY && askForNextBatch();
    return isAsking_;
  });
}

bool Badges::askForNextBatch() {
  for (const auto& [path, folder] : folders_.all()) {
    if (!folder->observed || folder->waiting.empty()) continue;
    askForBatch(*folder);
    return true;
  }
  return false;
}

void Badges::askForBatch(Folder& folder) {
  auto batch = std::make_shared<Batch>();
  batch->folder = folder.path;
  batch->extension = extension_;
  const std::string base = folder.path == "/" ? "/" : folder.path + "/";
  GVariantBuilder urls;
  g_variant_builder_init(&urls, G_VARIANT_TYPE_STRING_ARRAY);
  while (!folder.waiting.empty() && batch->names.size() < BATCH) {
    auto name = std::move(folder.waiting.back());
    folder.waiting.pop_back();
    const auto found = folder.entries.find(name);
    if (found == folder.entries.end()) continue;
    found->second.waiting = false;
    g_variant_builder_add(&urls, "s", urlOfPath(base + name).c_str());
    batch->names.push_back(std::move(name));
  }
  if (batch->names.empty()) {
    g_variant_builder_clear(&urls);
    return;
  }
  folder.unanswered += batch->names.size();
  ++batchesUnderWay_;
  link_.call("RequestBadges", g_variant_new("(as)", &urls),
             [this, batch](GVariant* values, const std::string& error) { answered(batch, values, error); });
}

void Badges::answered(std::shared_ptr<Batch> batch, GVariant* values, const std::string& error) {
  if (batch->extension != extension_) return;
  --batchesUnderWay_;
  if (values && g_variant_is_of_type(values, G_VARIANT_TYPE("(as)"))) {
    const std::shared_ptr<GVariant> identifiers(g_variant_get_child_value(values, 0), g_variant_unref);
    work_.add([this, batch, identifiers, next = std::size_t(0)]() mutable {
      const std::size_t all = std::min(batch->names.size(), g_variant_n_children(identifiers.get()));
      const std::size_t end = std::min(next + STEP, all);
      for (; next < end && batch->extension == extension_; ++next) {
        const gchar* identifier = nullptr;
        g_variant_get_child(identifiers.get(), next, "&s", &identifier);
        hear(batch->folder, batch->names[next], identifier);
      }
      if (next < all && batch->extension == extension_) return true;
      traceAnswered(*batch);
      return false;
    });
  } else if (Folder* folder = error == "Busy" ? folders_.find(batch->folder) : nullptr) {
    for (const auto& name : batch->names) {
      const auto found = folder->entries.find(name);
      if (found == folder->entries.end() || std::exchange(found->second.waiting, true)) continue;
      folder->waiting.push_back(name);
    }
    return beginAgainLater();
  }
  ask();
}

void Badges::traceAnswered(const Batch& batch) {
  Folder* folder = batch.extension == extension_ ? folders_.find(batch.folder) : nullptr;
  if (!folder) return;
  folder->unanswered -= std::min(folder->unanswered, batch.names.size());
  if (folder->unanswered > 0 || !folder->waiting.empty() || !isTracing()) return;
  const auto milliseconds = static_cast<double>(g_get_monotonic_time() - folder->lastNew) / 1000;
  trace("the badges of %zu items are known, %.1f ms after the last of them came", folder->entries.size(), milliseconds);
}

// --- Hearing --------------------------------------------------------------------------------------------------------

void Badges::badgesChanged(GVariant* changes) {
  const std::shared_ptr<GVariant> kept(g_variant_ref(changes), g_variant_unref);
  work_.add([this, kept, extension = extension_, next = std::size_t(0)]() mutable {
    const std::size_t all = g_variant_n_children(kept.get());
    const std::size_t end = std::min(next + STEP, all);
    for (; next < end && extension == extension_; ++next) {
      const gchar* url = nullptr;
      const gchar* identifier = nullptr;
      g_variant_get_child(kept.get(), next, "(&s&s)", &url, &identifier);
      if (const auto path = pathOfURL(url)) hear(std::string(folderOf(*path)), std::string(nameOf(*path)), identifier);
    }
    return next < all && extension == extension_;
  });
}

void Badges::hear(const std::string& path, const std::string& name, const char* identifier) {
  Folder* folder = folders_.find(path);
  if (!folder) return;
  const auto found = folder->entries.find(name);
  if (found == folder->entries.end() || found->second.identifier == identifier) return;
  found->second.identifier = identifier;
  const auto item = found->second.item;  // the file manager may ask within the call, and bring another
  item->redraw(path == "/" ? path + name : path + "/" + name);
}

void Badges::redrawAll(const Folder& folder) {
  auto items = std::make_shared<std::vector<std::pair<std::string, std::shared_ptr<ShownItem>>>>();
  items->reserve(folder.entries.size());
  const std::string base = folder.path == "/" ? "/" : folder.path + "/";
  for (const auto& [name, entry] : folder.entries) items->emplace_back(base + name, entry.item);
  work_.add([items] {
    for (std::size_t i = 0; i < STEP && !items->empty(); ++i) {
      items->back().second->redraw(items->back().first);
      items->pop_back();
    }
    return !items->empty();
  });
}

/// The folder lies outside the synced folder now.
void Badges::clear(Folder& folder) {
  const bool hadBadges = std::any_of(folder.entries.begin(), folder.entries.end(),
                                     [](const auto& entry) { return !entry.second.identifier.empty(); });
  for (auto& [name, entry] : folder.entries) entry.identifier.clear();
  if (hadBadges) redrawAll(folder);
  if (link_.observedFolders().empty()) return;  // the sync application may be configured yet
  folder.entries.clear();
  folder.waiting.clear();
}

// --- The extension --------------------------------------------------------------------------------------------------

void Badges::extensionReady() {
  extensionGone();
  observedFoldersChanged();
}

void Badges::extensionGone() {
  ++extension_;
  batchesUnderWay_ = 0;
  for (const auto& [path, folder] : folders_.all()) {
    folder->begun = 0;
    folder->observed = folder->refused = false;
    folder->unanswered = 0;
  }
}

void Badges::observedFoldersChanged() {
  for (const auto& path : folders_.paths()) {
    Folder& folder = *folders_.find(path);
    folder.refused = false;
    if (link_.isObserved(path)) {
      askForAll(folder);
    } else {
      clear(folder);
    }
    adjust(folder);
  }
  askSoon();
}

}  // namespace vornet::plugin
