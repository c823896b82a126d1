#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vornet::client {

// Local paths as the disk has them, and the URLs of them. Any thread. Nothing throws but for want of memory.

/// The path of a percent-encoded file URL, without a "/" at its end; none for other schemes, other hosts, null, or what
/// cannot be decoded.
std::optional<std::string> pathOfURL(const char* url);

/// The percent-encoded file URL of an absolute path.
std::string urlOfPath(const std::string& path);

/// `path` without "/" at its end (but for the root folder's).
std::string withoutSlash(std::string_view path);

/// The folder that holds `path`, and the name in it: "/a/b" -> "/a", "b". The folder of "/" is "/".
std::string_view folderOf(std::string_view path);
std::string_view nameOf(std::string_view path);

/// The path of the entry `name` of `folder`, which has no "/" at its end unless it is the root folder.
std::string childPath(std::string_view folder, std::string_view name);

/// Whether `path` is `folder` itself or lies somewhere below it; both without a "/" at the end.
bool isWithin(std::string_view folder, std::string_view path);

}  // namespace vornet::client
