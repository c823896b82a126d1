#include "PathURL.hpp"

#include <vector>

#include "GLibPtr.hpp"

namespace vornet::vi {

std::string absolutePath(std::string_view given, std::string_view currentFolder) {
  std::string whole;
  if (given.empty() || given.front() != '/') {
    whole.append(currentFolder).push_back('/');
  }
  whole.append(given);

  std::vector<std::string_view> parts;
  const std::string_view view = whole;
  for (std::size_t start = 0; start < view.size();) {
    std::size_t end = view.find('/', start);
    if (end == std::string_view::npos) {
      end = view.size();
    }
    const std::string_view part = view.substr(start, end - start);
    if (part == "..") {
      if (!parts.empty()) {
        parts.pop_back();
      }
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    start = end + 1;
  }

  std::string path;
  for (const std::string_view part : parts) {
    path.append("/").append(part);
  }
  return path.empty() ? "/" : path;
}

std::string currentFolder() {
  const GCharPtr folder{g_get_current_dir()};
  return folder.get();
}

std::string urlOfPath(const std::string& path) {
  const GCharPtr url{g_filename_to_uri(path.c_str(), nullptr, nullptr)};
  return url ? url.get() : std::string{};
}

std::optional<std::string> pathOfURL(const std::string& url) {
  gchar* host = nullptr;
  const GCharPtr file{g_filename_from_uri(url.c_str(), &host, nullptr)};
  const GCharPtr ownedHost{host};
  if (!file || (host != nullptr && *host != '\0' && std::string_view{host} != "localhost")) {
    return std::nullopt;
  }
  std::string path = file.get();
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

std::string childPath(std::string_view folder, std::string_view name) {
  std::string path{folder};
  if (path != "/") {
    path.push_back('/');
  }
  path.append(name);
  return path;
}

std::optional<std::string> nameInFolder(std::string_view path, std::string_view folder) {
  const std::size_t prefix = folder == "/" ? 1 : folder.size() + 1;
  if (path.size() <= prefix || path.substr(0, folder.size()) != folder || path[prefix - 1] != '/') {
    return std::nullopt;
  }
  const std::string_view name = path.substr(prefix);
  if (name.find('/') != std::string_view::npos) {
    return std::nullopt;
  }
  return std::string{name};
}

}  // namespace vornet::vi
