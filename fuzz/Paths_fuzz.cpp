// URLs and paths: each survives conversion to the other and back; the extension and the plug-ins read every URL alike.
#include "paths/Paths.hpp"

#include <glib.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>

#include "cache/DirCache.hpp"
#include "client/Paths.hpp"
#include "platform/Foundation.hpp"
#include "support/Require.hpp"

namespace vornet::fuzz {
namespace {

using platform::FileURL;

bool isPath(std::string_view path) {
  return path.starts_with('/') && path.find('\0') == std::string_view::npos;
}

std::string withoutSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

/// Letters, digits, percent escapes and `others`.
bool consistsOf(std::string_view text, std::string_view others) {
  return std::all_of(text.begin(), text.end(), [&](char c) {
    return g_ascii_isalnum(c) || c == '%' || others.find(c) != std::string_view::npos;
  });
}

void checkUTF8(const std::string& text) {
  if (text.find('\0') != std::string::npos) return;  // GLib's never holds one
  const bool valid = g_utf8_validate_len(text.data(), text.size(), nullptr) != FALSE;
  require(platform::isValidUTF8(text) == valid, "UTF-8 is judged as GLib does");
}

/// Any bytes as a URL's text.
void checkURLText(const std::string& text) {
  const auto url = FileURL::fileURLWithText(text);
  const auto path = text.find('\0') == std::string::npos ? client::pathOfURL(text.c_str()) : std::nullopt;
  if (path) {
    require(isPath(*path) && *path == withoutSlashes(*path),
            "a plug-in's path is absolute, without a slash at its end");
    require(client::pathOfURL(client::urlOfPath(*path).c_str()) == path, "a plug-in's path survives the way to a URL");
  }
  if (!url) return;
  if (!url->path()) {
    require(url->description().empty(), "a URL without a path has no text");
    require(!path || !platform::isValidUTF8(*path), "only what is not UTF-8 gives a URL without a path");
    return;
  }
  require(isPath(*url->path()) && *url->path() == withoutSlashes(*url->path()),
          "a path is absolute, without a slash at its end");
  require(platform::isValidUTF8(*url->path()), "a path that came as a URL is UTF-8");
  require(!path || path == url->path(), "the extension and the plug-ins read the same path");
  const std::string description = url->description();
  const auto again = FileURL::fileURLWithText(description);
  require(again && *again == *url && again->hasDirectoryPath() == (url->hasDirectoryPath() || *url->path() == "/"),
          "a URL survives the way to its text");
}

/// Any bytes as an absolute path.
void checkPath(const std::string& path) {
  if (!isPath(path)) return;
  const std::string expected = withoutSlashes(path);
  for (const bool isDirectory : {false, true}) {
    const auto url = FileURL::fileURLWithPath(path, isDirectory);
    require(url.path() == expected && url.hasDirectoryPath() == isDirectory, "a URL has the path it was made of");
    const std::string text = url.description();
    require(text.starts_with("file:///") && consistsOf(text, "-._~!$&'()*+,=:@/"), "a URL's text is percent-encoded");
    require(client::pathOfURL(text.c_str()) == expected, "the plug-ins read what the extension wrote");
  }
  const auto url = FileURL::fileURLWithText(client::urlOfPath(path));
  require(url.has_value(), "the extension takes every URL of the plug-ins");
  require(url->path() == (platform::isValidUTF8(path) ? std::optional(expected) : std::nullopt),
          "the extension reads what the plug-ins wrote");

  if (expected.find("//") != std::string::npos) return;  // file managers know none
  const std::string_view folder = client::folderOf(expected);
  const std::string_view name = client::nameOf(expected);
  require(name.find('/') == std::string_view::npos, "a name has no slash");
  require((folder == "/" ? "/" : std::string(folder) + "/") + std::string(name) == expected,
          "folder and name make up the path");
  require(client::isWithin(folder, expected) && client::isWithin(expected, expected + "/x"),
          "an item is in its folder");
  require(expected == "/" || !client::isWithin(expected, expected + "x"), "what only begins alike is elsewhere");
}

void checkFolderKey(const std::string& path) {
  const std::string_view key = folderKey(path);
  require(key == "/" || (path.starts_with(key) && key.ends_with('/')), "a folder's key is a part of the path");
  require(folderKey(path + "/") == key, "a folder's own slash does not count");
  const bool hasName = path.find_first_not_of('/') != std::string::npos;
  if (hasName) require(folderKey(path + "//x") == withoutSlashes(path) + "/", "the key of an item is its folder");
}

/// `path` without any occurrence of `part`, found from left to right.
std::string removingAll(const std::string& path, const std::string& part) {
  std::string result;
  for (std::size_t at = 0; at < path.size();)
    if (!part.empty() && path.compare(at, part.size(), part) == 0)
      at += part.size();
    else
      result += path[at++];
  return result;
}

void checkCloudPath(const std::string& rootPath, const std::string& path) {
  const auto root = FileURL::fileURLWithPath("/" + rootPath);
  require(getCloudPath(root, path) == removingAll(path, *root.path()), "a cloud path is the path without the root's");
  require(getCloudPath(root, root).empty(), "the root's cloud path is empty");
  const std::string item = *root.path() + "/" + path;
  const std::string cloudPath = getCloudPath(root, item);
  const bool rootOccursOnce = item.find(*root.path(), 1) == std::string::npos;
  if (!rootOccursOnce) return;
  require(cloudPath == "/" + path, "an item's cloud path begins below the root");
  require(getLocalPath(root, cloudPath) == FileURL::fileURLWithPath(item), "a cloud path leads back to its item");
}

void checkEscape(const std::string& text) {
  if (!platform::isValidUTF8(text)) return;
  const std::string escaped = escape(text);
  require(consistsOf(escaped, "-._~!$&'()*+,;=:@/?"), "only what a query may hold is left");
  if (text.find('\0') != std::string::npos) return;  // GLib refuses it
  const std::unique_ptr<gchar, decltype(&g_free)> decoded(g_uri_unescape_string(escaped.c_str(), nullptr), g_free);
  require(decoded && text == decoded.get(), "what was escaped can be read back");
}

}  // namespace
}  // namespace vornet::fuzz

/// An input: a text, read as a URL and as a path; and two lines, the root's path and an item's.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vornet::fuzz;
  const std::string text(reinterpret_cast<const char*>(data), size);
  checkUTF8(text);
  checkURLText(text);
  checkURLText("file:///" + text);
  checkPath("/" + text);
  checkFolderKey(text);
  checkEscape(text);
  const auto end = std::min(text.find('\n'), text.size());
  checkCloudPath(text.substr(0, end), text.substr(std::min(end + 1, text.size())));
  return 0;
}
