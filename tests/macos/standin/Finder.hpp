#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The Finder's side of the stand-ins, for tests: what the extension told it, in plain C++, and what it tells the
/// extension. Any thread.
namespace vornet::standin {

/// What happened to the stand-ins, in order: "init" (the base class's part of an object's construction),
/// "badge SYNCED 'Synced' checkmark" (a registration) and "directories".
std::vector<std::string> events();

/// The paths of the observed folders, each with "/" at its end when its URL says that it is a folder; sorted.
std::vector<std::string> observedFolders();

/// Every badge that was set, in order: identifier and path.
using Badge = std::pair<std::string, std::string>;
std::vector<Badge> badges();

/// Waits until `badge` was set; false after half a minute without.
bool waitForBadge(const Badge& badge);

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
