#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The Finder's side of the stand-ins, for tests: records the extension's calls in plain C++, and calls the extension.
/// Any thread.
namespace vornet::standin {

/// From now on the Finder shows each folder as soon as the extension observes it: it makes the callback, on another
/// thread, before the call that set the folders returns.
void showFoldersAtOnce();

/// A badge that was set: identifier and path.
using Badge = std::pair<std::string, std::string>;

/// What the stand-ins have seen of the extension.
struct Seen {
  /// In order: "init" (the base class's part of an object's construction), "badge SYNCED 'Synced' checkmark" (a
  /// registration) and "directories".
  std::vector<std::string> events;
  std::vector<std::string> folders;  ///< observed; with "/" at the end when the URL says that it is a folder; sorted
  std::vector<Badge> badges;         ///< every one, in order
  const void* lastURL = nullptr;     ///< the object that the last badge was set on
  std::size_t lastPools = 0;         ///< how many autorelease pools the thread had then
  std::vector<std::string> askedApplications;  ///< the bundle identifiers that were asked for
};
Seen seen();

/// How many Objective-C objects there are more than at the first call, and how many queues and groups of Dispatch.
std::ptrdiff_t liveObjects();
std::ptrdiff_t liveDispatchObjects();

/// Makes these paths the selection; none: there is no selection at all.
void setSelection(const std::optional<std::vector<std::string>>& paths);

/// Makes `count` processes run as applications of every bundle identifier that the extension asks for; 1 at first.
void setRunningApplications(std::size_t count);

/// Makes the base class's part of construction fail.
void refuseConstruction();

/// The folder of the group containers; none: there are none.
void setGroupContainers(const std::optional<std::string>& folder);

}  // namespace vornet::standin
