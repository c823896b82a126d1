#pragma once

#include <string>

/// Where the sync application says which folder it keeps in step. One thread at a time.
namespace vornet::sim {

inline constexpr const char* CONFIG_DATABASE_NAME = "config.db";
inline constexpr const char* STATUS_DATABASE_NAME = "sync.db";
inline constexpr const char* PREFERENCES_NAME = "VornetKelvane.plist";

/// Writes `root` (absolute, UTF-8, no trailing slash) as the one row of table `configuration`, column `local_root`, of
/// config.db in the folder `container`. A file that is no such database is replaced. Throws SqliteError.
void writeConfiguration(const std::string& container, const std::string& root);

/// Writes the property list VornetKelvane.plist in `container` with the key "root_dir" (and the one that says
/// who wrote it, Ownership.hpp): as XML, or binary where `root`
/// holds characters that XML cannot carry. The file is put in place whole, by renaming; call it last, so that whoever
/// sees it finds the databases too. Throws std::runtime_error.
void writePreferences(const std::string& container, const std::string& root);

}  // namespace vornet::sim
