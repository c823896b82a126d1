#include "platform/FinderSync.hpp"

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>

#include "platform/linux/FinderSyncHost.hpp"

namespace vornet::platform {
namespace {

thread_local host::BadgeRequest* currentRequest = nullptr;
thread_local const std::vector<FileURL>* currentSelection = nullptr;

/// An absolute path, parted at its last separator: {"/a/b", "c"}, {"/", "a"}.
struct Place {
  explicit Place(std::string_view path) {
    // Each badge passes here: the system's search is several times as fast as std::string_view's.
    const auto* const end = static_cast<const char*>(::memrchr(path.data(), '/', path.size()));
    const auto separator = end ? static_cast<std::size_t>(end - path.data()) : 0;
    folder = separator == 0 ? "/" : path.substr(0, separator);
    name = path.substr(separator + 1);
  }
  std::string_view folder;
  std::string_view name;
};

}  // namespace

struct FIFinderSyncController::Impl {
  struct TextHash {
    using is_transparent = void;
    using is_avalanching = void;
    std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>{}(text); }
  };
  template <class Value>
  using TextMap = boost::unordered_flat_map<std::string, Value, TextHash, std::equal_to<>>;

  /// An item of a folder on screen.
  struct Item {
    std::uint64_t version;                  // new after each setting of its badge; never used twice
    std::optional<std::string> identifier;  // none before the first setting
    bool answered = false;                  // a client has its badge, or knows that it has none
    bool askedFor = false;
  };
  struct Folder {
    TextMap<Item> items;       // by name
    std::size_t askedFor = 0;  // of its items, remembered because of a request
    std::size_t onlySet = 0;   // of its items, remembered because a badge was set
  };

  std::mutex lock;
  std::vector<host::RegisteredBadge> registered;
  std::set<FileURL> directories;
  TextMap<Folder> onScreen;  // by path
  std::size_t askedFor = 0;  // in all folders
  std::size_t onlySet = 0;   // in all folders
  std::uint64_t versions = 0;
  std::uint64_t overlooked = 0;  // the version when a badge was last set on an item that is not remembered
  host::Listener* listener = nullptr;
  bool isListenerFull = false;
  std::condition_variable room;  // the listener has room again

  Folder* folderOnScreen(std::string_view path) {
    const auto folder = onScreen.find(path);
    return folder == onScreen.end() ? nullptr : &folder->second;
  }

  /// The item with this path; null when its folder is not on screen, or nothing is known of it.
  Item* item(std::string_view path) {
    const Place place(path);
    auto* folder = folderOnScreen(place.folder);
    if (!folder) return nullptr;
    const auto item = folder->items.find(place.name);
    return item == folder->items.end() ? nullptr : &item->second;
  }

  /// As item(), for a requested one: it is remembered from now on, unless there are too many.
  Item* askedItem(std::string_view path) {
    const Place place(path);
    auto* folder = folderOnScreen(place.folder);
    if (!folder) return nullptr;
    auto found = folder->items.find(place.name);
    const bool isNew = found == folder->items.end();
    if (!isNew && found->second.askedFor) return &found->second;
    if (askedFor >= host::MAX_ITEMS_ASKED_FOR) return isNew ? nullptr : &found->second;
    ++askedFor;
    ++folder->askedFor;
    if (isNew) {
      found = folder->items.emplace(place.name, Item{++versions, std::nullopt}).first;
    } else {
      --onlySet;
      --folder->onlySet;
    }
    found->second.askedFor = true;
    return &found->second;
  }

  /// As item(), for one of `folder` on which a badge is being set: it is remembered likewise.
  Item* itemToSet(Folder& folder, std::string_view name) {
    if (const auto found = folder.items.find(name); found != folder.items.end()) return &found->second;
    if (onlySet >= host::MAX_ITEMS_ONLY_SET) return nullptr;
    ++onlySet;
    ++folder.onlySet;
    return &folder.items.emplace(name, Item{0, std::nullopt}).first->second;
  }

  /// Sets the badge of an item, and reports it to the listener if a client must learn it.
  void set(Item& item, const FileURL& url, std::string_view identifier, bool isAnswer) {
    item.version = ++versions;
    const bool isNews = item.identifier ? *item.identifier != identifier : !isAnswer || item.answered;
    item.identifier = identifier;
    if (isNews) tell(url, *item.identifier);
  }

  void tell(const FileURL& url, const std::string& identifier) {
    if (listener && !listener->badgeChanged(url, identifier)) isListenerFull = true;
  }

