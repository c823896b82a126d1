#pragma once

#include <functional>
#include <string>
#include <vector>

namespace vornet::sim {

/// One context-menu action that the user chose.
struct Action {
  std::string time;  ///< UTC, "2026-01-31T12:00:00.000Z"
  std::string uid;   ///< "1" to "5"
  std::string name;  ///< as in the menu: "Copy Link"
  std::vector<std::string> paths;
};

/// The journal of actions: a text file of one JSON object a line with the keys "time", "uid", "action" and "paths".
/// Not thread-safe, but several processes may append to one file: each line is one write.
class ActionJournal {
 public:
  static constexpr const char* FILE_NAME = "actions.jsonl";

  /// The journal `actions.jsonl` in the folder `state`. Touches no disk.
  explicit ActionJournal(const std::string& state);

  /// Appends one line; makes the file (for its owner alone) when missing. Throws std::runtime_error.
  void append(const Action& action) const;

  /// Every action of the file in order, passing over lines that are none; empty without a file. Throws
  /// std::runtime_error when it cannot be read.
  std::vector<Action> read() const;

  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

/// The current time as in Action::time.
std::string timeNow();

}  // namespace vornet::sim
