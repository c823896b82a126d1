#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Extension.hpp"
#include "Status.hpp"

namespace vornet::vi {

/// Examines how the extension is installed, what it needs, and who uses it. Starts the extension only when `start`.
/// Blocks for at most a few times the extension's time-out. Throws Failure when the bus goes away.
Status examine(Extension& extension, bool start);

// --- Its parts: DoctorInstallation.cpp, DoctorSelfCheck.cpp and DoctorFileManagers.cpp

/// How the extension is installed.
struct Installation {
  std::string program;                ///< the extension's; empty when there is none
  std::vector<std::string> prefixes;  ///< folders in which something of the extension is installed
  std::vector<Problem> problems;
};

/// Looks for the file that tells the bus what to start, for the program, and for other installations. `process`: the
/// running extension.
Installation examineInstallation(bool canBeStarted, std::optional<std::uint32_t> process);

/// The files below `prefix` that a file manager loads as the plug-in `fileName`.
std::vector<std::string> pluginFiles(const std::string& prefix, std::string_view fileName);

/// The file names of the plug-ins.
inline constexpr std::string_view PLUGINS[] = {"libvornet-nautilus.so", "libvornet-nemo.so", "libvornet-caja.so",
                                               "libvornet-thunar.so", "libvornet-dolphin.so"};

/// Asks the extension's `program` what it would find if it started now, and compares that with what the running
/// extension says. Waits at most `limit`. Runs the default main context.
std::vector<Problem> examineFiles(const std::string& program, const Status& status, std::chrono::milliseconds limit);

/// Looks at the file managers among `processes` for the plug-in that they have loaded. `prefixes`: where plug-ins may
/// be installed.
std::vector<Problem> examineFileManagers(const std::vector<std::uint32_t>& processes,
                                         const std::vector<std::string>& prefixes);

}  // namespace vornet::vi
