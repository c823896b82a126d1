#include "ShownFolder.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

#include "client/Paths.hpp"
#include "dbus/Interface.hpp"

namespace vornet::vi {

ShownFolder::ShownFolder(Extension& extension, std::string path, Changed changed)
    : extension_(extension),
      path_(std::move(path)),
      changed_(std::move(changed)),
      stream_(nullptr, extension.link(), work_, *this) {}

// --- Observing ------------------------------------------------------------------------------------------------------

void ShownFolder::observe() {
  try {
    extension_.beginObserving(path_);
    hasRoom_ = true;
  } catch (const Failure& failure) {
    if (failure.kind() != FailureKind::noRoom) throw;
    hasRoom_ = false;
  }
  // The process that answers now may have sent changes already.
  if (!observedBy_.empty() && observedBy_ != extension_.owner()) forgetRequests();
  observedBy_ = extension_.owner();
  failure_.reset();
  askForAll();
}

void ShownFolder::forgetObserver() {
  observedBy_.clear();
  forgetRequests();
}

// --- Entries --------------------------------------------------------------------------------------------------------

void ShownFolder::read() {
  std::vector<std::string> names;
  for (Entry& entry : readFolder(path_)) {
    names.push_back(entry.name);
    unanswered_.insert(entry.name);
    items_[entry.name].entry = std::move(entry);
  }
  ask(names);
}

void ShownFolder::update(const std::set<std::string>& names, const std::function<void(const Item&)>& vanished) {
  std::vector<std::string> fresh;
  for (const std::string& name : names) {
    const auto known = items_.find(name);
    if (auto entry = readEntry(path_, name)) {
      // One that was replaced by another of its kind: the extension reports when its badge changes.
      const bool isNew = known == items_.end();
      if (isNew) unanswered_.insert(name);
      if (isNew || known->second.entry.kind != entry->kind) fresh.push_back(name);
      items_[name].entry = *std::move(entry);
    } else if (known != items_.end()) {
      if (unanswered_.erase(name) == 0) vanished(known->second);
      items_.erase(known);
    }
  }
  if (!observedBy_.empty()) ask(fresh);
}

// --- Asking ---------------------------------------------------------------------------------------------------------

void ShownFolder::ask(const std::vector<std::string>& names) {
  queue_.insert(queue_.end(), names.begin(), names.end());
  stream_.ask();
}

void ShownFolder::askForAll() {
  queue_.clear();
  for (const auto& [name, item] : items_) queue_.push_back(name);
  stream_.ask();
}

void ShownFolder::retry() {
  failure_.reset();
  stream_.ask();
}

void ShownFolder::forgetRequests() {
  stream_.reset();
  limit_.stop();
  queue_.clear();
  awaited_ = 0;
  failure_.reset();
}

void ShownFolder::waitForAnswers() {
  limit_.start(extension_.timeout(), [this, progress = stream_.progress()] {
    // Runs after all that arrived while a slow reader held up this program.
    work_.add([this, progress] {
      if (stream_.isWaiting() && stream_.progress() == progress) failure_.emplace(extension_.timeoutFailure());
      return false;
    });
  });
}

std::optional<ShownFolder::Batch> ShownFolder::nextBatch() {
  if (failure_ || queue_.empty()) return std::nullopt;
  const auto end = queue_.begin() + static_cast<std::ptrdiff_t>(std::min(dbus::BATCH, queue_.size()));
  Batch batch{path_, 0, {std::make_move_iterator(queue_.begin()), std::make_move_iterator(end)}, {}};
  queue_.erase(queue_.begin(), end);
  awaited_ += batch.names.size();
  waitForAnswers();
  return batch;
}

bool ShownFolder::badgesAnswered(const Batch& batch, std::size_t begin, std::size_t end) {
  awaited_ -= end - begin;
  waitForAnswers();
  for (; begin < end; ++begin) setBadge(batch.names[begin], batch.identifiers[begin]);
  return true;
}

void ShownFolder::requestFailed(Batch batch, const client::CallError& error) {
  awaited_ -= batch.names.size();
  if (!failure_) failure_.emplace(failureOf(error, ""));
  std::move(batch.names.begin(), batch.names.end(), std::back_inserter(queue_));
}

// --- Badges ---------------------------------------------------------------------------------------------------------

void ShownFolder::badgeChanged(const std::string& path, const std::string& identifier) {
  if (client::folderOf(path) != path_) return;
  // The first badge of an item is the answer to our request, which comes after this.
  const std::string name(client::nameOf(path));
  if (!unanswered_.contains(name)) setBadge(name, identifier);
}

void ShownFolder::changesMissed() {
  askForAll();
}

void ShownFolder::setBadge(const std::string& name, const std::string& identifier) {
  const auto found = items_.find(name);
  if (found == items_.end()) return;
  const std::string was = std::exchange(found->second.badge, identifier);
  const bool isNew = unanswered_.erase(name) > 0;
  if (isNew || was != identifier) changed_(found->second, isNew, was);
}

}  // namespace vornet::vi
