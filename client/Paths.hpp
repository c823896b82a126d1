#pragma once

#include <glib.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vornet::client {

// Local paths, with the bytes they have on disk, and their URLs. Any thread. Nothing throws unless memory runs out.

/// The path of a percent-encoded file URL, without a "/" at its end; none for other schemes, other hosts, null, or what
/// cannot be decoded.
std::optional<std::string> pathOfURL(const char* url);

/// The percent-encoded file URL of an absolute path.
std::string urlOfPath(const std::string& path);

/// The URLs of `paths` as an argument of a call, an "as"; floating.
GVariant* urlsOf(const std::vector<std::string>& paths);

/// `path` without "/" at its end (but for the root folder's).
std::string withoutSlash(std::string_view path);

/// The folder that holds `path`, and the name in it: "/a/b" -> "/a", "b". The folder of "/" is "/".
std::string_view folderOf(std::string_view path);
std::string_view nameOf(std::string_view path);

/// The path of the entry `name` of `folder`, which has no "/" at its end unless it is the root folder.
std::string childPath(std::string_view folder, std::string_view name);

/// True if `path` is `folder` itself or is somewhere below it; both without a "/" at the end.
bool isWithin(std::string_view folder, std::string_view path);

}  // namespace vornet::client