  void forget(const Folder& folder) {
    askedFor -= folder.askedFor;
    onlySet -= folder.onlySet;
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
  if (currentRequest && FinderSyncHostAccess::asks(*currentRequest, url)) {
    FinderSyncHostAccess::answer(*currentRequest, identifier);
    return;
  }
  std::unique_lock guard(impl_->lock);
  impl_->room.wait(guard, [this] { return !impl_->isListenerFull; });
  const Place place(*url.path());
  auto* folder = impl_->folderOnScreen(place.folder);
  if (!folder) return;
  if (auto* item = impl_->itemToSet(*folder, place.name)) {
    impl_->set(*item, url, identifier, false);
  } else {
    impl_->overlooked = ++impl_->versions;
    impl_->tell(url, std::string(identifier));
  }
}

void FIFinderSyncController::invalidateBadges(const FileURL& folder) {
  const std::lock_guard guard(impl_->lock);
  if (impl_->listener && folder.path()) impl_->listener->badgesInvalidated(folder);
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
  controller.isListenerFull = false;
  controller.room.notify_all();
}

void listenerHasRoom() {
  auto& controller = FinderSyncHostAccess::impl();
  const std::lock_guard guard(controller.lock);
  controller.isListenerFull = false;
  controller.room.notify_all();
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
  const auto folder = controller.onScreen.find(path);
  if (folder == controller.onScreen.end()) return;
  controller.forget(folder->second);
  controller.onScreen.erase(folder);
}

std::vector<FileURL> itemsOnScreen(const std::string& folder) {
  auto& controller = FinderSyncHostAccess::impl();
  const std::lock_guard guard(controller.lock);
  std::vector<FileURL> items;
  if (const auto found = controller.onScreen.find(folder); found != controller.onScreen.end()) {
    items.reserve(found->second.items.size());
    const std::string prefix = folder == "/" ? folder : folder + "/";
    for (const auto& [name, item] : found->second.items) items.push_back(FileURL::fileURLWithPath(prefix + name));
  }
  return items;
}

std::uint64_t lastSetting() {
  auto& controller = FinderSyncHostAccess::impl();
  const std::lock_guard guard(controller.lock);
  return controller.versions;
}

std::map<std::string, ShownBadge, std::less<>> badgesOnScreen(const std::string& folder) {
  auto& controller = FinderSyncHostAccess::impl();
  const std::lock_guard guard(controller.lock);
  std::map<std::string, ShownBadge, std::less<>> badges;
  const auto found = controller.onScreen.find(folder);
  if (found == controller.onScreen.end()) return badges;
  for (const auto& [name, item] : found->second.items)
    if (item.identifier) badges.emplace(name, ShownBadge{*item.identifier, item.version});
  return badges;
}

void noteSent(const FileURL& url, const ShownBadge& shown, std::string_view identifier) {
  auto& controller = FinderSyncHostAccess::impl();
  const std::lock_guard guard(controller.lock);
  auto* item = url.path() ? controller.item(*url.path()) : nullptr;
  if (item && item->version == shown.setting) controller.set(*item, url, identifier, true);
}

std::optional<std::string> badgeIdentifier(const FileURL& url) {
  if (!url.path()) return std::nullopt;
  auto& controller = FinderSyncHostAccess::impl();
  const std::lock_guard guard(controller.lock);
  const auto* item = controller.item(*url.path());
  return item ? item->identifier : std::nullopt;
}

bool isOverlooked(const FileURL& url) {
  if (!url.path()) return false;
  auto& controller = FinderSyncHostAccess::impl();
  const std::lock_guard guard(controller.lock);
  return controller.folderOnScreen(Place(*url.path()).folder) && !controller.item(*url.path());
}

BadgeRequest::BadgeRequest(const FileURL& url) : url_(url), outer_(currentRequest) {
  if (url.path()) {
    auto& controller = FinderSyncHostAccess::impl();
    const std::lock_guard guard(controller.lock);
    if (const auto* item = controller.askedItem(*url.path())) version_ = item->version;
    begun_ = controller.versions;
  }
  currentRequest = this;
}
BadgeRequest::~BadgeRequest() {
  currentRequest = outer_;
}

bool BadgeRequest::apply() {
  if (!url_.path()) return true;
  auto& controller = FinderSyncHostAccess::impl();
  const std::lock_guard guard(controller.lock);
  auto* item = controller.item(*url_.path());
  if (item && item->version != version_) return false;
  const bool wasKnown = item && (item->identifier || item->answered);
  // Of an item that is not remembered, a badge set meanwhile may be newer than the answer.
  const bool isNewest = item || controller.overlooked <= begun_;
  if (!wasKnown && isNewest && !withdrawn_ && controller.listener)
    controller.listener->badgeAnswered(url_, answer_.value_or(""));
  if (!item) return true;
  if (answer_) controller.set(*item, url_, *answer_, true);
  item->answered = true;
  return true;
}

Selection::Selection(const std::vector<FileURL>& selection) : outer_(currentSelection) {
  currentSelection = &selection;
}
Selection::~Selection() {
  currentSelection = outer_;
}

}  // namespace host
}  // namespace vornet::platform
