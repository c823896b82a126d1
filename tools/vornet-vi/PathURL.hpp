#pragma once

#include <optional>
#include <string>
#include <string_view>

/// Paths as the user gives them, and the file URLs that the extension speaks. A path is any bytes without NUL.
/// Free functions without state: any thread.
namespace vornet::vi {

/// `given` as an absolute path, relative to `currentFolder` (absolute): "." and ".." are removed by their letters
/// alone, no link is followed, slashes are never doubled, and only "/" ends in one. `given` is not empty.
std::string absolutePath(std::string_view given, std::string_view currentFolder);

/// The current folder as the shell calls it (its links unresolved) where that is still true.
std::string currentFolder();

/// The percent-encoded file URL of an absolute path; bytes that are not UTF-8 are encoded as they are.
std::string urlOfPath(const std::string& path);

/// The path of a file URL without a trailing "/" ("/" itself excepted); none when `url` names no local file.
std::optional<std::string> pathOfURL(const std::string& url);

/// The path of the entry `name` of `folder`.
std::string childPath(std::string_view folder, std::string_view name);

/// The entry's name when `path` lies directly in `folder`; none otherwise.
std::optional<std::string> nameInFolder(std::string_view path, std::string_view folder);

}  // namespace vornet::vi
