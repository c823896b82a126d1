#include "Selections.hpp"

#include <algorithm>

namespace vornet::service {
namespace {

bool hasDotComponent(const std::string& path) {
  for (std::size_t from = 0; from < path.size();) {
    const std::size_t end = std::min(path.find('/', from), path.size());
    const auto component = std::string_view(path).substr(from, end - from);
    if (component == "." || component == "..") return true;
    from = end + 1;
  }
  return false;
}

}  // namespace

std::optional<platform::FileURL> readURL(const std::string& text) {
  auto url = platform::FileURL::fileURLWithText(text);
  if (!url || !url->path()) return url;
  if (hasDotComponent(*url->path())) return std::nullopt;
  if (url->path()->find("//") == std::string::npos) return url;
  std::string path = *url->path();
  path.erase(std::unique(path.begin(), path.end(), [](char a, char b) { return a == '/' && b == '/'; }), path.end());
  return platform::FileURL::fileURLWithPath(path, url->hasDirectoryPath());
}

bool isBelow(const std::set<platform::FileURL>& roots, const std::string& path) {
  if (path.ends_with("/.") || path.ends_with("/..")) return false;
  return std::any_of(roots.begin(), roots.end(), [&](const platform::FileURL& root) {
    if (!root.path() || !path.starts_with(*root.path())) return false;
    const std::size_t size = root.path()->size();
    const bool isBelowIt = *root.path() == "/" ? path.size() > 1 : path.size() > size + 1 && path[size] == '/';
    return isBelowIt && path.find(*root.path(), size) == std::string::npos;
  });
}

bool isWithin(const std::set<platform::FileURL>& roots, const std::string& path) {
  return isBelow(roots, path) ||
         std::any_of(roots.begin(), roots.end(), [&](const platform::FileURL& root) { return root.path() == path; });
}

}  // namespace vornet::service
