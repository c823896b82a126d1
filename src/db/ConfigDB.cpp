#include "db/ConfigDB.hpp"

#include <sqlite3.h>

#include "db/Statement.hpp"
#include "logging/Logging.hpp"

namespace vornet {

ConfigDB& configDB() {
  // Never destroyed: a thread may still hold its lock when the process ends.
  static ConfigDB& database = *new ConfigDB;
  return database;
}

std::string ConfigDB::_getSyncDBPath() const {
  return pathInGroupContainer(App().CONFIG_DB_NAME);
}

std::optional<std::string> ConfigDB::getLocalRoot() {
  lock().lock();
  if (!connect()) return std::nullopt;  // the lock stays with this thread

  Statement statement(db(), "SELECT local_root FROM configuration LIMIT 1");
  if (!statement.prepared()) {
    VI_WARNING("Cannot prepare SQL statement for fetching local_root");
    statement.finalise();
    releaseLockThenClose();
    return std::nullopt;
  }
  std::optional<std::string> root;
  if (statement.stepToRow()) root = statement.text(0);
  statement.finalise();
  releaseLockThenClose();
  return root;
}

void ConfigDB::releaseLockThenClose() {
  // The handle is taken out first, so that the next holder of the lock never meets one that is being closed.
  sqlite3* handle = detach();
  lock().unlock();
  sqlite3_close(handle);
}

}  // namespace vornet
