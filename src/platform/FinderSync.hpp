#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/AppKit.hpp"
#include "platform/Foundation.hpp"

/// The file manager as the extension sees it. Names and meaning follow Apple's FinderSync framework (its public
/// documentation), because that is the vocabulary of such extensions; on Linux a host plays the Finder's part.
namespace vornet::platform {

/// The place that a menu is for. Values as in the framework.
enum class FIMenuKind : std::uint64_t {
  contextualMenuForItems = 0,
  contextualMenuForContainer = 1,
  contextualMenuForSidebar = 2,
  toolbarItemMenu = 3,
};

/// The base class of an extension's principal class: the callbacks that the file manager makes, on threads of its
/// choice. One that is not overridden answers nothing.
class FIFinderSync {
 public:
  virtual ~FIFinderSync() = default;

  /// A window began or stopped showing a folder.
  virtual void beginObservingDirectoryAtURL(const FileURL&) {}
  virtual void endObservingDirectoryAtURL(const FileURL&) {}

  /// The badge of an item is wanted: answer through FIFinderSyncController::setBadgeIdentifier before returning, or
  /// not.
  virtual void requestBadgeIdentifierForURL(const FileURL&) {}

  /// The menu for a place, or none.
  virtual std::optional<ContextMenu> menuForMenuKind(FIMenuKind) { return std::nullopt; }

  virtual std::string toolbarItemName() const { return {}; }
  virtual std::string toolbarItemToolTip() const { return {}; }
  virtual Image toolbarItemImage() const { return {}; }

 protected:
  FIFinderSync() = default;
  FIFinderSync(const FIFinderSync&) = delete;
  FIFinderSync& operator=(const FIFinderSync&) = delete;

  /// The base class's part of construction. False when the platform gives no object.
  virtual bool initBase() { return true; }
};

/// The file manager's side: badges, observed folders, selection. Any thread.
class FIFinderSyncController {
 public:
  static FIFinderSyncController& defaultController();

  /// Registers a badge: what is drawn, and said, for items whose badge identifier is `identifier`.
  void setBadgeImage(const Image& image, std::string_view label, std::string_view identifier);

  /// Shows the badge `identifier` on `url`; "" removes it. On Linux it may wait until earlier badges have gone out to
  /// the file managers, except for the answer to a request.
  void setBadgeIdentifier(std::string_view identifier, const FileURL& url);

  /// The badges of the items directly in `folder` may have changed: where the file manager can, it asks again for those
  /// that it has asked for. The Finder cannot: on macOS nothing happens, and it asks when it shows the items next.
  void invalidateBadges(const FileURL& folder);

  /// The folders below which the file manager calls the extension.
  std::set<FileURL> directoryURLs() const;
  void setDirectoryURLs(const std::set<FileURL>& urls);

  /// The user's selection, in order, while a menu is requested or an action is performed on this thread; none
  /// when the file manager gives no selection.
  std::optional<std::vector<FileURL>> selectedItemURLs() const;

  FIFinderSyncController(const FIFinderSyncController&) = delete;
  FIFinderSyncController& operator=(const FIFinderSyncController&) = delete;

 private:
  FIFinderSyncController();
  ~FIFinderSyncController();
  struct Impl;
  std::unique_ptr<Impl> impl_;
  friend struct FinderSyncHostAccess;
};

}  // namespace vornet::platform
