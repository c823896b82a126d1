#include "Paths.hpp"

#include <gio/gio.h>

#include <memory>

namespace vornet::client {

std::optional<std::string> pathOfURL(const char* url) {
  if (!url) return std::nullopt;
  gchar* host = nullptr;
  const std::unique_ptr<gchar, decltype(&g_free)> path(g_filename_from_uri(url, &host, nullptr), g_free);
  const bool local = !host || g_str_equal(host, "localhost");
  g_free(host);
  if (!path || !local) return std::nullopt;
  return withoutSlash(path.get());
}

std::string urlOfPath(const std::string& path) {
  const std::unique_ptr<gchar, decltype(&g_free)> url(g_filename_to_uri(path.c_str(), nullptr, nullptr), g_free);
  return url ? url.get() : std::string();
}

std::string withoutSlash(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return std::string(path);
}

std::string_view folderOf(std::string_view path) {
  const auto slash = path.rfind('/');
  if (slash == std::string_view::npos || slash == 0) return "/";
  return path.substr(0, slash);
}

std::string_view nameOf(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

bool isWithin(std::string_view folder, std::string_view path) {
  if (folder == "/") return !path.empty() && path.front() == '/';
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

}  // namespace vornet::client
