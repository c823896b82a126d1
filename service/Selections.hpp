#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/Foundation.hpp"

/// Reads and checks the items and folders that clients send. Pure functions; any thread.
namespace vornet::service {

/// The file URL in `text`; none when it is malformed or holds "." or ".." components. Its path is absent when it is not
/// UTF-8. Repeated slashes count as one, so that a path has one spelling.
std::optional<platform::FileURL> readURL(const std::string& text);

/// True if `path` is one of `roots` or is below one. A path that holds the text of its root a second time ("/R/a/R/b"
/// or "/R/a/Rb" below "/R") does not: the sync application's name for it would be another item's.
bool isWithin(const std::set<platform::FileURL>& roots, const std::string& path);

/// As isWithin, but `roots` themselves are not below one, and neither is what ends in "." or ".." as a component.
bool isBelow(const std::set<platform::FileURL>& roots, const std::string& path);

}  // namespace vornet::service
