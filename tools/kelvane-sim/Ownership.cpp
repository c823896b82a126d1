#include "kelvane-sim/Ownership.hpp"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "kelvane-sim/Preferences.hpp"

namespace vornet::sim {

namespace fs = std::filesystem;

namespace {

// A database keeps its application's number in its header, which is 100 bytes long.
constexpr std::size_t HEADER_BYTES = 100;
constexpr std::size_t APPLICATION_ID_AT = 68;
constexpr std::string_view APPLICATION_ID = "KSim";
constexpr std::size_t MOST_PREFERENCES_BYTES = std::size_t{256} << 10;  // the stand-in writes far less

std::string firstBytes(const std::string& path, std::size_t count) {
  std::ifstream file(path, std::ios::binary);
  std::string bytes(count, '\0');
  file.read(bytes.data(), static_cast<std::streamsize>(count));
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  return bytes;
}

bool isOwnDatabase(const std::string& path) {
  const std::string header = firstBytes(path, HEADER_BYTES);
  if (header.empty()) return true;
  return header.size() == HEADER_BYTES && header.compare(APPLICATION_ID_AT, APPLICATION_ID.size(), APPLICATION_ID) == 0;
}

bool arePreferencesOwn(const std::string& path) {
  return firstBytes(path, MOST_PREFERENCES_BYTES).find(WRITER_KEY) != std::string::npos;
}

}  // namespace

void checkOwnContainer(const std::string& container) {
  for (const char* name : {PREFERENCES_NAME, STATUS_DATABASE_NAME, CONFIG_DATABASE_NAME}) {
    const std::string path = container + "/" + name;
    std::error_code error;
    const fs::file_status link = fs::symlink_status(path, error);
    // A folder in a file's place is nobody's; it cannot be written over either.
    if (!fs::exists(link) || fs::is_directory(path, error)) continue;
    const bool own =
        fs::is_regular_file(path, error) && (name == PREFERENCES_NAME ? arePreferencesOwn(path) : isOwnDatabase(path));
    if (own) continue;
    throw std::runtime_error("cannot use the container " + container + ": its " + name +
                             " was written by another application; choose another folder with --container, or give "
                             "--force to replace that application's files");
  }
}

}  // namespace vornet::sim
