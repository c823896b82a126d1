#include "ShownFolder.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

#include "client/Paths.hpp"
#include "dbus/Interface.hpp"

namespace vornet::vi {
namespace {

constexpr std::size_t BATCHES_IN_FLIGHT = 4;

}  // namespace

ShownFolder::ShownFolder(Extension& extension, std::string path, Changed changed)
    : extension_(extension), path_(std::move(path)), changed_(std::move(changed)) {
  extension_.onBadgeChanged([this](const std::string& item, const std::string& identifier) {
    if (client::folderOf(item) != path_) return;
    // The first badge of an item is the answer to our request, which comes after this.
    const std::string name(client::nameOf(item));
    if (!unanswered_.contains(name)) setBadge(name, identifier);
  });
}

ShownFolder::~ShownFolder() {
  extension_.onBadgeChanged(nullptr);
}

// --- Observing ------------------------------------------------------------------------------------------------------

void ShownFolder::observe() {
  try {
    extension_.beginObserving(path_);
    hasRoom_ = true;
  } catch (const Failure& failure) {
    if (failure.kind() != FailureKind::noRoom) throw;
    hasRoom_ = false;
  }
  observedBy_ = extension_.owner();
  forgetRequests();
  std::vector<std::string> names;
  for (const auto& [name, item] : items_) names.push_back(name);
  ask(names);
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

void ShownFolder::setBadge(const std::string& name, const std::string& identifier) {
  const auto found = items_.find(name);
  if (found == items_.end()) return;
  const std::string was = std::exchange(found->second.badge, identifier);
  const bool isNew = unanswered_.erase(name) > 0;
  if (isNew || was != identifier) changed_(found->second, isNew, was);
}

// --- Asking ---------------------------------------------------------------------------------------------------------

void ShownFolder::ask(const std::vector<std::string>& names) {
  queue_.insert(queue_.end(), names.begin(), names.end());
  askNext();
}

void ShownFolder::retry() {
  failure_.reset();
  askNext();
}

void ShownFolder::forgetRequests() {
  ++generation_;
  queue_.clear();
  inFlight_ = 0;
  failure_.reset();
}

void ShownFolder::askNext() {
  while (!failure_ && inFlight_ < BATCHES_IN_FLIGHT && !queue_.empty()) {
    const auto end = queue_.begin() + static_cast<std::ptrdiff_t>(std::min(dbus::BATCH, queue_.size()));
    std::vector<std::string> names(std::make_move_iterator(queue_.begin()), std::make_move_iterator(end));
    queue_.erase(queue_.begin(), end);
    std::vector<std::string> paths;
    for (const std::string& name : names) paths.push_back(client::childPath(path_, name));
    ++inFlight_;
    const auto answer = [this, generation = generation_, names = std::move(names)](
                            const std::vector<std::string>& identifiers, const std::optional<Failure>& failure) {
      if (generation == generation_) answered(names, identifiers, failure);
    };
    extension_.requestBadges(paths, answer);
  }
}

void ShownFolder::answered(const std::vector<std::string>& names, const std::vector<std::string>& identifiers,
                           const std::optional<Failure>& failure) {
  --inFlight_;
  if (failure) {
    if (!failure_) failure_.emplace(*failure);
    queue_.insert(queue_.end(), names.begin(), names.end());
    return;
  }
  for (std::size_t i = 0; i < names.size(); ++i) setBadge(names[i], identifiers[i]);
  askNext();
}

}  // namespace vornet::vi
