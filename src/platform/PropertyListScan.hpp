#pragma once

#include <cstddef>
#include <string_view>

namespace vornet::platform {

/// The most that a property list may be, far above any sync application's preferences.
inline constexpr std::size_t MAX_PROPERTY_LIST_BYTES = std::size_t{256} << 10;
inline constexpr std::size_t MAX_PROPERTY_LIST_DEPTH = 64;  ///< dictionaries and arrays within each other
/// Keys, values, and character references in their text. A binary list may refer to the same object more than once:
/// each reference counts, with all that the object holds.
inline constexpr std::size_t MAX_PROPERTY_LIST_OBJECTS = 10'000;
/// Text and data of a binary list, each reference counted likewise.
inline constexpr std::size_t MAX_PROPERTY_LIST_EXPANSION = std::size_t{1} << 20;

enum class PropertyListFormat { none, xml, binary };

/// The format of the property list `bytes`; `none` unless it is well-formed and within the limits above, so that a
/// reader can be trusted with it. A reader may still refuse it. No text of it holds a NUL. XML must be UTF-8, complete,
/// and must define no entities. Needs little memory, and time proportional to the limits, whatever the bytes are.
/// Touches nothing; any thread.
PropertyListFormat scanPropertyList(std::string_view bytes);

}  // namespace vornet::platform
