#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The Finder's side of the stand-ins, for tests: records the extension's calls in plain C++, and calls the extension.
/// Any thread.
namespace vornet::standin {

/// What happened to the stand-ins, in order: "init" (the base class's part of an object's construction),
/// "badge SYNCED 'Synced' checkmark" (a registration) and "directories".
std::vector<std::string> events();

/// From now on the Finder shows each folder as soon as the extension observes it: it makes the callback, on another
/// thread, before the call that set the folders returns.
void showFoldersAtOnce();

/// The paths of the observed folders, each with "/" at its end when its URL says that it is a folder; sorted.
std::vector<std::string> observedFolders();

/// Every badge that was set, in order: identifier and path.
using Badge = std::pair<std::string, std::string>;
std::vector<Badge> badges();

/// The object that the last badge was set on, and how many autorelease pools the thread had then.
struct Push {
  const void* url = nullptr;
  std::size_t pools = 0;
};
Push lastPush();

/// How many Objective-C objects there are more than at the first call, and how many queues and groups of Dispatch.
std::ptrdiff_t liveObjects();
std::ptrdiff_t liveDispatchObjects();

/// Wait until `badge` was set, or `count` badges were; false after half a minute without.
bool waitForBadge(const Badge& badge);
bool waitForBadges(std::size_t count);

/// Makes these paths the selection; none: there is no selection at all.
void setSelection(const std::optional<std::vector<std::string>>& paths);

/// Makes `count` processes run as applications of every bundle identifier that the extension asks for; 1 at first.
void setRunningApplications(std::size_t count);

/// The bundle identifiers that were asked for.
std::vector<std::string> askedApplications();

/// Makes the base class's part of construction fail.
void refuseConstruction();

/// The folder of the group containers; none: there are none.
void setGroupContainers(const std::optional<std::string>& folder);

}  // namespace vornet::standin
