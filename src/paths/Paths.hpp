#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Foundation.hpp"

/// Between the file manager's file URLs and the sync application's cloud paths: an item's path with the synced folder's
/// path removed ("/a/b" for /home/ann/Kelvane/a/b). No state; any thread. `root` is the synced folder. A URL without a
/// path stops the process.
namespace vornet {

/// The cloud path of an item. Every occurrence of the root's path is removed, wherever it occurs; the root itself gives
/// "".
std::string getCloudPath(const platform::FileURL& root, const platform::FileURL& pathURL);
std::string getCloudPath(const platform::FileURL& root, std::string_view path);

/// The same, followed by "/" when the item is a folder on disk; the root itself gives "/".
/// Kept ready; nothing calls it yet.
std::string getCloudPathWithTrailingSlash(const platform::FileURL& root, const platform::FileURL& pathURL);

/// The local item of a cloud path: the root's path followed by `cfsPath`, nothing inserted.
platform::FileURL getLocalPath(const platform::FileURL& root, std::string_view cfsPath);

/// The same for a cloud path held as an optional text object; a missing one stops the process.
/// Kept ready; nothing calls it yet.
platform::FileURL getLocalPathOfObject(const platform::FileURL& root, const std::optional<std::string>& CFSPathURL);

/// The cloud paths of the items that exist, in order, folders ending in "/". No list gives an empty one.
std::vector<std::string> urlsToCloudPaths(const platform::FileURL& root,
                                          const std::optional<std::vector<platform::FileURL>>& pathURLs);

/// `text` percent-encoded for a URL's query: ASCII letters, digits and -._~!$&'()*+,;=:@/? stay. Text that is not UTF-8
/// stops the process.
/// Kept ready; nothing calls it yet.
std::string escape(std::string_view text);

/// True if there is a folder at `url`.
bool isDirectory(const platform::FileURL& url);

}  // namespace vornet
