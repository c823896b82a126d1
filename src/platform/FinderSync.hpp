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

/// Where a menu is asked for. Values as in the framework.
enum class FIMenuKind : std::uint64_t {
  contextualMenuForItems = 0,
  contextualMenuForContainer = 1,
  contextualMenuForSidebar = 2,
  toolbarItemMenu = 3,
};

/// The base class of an extension's principal class: the callbacks that the file manager makes, on threads of its
/// choice.
class FIFinderSync {
 public:
  virtual ~FIFinderSync() = default;

  /// A window began, or ceased, to show the folder `url`.
  virtual void beginObservingDirectoryAtURL(const FileURL& url);
  virtual void endObservingDirectoryAtURL(const FileURL& url);

  /// The badge of `url` is wanted: answer through FIFinderSyncController::setBadgeIdentifier before returning, or not.
  virtual void requestBadgeIdentifierForURL(const FileURL& url);

  /// The menu for `kind`, or none.
  virtual std::optional<ContextMenu> menuForMenuKind(FIMenuKind kind);

  virtual std::string toolbarItemName() const;
  virtual std::string toolbarItemToolTip() const;
  virtual Image toolbarItemImage() const;

 protected:
  FIFinderSync() = default;
  FIFinderSync(const FIFinderSync&) = delete;
  FIFinderSync& operator=(const FIFinderSync&) = delete;

  /// The base class's part of construction. False when the platform gives no object.
  virtual bool initBase();
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

  /// What the user has selected, in order, while a menu is asked for or an action is performed on this thread; none
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
