#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/FinderSync.hpp"
#include "rest/RESTClient.hpp"
#include "rest/RESTPollingManager.hpp"
#include "rest/StatusSink.hpp"

namespace vornet {

/// An object as a selector's argument: nothing, a text, a number, or a file URL.
using SelectorObject = std::variant<std::monostate, std::string, std::int64_t, platform::FileURL>;
/// A selector's argument: an object, or a set of them.
using SelectorArgument = std::variant<SelectorObject, std::vector<SelectorObject>>;
/// A selector's result: nothing, a text, an image, or an optional menu.
using SelectorResult = std::variant<std::monostate, std::string, platform::Image, std::optional<platform::ContextMenu>>;

/// The extension's principal class, which the file manager makes and calls back on threads of its choice. Answers badge
/// requests from what the status manager already knows; asks the sync application only for menus and actions, on the
/// calling thread, for at most 3 seconds each.
class FinderSync : public platform::FIFinderSync, public StatusSink {
 public:
  /// An object that init() has still to bring to life.
  FinderSync() = default;

  /// Brings the controller to life: ends the process, status 0, when another one of the extension runs; sets up logging
  /// and the status manager when this is the process's first controller; registers the badges; looks for the synced
  /// folder. False when the platform gives no object. The first controller must outlive the status manager's worker.
  bool init();

  /// A client of this controller's own, which none of its operations uses.
  /// Kept ready; nothing calls it yet.
  const RESTClient& client() const noexcept { return client_; }
  /// Kept ready; nothing calls it yet.
  void setClient(const RESTClient& client) noexcept { client_ = client; }

  /// Shows the badge of `status` on `url`; a status without one removes it.
  void setFileSyncStatus(const platform::FileURL& url, std::int64_t status) override;

  /// After the first fill, has the file manager ask again, where it can, for the badges of the items in `folder`.
  void folderFilled(const platform::FileURL& folder, bool first) override;

  void syncApplicationAnswered(bool answered) override;

  /// Gets, after each request, since when the sync application has not answered; none when it has just answered.
  using AnswerListener = std::function<void(const std::optional<platform::Date>& silentSince)>;
  /// Has `listener` called from any thread; a null one is not. Once this returns the former one is no longer called.
  void setAnswerListener(AnswerListener listener);

  /// Makes `dirs`, or nothing, the folders that the file manager observes for this extension.
  void enableVI(const std::set<platform::FileURL>& dirs) override;
  void disableVI();

  /// A URL without a path, or a missing status manager, stops the process.
  void beginObservingDirectoryAtURL(const platform::FileURL& url) override;
  void endObservingDirectoryAtURL(const platform::FileURL& url) override;

  /// Sets the badge of `url` before returning when its status is known and has one; else leaves it as it is.
  void requestBadgeIdentifierForURL(const platform::FileURL& url) override;

  /// True if requestBadgeIdentifierForURL answers for `url` from memory now. False while the synced folder is unknown,
  /// and for a URL without a path. Never waits.
  bool isCached(const platform::FileURL& url) const;

  /// Takes the name and the badge of an item; no badge for one whose status leaves the badge as it is.
  using BadgeListener = std::function<void(std::string_view name, std::optional<std::string_view> identifier)>;

  /// As RESTPollingManager::listCached and listStored, with the badges that requestBadgeIdentifierForURL sets.
  /// `folder`: a local path.
  RESTPollingManager::Listed listCachedBadges(const std::string& folder, std::size_t most,
                                              const BadgeListener& item) const;
  RESTPollingManager::Listed listStoredBadges(const std::string& folder, std::size_t most,
                                              const BadgeListener& item) const;

  /// As RESTPollingManager::cachedStatuses.
  std::shared_ptr<const StatusTable> cachedStatuses(const std::string& folder) const;

  /// The most folders that can be kept up to date at the same time.
  static constexpr std::size_t MAX_FOLDERS = 50;

  /// Makes `folder` (a local path), which is being observed, the last of these folders to be given up for another.
  void keepCached(const std::string& folder);

  std::string toolbarItemName() const override;
  std::string toolbarItemToolTip() const override;
  platform::Image toolbarItemImage() const override;

  /// The five entries for the selected items, enabled as the sync application says; none for any other kind of menu and
  /// while the synced folder is unknown.
  std::optional<platform::ContextMenu> menuForMenuKind(platform::FIMenuKind kind) override;

  /// True if `selector` is the action of one of the menu's entries. Any thread.
  static bool isMenuAction(std::string_view selector);

  // The actions of the menu's entries, on the current selection. The sender is ignored.
  void viewInCloud();
  void notes();
  void viewVersions();
  void share();
  void copyLink();

  /// True if `selector` ("share:", "setFileSyncStatus:status:", …) names an operation of this class.
  /// Kept ready; nothing calls it yet.
  static bool respondsToSelector(std::string_view selector);

  /// Performs the operation that `selector` names. Missing arguments count as absent objects; an unknown selector, and
  /// an argument of another kind than the operation takes, stop the process.
  SelectorResult performSelector(std::string_view selector, const std::vector<SelectorArgument>& arguments = {});

 private:
  /// The cloud paths of the selected items that exist.
  std::vector<std::string> selectedCloudPaths() const;

  RESTClient client_;

  std::mutex answerLock_;
  AnswerListener answerListener_;
  std::optional<platform::Date> silentSince_;
};

}  // namespace vornet
