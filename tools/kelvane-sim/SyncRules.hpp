#pragma once

#include <string_view>

/// Which names the stand-in sync application can put into its cloud. Pure functions; any thread may call them.
namespace vornet::sim {

/// Whether `bytes` is well-formed UTF-8 (no overlong forms, surrogates or values above U+10FFFF). Items whose names are
/// not are ignored altogether: they have no cloud path.
bool isUtf8(std::string_view bytes) noexcept;

/// Whether an item called `name` (one path component, UTF-8, taken as bytes) can be synced. It cannot when the name
/// - holds one of \ : * ? " < > | or a control character (below U+0020, or U+007F),
/// - ends in a dot or a blank,
/// - begins with "~$" or ends in ".tmp",
/// - is longer than 255 bytes, or empty.
bool isSyncableName(std::string_view name) noexcept;

/// Whether every component of the cloud path `path` ("/a/b") can be synced: nothing below a folder that cannot be
/// synced can be. The root "/" can.
bool isSyncablePath(std::string_view path) noexcept;

}  // namespace vornet::sim
