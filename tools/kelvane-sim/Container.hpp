#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vornet::sim {

/// A context-menu action that the user chose.
struct Action {
  std::string uid;   ///< "1" to "5"
  std::string name;  ///< as in the menu: "Copy Link"
  std::vector<std::string> paths;
};

/// The group container, and what the sync application writes into it. Each file carries a mark, so that those of the
/// real sync application are not written over unasked. Not thread-safe. Everything throws std::runtime_error with one
/// line.
class Container {
 public:
  /// `path`: of the container, `root`: of the synced folder; both absolute or relative to the current folder. Touches
  /// no disk.
  Container(const std::string& path, const std::string& root);

  /// Makes the container, with mode 0700, if it is missing. Throws when the root is no folder with a UTF-8 path, when
  /// the container is inside it, and, unless `force`, when a file in the container is another application's.
  void open(bool force = false);

  /// Removes those files, so that this application's take their place.
  void removeOthersFiles() const;

  /// Brings sync.db up to date: table `ea` gets exactly `rows`, path -> status. Other processes never see a part of it.
  /// After a failure, call it again.
  void writeStatuses(const std::map<std::string, int>& rows);

  /// Writes config.db and then VornetKelvane.plist, which say where the root is. The latter is replaced as a whole;
  /// whoever sees it finds the databases too.
  void writePreferences() const;

  /// Appends a line of JSON with the keys "action" and "paths" to actions.jsonl.
  void record(const Action& action) const;

  const std::string& root() const noexcept { return root_; }

 private:
  const std::string path_, root_;
  std::optional<std::map<std::string, int>> written_;  // what sync.db holds, if it is known
};

}  // namespace vornet::sim
