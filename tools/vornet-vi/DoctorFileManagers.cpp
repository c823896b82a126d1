#include "Doctor.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string_view>

namespace vornet::vi {
namespace {

namespace fs = std::filesystem;

struct FileManager {
  std::string_view program;
  std::string_view name;
  std::string_view plugin;
  std::string_view restart;
  std::string_view enable;  ///< where a plug-in can be switched off
};

constexpr FileManager FILE_MANAGERS[] = {
    {"nautilus", "Nautilus", PLUGINS[0], "Restart it: nautilus -q.", ""},
    {"nemo", "Nemo", PLUGINS[1], "Restart it: nemo -q.", " Enable \"Vornet VI\" in Edit, Plugins."},
    {"caja", "Caja", PLUGINS[2], "Restart it: caja -q.", " Enable \"Vornet VI\" in Edit, Preferences, Extensions."},
    {"thunar", "Thunar", PLUGINS[3], "Restart it: thunar -q.", ""},
    {"dolphin", "Dolphin", PLUGINS[4], "Restart it: close its windows.", ""},
};

/// The file manager whose program `process` runs; null for none.
const FileManager* fileManagerOf(std::uint32_t process) {
  std::error_code error;
  std::string program = fs::read_symlink("/proc/" + std::to_string(process) + "/exe", error).filename();
  program = program.substr(0, program.find(" (deleted)"));
  std::transform(program.begin(), program.end(), program.begin(), [](unsigned char c) { return std::tolower(c); });
  const auto* found = std::find_if(std::begin(FILE_MANAGERS), std::end(FILE_MANAGERS),
                                   [&](const FileManager& manager) { return manager.program == program; });
  return found == std::end(FILE_MANAGERS) ? nullptr : found;
}

enum class Loaded { unknown, none, current, replaced };

/// How `process` has loaded the library `fileName`.
Loaded loadedBy(std::uint32_t process, std::string_view fileName) {
  std::ifstream maps("/proc/" + std::to_string(process) + "/maps");
  auto loaded = maps ? Loaded::none : Loaded::unknown;
  for (std::string line; std::getline(maps, line);) {
    const auto name = line.rfind('/' + std::string(fileName));
    if (name == std::string::npos) continue;
    if (line.ends_with(" (deleted)")) return Loaded::replaced;
    if (line.size() == name + 1 + fileName.size()) loaded = Loaded::current;
  }
  return loaded;
}

}  // namespace

std::vector<Problem> examineFileManagers(const std::vector<std::uint32_t>& processes,
                                         const std::vector<std::string>& prefixes) {
  std::vector<Problem> problems;
  for (const auto process : processes) {
    const auto* manager = fileManagerOf(process);
    if (!manager) continue;
    const std::string who = std::string(manager->name) + " (pid " + std::to_string(process) + ")";
    const std::string restart(manager->restart);
    const auto loaded = loadedBy(process, manager->plugin);
    if (loaded == Loaded::replaced)
      problems.push_back({"plugin-outdated", who + " runs with an older plug-in than the installed one.", restart});
    if (loaded != Loaded::none) continue;
    const bool isInstalled = std::any_of(prefixes.begin(), prefixes.end(), [&](const auto& prefix) {
      return !pluginFiles(prefix, manager->plugin).empty();
    });
    if (isInstalled)
      problems.push_back(
          {"plugin-not-loaded", who + " runs without the plug-in.", restart + std::string(manager->enable)});
    else
      problems.push_back({"plugin-not-loaded", who + " runs without the plug-in, which is not installed.",
                          "Install the plug-in for " + std::string(manager->name) + ", then restart it."});
  }
  return problems;
}

}  // namespace vornet::vi
