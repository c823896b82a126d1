#pragma once

#include <string>

#include "kelvane-sim/FileDescriptor.hpp"

/// Folders that the stand-in uses: checks and preparation. Every function throws std::runtime_error with one line
/// saying what is wrong.
namespace vornet::sim {

/// The group container of this user: $VORNET_GROUP_CONTAINERS/com.vornet.KelvaneSync, else
/// $XDG_DATA_HOME/group-containers/…, else ~/.local/share/group-containers/….
std::string groupContainerPath();

/// `path` made absolute and plain: no ".", "..", doubled or trailing slashes. Symbolic links stay. Touches no disk.
std::string absolutePath(const std::string& path);

/// Checks that the absolute path `root` is a folder that can be read, whose name is UTF-8 and that is not "/".
void checkSyncedFolder(const std::string& root);

/// Checks that `folder` is neither `root` nor inside it, with symbolic links resolved: nothing is ever written into the
/// user's folder.
void checkOutside(const std::string& folder, const std::string& root);

/// Makes `folder` with mode 0700 when it is missing, and those above it.
void makePrivateFolder(const std::string& folder);

/// Takes `folder` for this process; it is free again when the result goes away.
FileDescriptor claimFolder(const std::string& folder);

}  // namespace vornet::sim
