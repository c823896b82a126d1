#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace vornet::vi {

enum class EntryKind { folder, file, link, other };

/// The word for a kind: "folder", "file", "link", "other".
const char* kindName(EntryKind kind);

/// One entry of a folder. A link is a link, whatever it points to.
struct Entry {
  std::string name;  ///< any bytes but "/" and NUL
  EntryKind kind = EntryKind::other;
  std::uint64_t size = 0;  ///< bytes; 0 unless a file
};

/// An entry and the badge it carries: an identifier, "" for none.
struct Item {
  Entry entry;
  std::string badge;
};

/// `given` as an absolute path, relative to `currentFolder` (absolute): "." and ".." are removed as text, no link is
/// followed, slashes are never doubled, and only "/" ends in one. `given` is not empty.
std::string absolutePath(std::string_view given, std::string_view currentFolder);

/// The failure of a file operation on `path`, as one line for the user; `number`: its errno.
std::runtime_error fileFailure(const std::string& path, int number);

// The following throw it.

/// Throws unless `path` is an existing folder that may be read.
void requireFolder(const std::string& path);

/// Throws unless something exists at `path`; a broken link counts.
void requireExisting(const std::string& path);

/// The entries of `folder`, hidden ones included, in no order. An entry that vanishes meanwhile is left out.
std::vector<Entry> readFolder(const std::string& folder);

/// The entry `name` of `folder`; none when there is no such entry.
std::optional<Entry> readEntry(const std::string& folder, const std::string& name);

/// Folders first, then by name as the locale orders file names ("file2" before "file10").
std::vector<Item> sortedItems(const std::map<std::string, Item>& items);

}  // namespace vornet::vi
