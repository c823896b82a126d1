#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/Foundation.hpp"

/// What clients send as items and folders, read and judged. Pure functions; any thread.
namespace vornet::host {

/// The most URLs that one call may carry.
inline constexpr std::size_t MAX_URLS = 10'000;

/// The file URL in `text`; none when it is malformed or holds "." or ".." components. Its path is absent when it is not
/// UTF-8.
std::optional<platform::FileURL> readURL(const std::string& text);

/// Whether `path` is one of `roots` or lies below one.
bool isWithin(const std::set<platform::FileURL>& roots, const std::string& path);

/// Whether `path` lies below one of `roots`.
bool isBelow(const std::set<platform::FileURL>& roots, const std::string& path);

}  // namespace vornet::host
