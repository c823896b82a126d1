#include "Paths.hpp"

#include "dbus/GLibPtr.hpp"

namespace vornet::client {

std::optional<std::string> pathOfURL(const char* url) {
  if (!url) return std::nullopt;
  gchar* host = nullptr;
  const GCharPtr path(g_filename_from_uri(url, &host, nullptr));
  const GCharPtr ownedHost(host);
  const bool local = !host || !*host || g_str_equal(host, "localhost");
  if (!path || !local) return std::nullopt;
  return withoutSlash(path.get());
}

std::string urlOfPath(const std::string& path) {
  const GCharPtr url(g_filename_to_uri(path.c_str(), nullptr, nullptr));
  return url ? url.get() : std::string();
}

GVariant* urlsOf(const std::vector<std::string>& paths) {
  GVariantBuilder urls;
  g_variant_builder_init(&urls, G_VARIANT_TYPE_STRING_ARRAY);
  for (const auto& path : paths) g_variant_builder_add(&urls, "s", urlOfPath(path).c_str());
  return g_variant_builder_end(&urls);
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

std::string childPath(std::string_view folder, std::string_view name) {
  std::string path(folder);
  if (path != "/") path += '/';
  return path.append(name);
}

bool isWithin(std::string_view folder, std::string_view path) {
  if (folder == "/") return !path.empty() && path.front() == '/';
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

}  // namespace vornet::client
