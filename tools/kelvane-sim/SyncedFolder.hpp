#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vornet::sim {

/// Status codes as the sync application gives them out, the worst first.
inline constexpr int CODE_NOT_SYNCED = 0;
inline constexpr int CODE_PENDING = 1;
inline constexpr int CODE_SYNCED = 2;

/// An item on disk. A file's stamp changes with its content; a folder's is empty.
struct FoundItem {
  struct Stamp {
    std::uint64_t inode = 0;
    std::int64_t seconds = 0, nanoseconds = 0, size = 0;
    friend bool operator==(const Stamp&, const Stamp&) = default;
  };
  bool folder = false;
  Stamp stamp{};
  friend bool operator==(const FoundItem&, const FoundItem&) = default;
};

/// Items by path below the synced folder: "" for the folder itself, "/a", "/a/b".
using Listing = std::map<std::string, FoundItem>;

/// True if `bytes` is UTF-8. What is not has no cloud path.
bool isUtf8(const std::string& bytes);

/// Everything in the folder `root`, at any depth. Leaves out links, special files and names that are not UTF-8.
Listing list(const std::string& root);

/// The statuses of a synced folder. A new or changed file is pending until its transfer ends; a few are in flight at a
/// time, in the order in which they came. Names such as "a.tmp", "~$a" and "a?" cannot be synced, nor what is below
/// them. A folder has the worst code of what is directly in it. Cloud paths ("/a/b") may end in a slash only where they
/// name a folder. Not thread-safe. The caller passes the time.
class SyncedFolder {
 public:
  using Clock = std::chrono::steady_clock;
  struct Item {
    bool folder = false;
    int code = CODE_SYNCED;
  };

  /// `transferTime`: of one file; zero ends each transfer at once. `parallel`: transfers in flight at a time.
  SyncedFolder(std::chrono::milliseconds transferTime, std::size_t parallel);

  /// Takes over what is on disk now. `synced`: files that are new here need no transfer.
  void update(const Listing& listing, bool synced);

  /// Ends and starts transfers. Returns when the next one ends; none when no file is pending.
  std::optional<Clock::time_point> transfer(Clock::time_point now);

  /// The item shows `code` from now on, whatever its own status; also when it is still to come. Any integer; folders
  /// do not count those that are no status code.
  void pin(std::string_view path, int code);

  std::optional<Item> find(std::string_view path) const;

  /// Cloud path without trailing slash -> code of everything directly in `folder`; none for other than a folder.
  std::optional<std::map<std::string, int>> children(std::string_view folder) const;

  /// Every item with its code, as sync.db has them: folders end in "/".
  std::map<std::string, int> rows() const;

 private:
  struct State {
    FoundItem found;
    bool syncable = true;
    int own = CODE_SYNCED;
    std::optional<Clock::time_point> transferEnd{};
    int shown = CODE_SYNCED;
  };
  using States = std::map<std::string, State, std::less<>>;

  States::const_iterator locate(std::string_view path) const;
  void add(const std::string& path, const FoundItem& found, bool synced);
  void applyCodes();

  const std::chrono::milliseconds transferTime_;
  const std::size_t parallel_;
  States states_;
  std::deque<std::string> waiting_;
  std::map<std::string, int, std::less<>> pins_;
};

}  // namespace vornet::sim
