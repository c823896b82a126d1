#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/// Values as log messages show them. Pure functions; any thread.
namespace vornet {

/// `text` in double quotes, escaped as for debugging: \" \\ \n \r \t \0, other control characters as \u{1B}.
std::string printedForm(std::string_view text);

/// A list: ["/a", "/b"]; an empty one: [].
std::string printedForm(const std::vector<std::string>& texts);

/// A map: ["1": true, "3": false]; an empty one: [:].
std::string printedForm(const std::map<std::string, bool>& map);

/// Raw bytes in groups of four, in hexadecimal: <7b223122 3a747275 657d>.
std::string printedBytes(std::string_view bytes);

}  // namespace vornet
