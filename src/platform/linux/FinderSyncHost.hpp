#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/FinderSync.hpp"

namespace vornet::platform {
struct FinderSyncHostAccess;
}

/// The host's side of FIFinderSyncController on Linux: what a file manager knows and shows. Any thread.
namespace vornet::platform::host {

/// Called by the controller under its lock, from any thread. It records what happened and returns; it must not call
/// back.
class Listener {
 public:
  virtual ~Listener() = default;

  /// The badge of `url`, an item of a folder on screen, is now `identifier` ("" none). As far as is remembered, another
  /// one was reported last. False when so many changes wait that no further badge should be set before
  /// listenerHasRoom() is called.
  virtual bool badgeChanged(const FileURL& url, const std::string& identifier) = 0;

  /// A request for the badge of `url`, of which nothing was remembered, is answered with `identifier`: a change of it
  /// that still waits is older than that. Not called when it could be newer.
  virtual void badgeAnswered(const FileURL& url, const std::string& identifier) = 0;

  /// The badges of the items directly in `folder` must be requested again.
  virtual void badgesInvalidated(const FileURL& folder) = 0;

  /// The set of observed folders was replaced.
  virtual void directoriesChanged() = 0;
};

/// Sets the listener; null for none. Once this returns the former one is no longer called.
void setListener(Listener* listener);

/// The listener takes changes again: wakes those that wait in setBadgeIdentifier.
void listenerHasRoom();

struct RegisteredBadge {
  std::string identifier;
  std::string label;
  Image image;
};

/// The registered badges in the order of their first registration.
std::vector<RegisteredBadge> registeredBadges();

/// The folder with this path came on screen, or left it. Badges are kept for the items of folders on screen only.
void folderShown(const std::string& path);
void folderHidden(const std::string& path);

/// The most items that are remembered only because they were asked for, in all folders together.
inline constexpr std::size_t MAX_ITEMS_ASKED_FOR = 200'000;

/// The most items that are remembered though nobody asked for them, only because a badge was set on them, in all
/// folders together. Few: there may be millions of them, and who shows an item asks for it.
inline constexpr std::size_t MAX_ITEMS_ONLY_SET = 1'000;

/// The items of the folder with this path that are remembered: while it is on screen, those that were asked for or on
/// which a badge was set, up to the numbers above.
std::vector<FileURL> itemsOnScreen(const std::string& folder);

/// A number that has become larger when a badge is set.
std::uint64_t lastSetting();

struct ShownBadge {
  std::string identifier;
  std::uint64_t setting;  ///< lastSetting() when it was set

  bool operator==(const ShownBadge&) const = default;
};

/// The badges of the items of the folder with this path that are remembered and have had a badge set, by name.
std::map<std::string, ShownBadge, std::less<>> badgesOnScreen(const std::string& folder);

/// Sets the badge of an item of which `shown` was listed: it was sent. Does nothing when one has been set since.
void noteSent(const FileURL& url, const ShownBadge& shown, std::string_view identifier);

/// The badge last set on `url`, while it is remembered; none when none was set.
std::optional<std::string> badgeIdentifier(const FileURL& url);

/// True if nothing is remembered of `url`, though its folder is on screen.
bool isOverlooked(const FileURL& url);

/// A request for the badge of `url`. While it lives, a badge that this thread sets on `url` is the answer, and has no
/// other effect before apply(). One thread.
class BadgeRequest {
 public:
  /// Begins the request, before the badge is determined. From now on the item is remembered while its folder is on
  /// screen, whatever the answer is.
  explicit BadgeRequest(const FileURL& url);
  ~BadgeRequest();
  BadgeRequest(const BadgeRequest&) = delete;
  BadgeRequest& operator=(const BadgeRequest&) = delete;

  /// The identifier that was set; none when none was.
  const std::optional<std::string>& answer() const { return answer_; }

  /// Drops the answer: it cannot be trusted.
  void withdraw() {
    answer_.reset();
    withdrawn_ = true;
  }

  /// Shows the answer on the item while its folder is on screen; an absent answer leaves its badge as it is. The
  /// listener is called if another badge was reported before. False, and nothing is done, when a badge was set on the
  /// item since the request began: the answer may be the older one, and must be requested again.
  bool apply();

 private:
  friend struct platform::FinderSyncHostAccess;
  const FileURL& url_;
  std::uint64_t version_ = 0;  // of the item's badge when the request began; 0 while its folder is not on screen
  std::uint64_t begun_ = 0;    // the number of versions then
  std::optional<std::string> answer_;
  bool withdrawn_ = false;
  BadgeRequest* outer_;
};

/// While it lives, `selection` is the user's selection for this thread.
class Selection {
 public:
  explicit Selection(const std::vector<FileURL>& selection);
  ~Selection();
  Selection(const Selection&) = delete;
  Selection& operator=(const Selection&) = delete;

 private:
  const std::vector<FileURL>* outer_;
};

}  // namespace vornet::platform::host
