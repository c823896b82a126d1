#pragma once

#include <string>
#include <string_view>

namespace vornet::sim {

/// `text` with control characters written as \xNN, so that names cannot move the cursor or forge lines on a terminal.
std::string printable(std::string_view text);

}  // namespace vornet::sim
