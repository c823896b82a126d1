#pragma once

#include <optional>
#include <string>

#include "db/SyncDB.hpp"

namespace vornet {

/// Reads the sync application's configuration database (table `configuration`, column `local_root`, first row).
class ConfigDB : public SyncDB {
 public:
  /// The synced folder as stored, unchanged; none when the file cannot be opened or queried, has no row, or holds NULL
  /// or text that is not UTF-8. Any thread. After a failure to open the file the calling thread keeps the instance's
  /// lock: it may call again, other threads wait.
  /// Kept ready; nothing calls it yet.
  std::optional<std::string> getLocalRoot();

 protected:
  std::string _getSyncDBPath() const override;

 private:
  void releaseLockThenClose();
};

/// The reader that the whole process shares, made on first use. Any thread.
/// Kept ready; nothing calls it yet.
ConfigDB& configDB();

}  // namespace vornet
