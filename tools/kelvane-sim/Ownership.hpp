#pragma once

#include <string>

/// Whose a container is: every file that the stand-in makes there says so in itself, so that a container of the real
/// sync application is never taken for one of the stand-in's, not even after both have been there.
namespace vornet::sim {

/// The key in the preferences, beside "root_dir", that says who wrote them.
inline constexpr const char* WRITER_KEY = "written_by_kelvane_sim";
/// What `PRAGMA application_id` of the databases is: "KSim".
inline constexpr const char* SET_APPLICATION_ID = "PRAGMA application_id = 0x4B53696D;";

/// Checks that each of VornetKelvane.plist, sync.db and config.db in the folder `container` is missing, an empty
/// database or made by the stand-in. Reads only. Throws std::runtime_error with one line that names the file.
void checkOwnContainer(const std::string& container);

}  // namespace vornet::sim
