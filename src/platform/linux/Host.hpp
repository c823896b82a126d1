#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Settings that a program on Linux makes before the principal class.
namespace vornet::platform::host {

/// The main bundle: what a bundle's information dictionary and resources hold elsewhere.
struct Bundle {
  std::string identifier;  ///< of the application that this process is one of; empty: of none
  std::string version;     ///< "CFBundleShortVersionString"; empty: absent
  std::string build;       ///< "CFBundleVersion"; empty: absent
  /// Folders that may hold images as <size>/<name>.png, in order of preference.
  std::vector<std::string> imageFolders;
};

/// Sets the main bundle. Before other threads run.
void setMainBundle(Bundle bundle);
const Bundle& mainBundle();

/// Has the allocator return memory that one large reply or call needed, rather than keep it for the next. Before other
/// threads run.
void keepLittleFreeMemory();

/// Spares the process most of what the libraries for TLS load, which libcurl brings though nothing here uses it: nearly
/// two megabytes. Before the first request.
void declineTLS();

/// Returns this process's free memory to the system, also that between blocks in use. Takes about a millisecond.
void giveFreeMemoryBack();

/// Sets which other processes of the main bundle's application run: runningApplicationsWithBundleIdentifier() returns
/// these and this process. None until it is called. Before other threads ask.
void setOtherRunningApplications(std::vector<std::int64_t> processes);

/// The image folders that belong to the program file of this process: <prefix>/share/vornet-vi/images for
/// <prefix>/bin/NAME or <prefix>/libexec/NAME.
std::vector<std::string> imageFoldersOfProgram();

/// Where the container of `group` is, whether it exists or not; empty where none can be named. Any thread.
std::string containerPath(std::string_view group);

/// The file of the image `name` at `size` pixels; empty when there is none. Any thread.
std::string imageFile(const std::string& name, int size);

}  // namespace vornet::platform::host
