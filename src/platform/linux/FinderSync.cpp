#include "platform/FinderSync.hpp"

#include <algorithm>
#include <map>
#include <mutex>
#include <unordered_map>

#include "platform/linux/FinderSyncHost.hpp"

namespace vornet::platform {
namespace {

thread_local host::BadgeRequest* currentRequest = nullptr;
thread_local const std::vector<FileURL>* currentSelection = nullptr;

struct TextHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>{}(text); }
};
template <class Value>
using TextMap = std::unordered_map<std::string, Value, TextHash, std::equal_to<>>;

std::string_view folderOf(std::string_view path) {
  const std::size_t separator = path.find_last_of('/');
  return separator == 0 ? "/" : path.substr(0, separator);
}

}  // namespace

struct FIFinderSyncController::Impl {
  std::mutex lock;
  std::vector<host::RegisteredBadge> registered;
  std::set<FileURL> directories;
  TextMap<TextMap<std::string>> onScreen;  // folder -> item -> badge identifier
  host::Listener* listener = nullptr;

  /// The badge slot of the item with this path; null when its folder is not on screen or none was set.
  std::string* badge(std::string_view path) {
    const auto folder = onScreen.find(folderOf(path));
    if (folder == onScreen.end()) return nullptr;
    const auto item = folder->second.find(path);
    return item == folder->second.end() ? nullptr : &item->second;
  }
};

struct FinderSyncHostAccess {
  static FIFinderSyncController::Impl& impl() { return *FIFinderSyncController::defaultController().impl_; }
  static void answer(host::BadgeRequest& request, std::string_view identifier) { request.answer_ = identifier; }
  static bool asks(const host::BadgeRequest& request, const FileURL& url) { return request.url_ == url; }
};

FIFinderSyncController::FIFinderSyncController() : impl_(std::make_unique<Impl>()) {}
FIFinderSyncController::~FIFinderSyncController() = default;

FIFinderSyncController& FIFinderSyncController::defaultController() {
  // Never destroyed: background threads may set badges until the very end.
  static FIFinderSyncController& controller = *new FIFinderSyncController;
  return controller;
}

void FIFinderSyncController::setBadgeImage(const Image& image, std::string_view label, std::string_view identifier) {
  const std::lock_guard guard(impl_->lock);
  auto& badges = impl_->registered;
  const auto found =
      std::find_if(badges.begin(), badges.end(), [&](const auto& badge) { return badge.identifier == identifier; });
  auto& badge = found == badges.end() ? badges.emplace_back() : *found;
  badge = {std::string(identifier), std::string(label), image};
}

void FIFinderSyncController::setBadgeIdentifier(std::string_view identifier, const FileURL& url) {
  if (!url.path()) return;
  const bool isAnswer = currentRequest && FinderSyncHostAccess::asks(*currentRequest, url);
  if (isAnswer) FinderSyncHostAccess::answer(*currentRequest, identifier);

  const std::lock_guard guard(impl_->lock);
  const auto folder = impl_->onScreen.find(folderOf(*url.path()));
  if (folder == impl_->onScreen.end()) return;
  const auto item = folder->second.find(*url.path());
  if (item == folder->second.end()) {
    folder->second.emplace(*url.path(), identifier);
    if (isAnswer) return;
  } else {
    if (item->second == identifier) return;
    item->second = identifier;
  }
  if (impl_->listener) impl_->listener->badgeChanged(url, std::string(identifier));
}

std::set<FileURL> FIFinderSyncController::directoryURLs() const {
  const std::lock_guard guard(impl_->lock);
  return impl_->directories;
}

void FIFinderSyncController::setDirectoryURLs(const std::set<FileURL>& urls) {
  const std::lock_guard guard(impl_->lock);
  impl_->directories = urls;
  if (impl_->listener) impl_->listener->directoriesChanged();
}

std::optional<std::vector<FileURL>> FIFinderSyncController::selectedItemURLs() const {
  if (!currentSelection) return std::nullopt;
  return *currentSelection;
}

namespace host {

void setListener(Listener* listener) {
  auto& controller = FinderSyncHostAccess::impl();
  const std::lock_guard guard(controller.lock);
  controller.listener = listener;
}

std::vector<RegisteredBadge> registeredBadges() {
  auto& controller = FinderSyncHostAccess::impl();
  const std::lock_guard guard(controller.lock);
  return controller.registered;
}

void folderShown(const std::string& path) {
  auto& controller = FinderSyncHostAccess::impl();
  const std::lock_guard guard(controller.lock);
  controller.onScreen.try_emplace(path);
}

void folderHidden(const std::string& path) {
  auto& controller = FinderSyncHostAccess::impl();
  const std::lock_guard guard(controller.lock);
  controller.onScreen.erase(path);
}

std::vector<FileURL> itemsWithBadges(const std::string& folder) {
  auto& controller = FinderSyncHostAccess::impl();
  const std::lock_guard guard(controller.lock);
  std::vector<FileURL> items;
  if (const auto found = controller.onScreen.find(folder); found != controller.onScreen.end()) {
    for (const auto& [path, identifier] : found->second) items.push_back(FileURL::fileURLWithPath(path));
  }
  return items;
}

std::optional<std::string> badgeIdentifier(const FileURL& url) {
  if (!url.path()) return std::nullopt;
  auto& controller = FinderSyncHostAccess::impl();
  const std::lock_guard guard(controller.lock);
  const auto* badge = controller.badge(*url.path());
  if (!badge) return std::nullopt;
  return *badge;
}

BadgeRequest::BadgeRequest(const FileURL& url) : url_(url), outer_(currentRequest) {
  currentRequest = this;
}
BadgeRequest::~BadgeRequest() {
  currentRequest = outer_;
}

Selection::Selection(const std::vector<FileURL>& selection) : outer_(currentSelection) {
  currentSelection = &selection;
}
Selection::~Selection() {
  currentSelection = outer_;
}

}  // namespace host
}  // namespace vornet::platform
