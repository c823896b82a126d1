#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vornet::sim {

/// Status codes as the sync application gives them out, the worst first.
inline constexpr int CODE_NOT_SYNCED = 0;
inline constexpr int CODE_PENDING = 1;
inline constexpr int CODE_SYNCED = 2;

/// What tells one content of a file from another without reading it.
struct FileStamp {
  std::uint64_t inode = 0;
  std::int64_t modified = 0;  ///< nanoseconds since 1970
  std::int64_t size = 0;      ///< bytes
  friend bool operator==(const FileStamp&, const FileStamp&) = default;
};

/// The synced folder in memory: every item with its status code. Items are named by cloud path ("/a/b"; the root is
/// "/"); one trailing slash is accepted on folders. Paths are opaque bytes. A folder has the worst code of what stands
/// directly in it (0 worst, then 1, then 2; an empty folder is 2), kept up to date as items change, so that no question
/// walks the tree. Not thread-safe: the owner serialises access.
class FolderModel {
 public:
  struct Item {
    bool folder = false;
    int code = CODE_SYNCED;
  };
  /// A row of the status database: the path as stored there (folders end in "/") and the code, none when it went away.
  struct Change {
    std::string path;
    std::optional<int> code;
  };

  FolderModel();
  ~FolderModel();

  /// Forgets everything but the pins; only the empty root is left.
  void clear();

  /// Adds a folder, or changes whether it can be synced; one that cannot be has code 0 whatever is in it. A file of
  /// that name is replaced. False when the folder above is unknown.
  bool putFolder(std::string_view path, bool syncable);

  /// Adds a file or gives it a new stamp and code. A folder of that name is replaced. False when the folder above is
  /// unknown.
  bool putFile(std::string_view path, const FileStamp& stamp, int code);

  /// Gives a known file another code. False for anything else.
  bool setFileCode(std::string_view path, int code);

  /// Forgets an item and all below it; of the root, all below it. Returns the cloud paths of the files that went.
  std::vector<std::string> remove(std::string_view path);

  /// Makes `path` show `code` (any integer) whatever its own state is, now or as soon as such an item appears. Folders
  /// above count a pinned code outside 0 to 2 as if the item were not there.
  void pin(std::string_view path, int code);
  /// Ends `pin`. Without a pin: nothing.
  void unpin(std::string_view path);

  /// The item at `path`; none when unknown, or when a path with a trailing slash names a file.
  std::optional<Item> find(std::string_view path) const;

  /// The stamp of a known file.
  std::optional<FileStamp> stamp(std::string_view path) const;

  /// Cloud path (without trailing slash) and code of everything directly in `folder`, by name; none when there is no
  /// such folder. Costs one pass over the children.
  std::optional<std::vector<std::pair<std::string, int>>> children(std::string_view folder) const;

  /// The names directly in `folder`; empty when there is no such folder.
  std::vector<std::string> childNames(std::string_view folder) const;

  /// Every item as a row of the status database, the root included.
  std::vector<Change> rows() const;

  /// What has changed since the last call, each path once with its latest state.
  std::vector<Change> takeChanges();

  /// The number of items below the root.
  std::size_t size() const noexcept { return size_; }

 private:
  struct Node;

  Node* locate(std::string_view path) const;
  Node* place(std::string_view path);
  void detach(Node& node, const std::string& path, std::vector<std::string>& files);
  /// Takes over what was set on `node`: lists it when it is new, else follows the change upwards.
  void settle(Node& node, bool isNew);
  void refresh(Node& node);
  static std::string pathOf(const Node& node);
  static std::string rowPath(const Node& node);

  std::unique_ptr<Node> root_;
  std::map<std::string, int, std::less<>> pins_;
  std::unordered_map<std::string, std::optional<int>> changes_;
  std::size_t size_ = 0;
};

}  // namespace vornet::sim
