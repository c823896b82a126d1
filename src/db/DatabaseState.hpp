#pragma once

#include <string>

namespace vornet {

/// The state of the status database for a reader.
enum class DatabaseState { readable, missing, unreadable, locked, corrupt };

/// Reads the status database at `path` as SyncDB does, and checks its pages for at most two seconds. It waits one
/// second for a lock. `problem`: the system's or SQLite's own words; empty when it is readable. Any thread.
DatabaseState examineSyncDatabase(const std::string& path, std::string& problem);

}  // namespace vornet
