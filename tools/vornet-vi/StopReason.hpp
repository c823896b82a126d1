#pragma once

#include <optional>
#include <string>

namespace vornet::vi {

/// Why the extension stopped itself the last time it ran, in its own words; none when it ended otherwise, or cannot be
/// told. Reads the end of its log, which is in the group container of this user. Meaningless while the extension runs.
/// Any thread.
std::optional<std::string> lastStopReason();

}  // namespace vornet::vi
