#include "Doctor.hpp"

#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "dbus/GLibPtr.hpp"
#include "dbus/Interface.hpp"

namespace vornet::vi {
namespace {

namespace fs = std::filesystem;

constexpr const char* AGAIN = "Install Vornet VI again.";
constexpr std::string_view DELETED = " (deleted)";

/// Where the session bus looks for the files of services, in its order.
std::vector<std::string> serviceFolders() {
  std::vector<std::string> folders{g_get_user_runtime_dir(), g_get_user_data_dir()};
  for (const auto* folder = g_get_system_data_dirs(); *folder; ++folder) folders.emplace_back(*folder);
  folders.emplace_back("/usr/share");
  for (auto& folder : folders) folder += "/dbus-1/services";
  return folders;
}

struct ServiceFile {
  std::string path;
  std::string program;  ///< empty when it names none
};

/// The program that the service file at `path` names; empty for none.
std::string programIn(const std::string& path) {
  const std::unique_ptr<GKeyFile, decltype(&g_key_file_unref)> file(g_key_file_new(), g_key_file_unref);
  if (!g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, nullptr)) return {};
  const GCharPtr command(g_key_file_get_string(file.get(), "D-BUS Service", "Exec", nullptr));
  gchar** words = nullptr;
  if (!command || !g_shell_parse_argv(command.get(), nullptr, &words, nullptr)) return {};
  const GStrvPtr freed(words);
  return words[0];
}

std::vector<ServiceFile> serviceFilesIn(const std::vector<std::string>& folders) {
  std::vector<ServiceFile> found;
  for (const auto& folder : folders) {
    const std::string path = folder + "/" + dbus::BUS_NAME + ".service";
    std::error_code error;
    const bool isKnown = std::any_of(found.begin(), found.end(),
                                     [&](const auto& file) { return fs::equivalent(file.path, path, error); });
    if (!isKnown && fs::exists(path, error)) found.push_back({path, programIn(path)});
  }
  return found;
}

/// The folder that holds bin, lib and libexec beside `program`; empty when its path has none of them.
std::string prefixOf(const std::string& program) {
  fs::path folder = fs::path(program).parent_path();
  for (; folder.has_relative_path(); folder = folder.parent_path())
    if (const auto name = folder.filename(); name == "bin" || name == "lib" || name == "libexec")
      return folder.parent_path();
  return {};
}

std::string targetOf(const std::string& link) {
  std::error_code error;
  return fs::read_symlink(link, error).string();
}

Problem missingServiceFile(const std::vector<std::string>& folders) {
  return {"service-file-missing",
          "The session bus cannot start the extension: there is no " + std::string(dbus::BUS_NAME) + ".service in " +
              folders[1] + " or " + folders.back() + ".",
          AGAIN};
}

/// Adds what is wrong with the service file that the bus takes.
void judge(const ServiceFile& file, bool canBeStarted, std::vector<Problem>& problems) {
  if (file.program.empty())
    problems.push_back({"service-file-ignored", file.path + " names no program.", AGAIN});
  else if (access(file.program.c_str(), X_OK) != 0)
    problems.push_back(
        {"program-missing", file.path + " names " + file.program + ", which is not there or cannot be run.", AGAIN});
  else if (!canBeStarted)
    problems.push_back(
        {"service-file-ignored", "The session bus does not know " + file.path + ".", "Log out, and in again."});
}

/// Adds `path`'s prefix, unless it is known; `parts` gets a path of each.
void add(const std::string& prefix, const std::string& path, std::vector<std::string>& prefixes, std::string& parts) {
  std::error_code error;
  const auto isSame = [&](const auto& known) { return known == prefix || fs::equivalent(known, prefix, error); };
  if (prefix.empty() || std::any_of(prefixes.begin(), prefixes.end(), isSame)) return;
  prefixes.push_back(prefix);
  parts += (parts.empty() ? "" : ", ") + path;
}

void judgeProcess(std::uint32_t process, const std::string& program, std::vector<Problem>& problems) {
  std::string running = targetOf("/proc/" + std::to_string(process) + "/exe");
  const std::string pid = std::to_string(process);
  const std::string remedy = "End it (kill " + pid + "): the next call starts the installed one.";
  std::error_code error;
  if (running.ends_with(DELETED)) {
    problems.push_back(
        {"process-outdated", "The running extension (pid " + pid + ") is older than the installed one.", remedy});
  } else if (!running.empty() && !fs::equivalent(running, program, error) && !error) {
    problems.push_back(
        {"two-installations",
         "The extension that runs (pid " + pid + ") is " + running + ", but the session bus starts " + program + ".",
         remedy});
  }
}

}  // namespace

std::vector<std::string> pluginFiles(const std::string& prefix, std::string_view fileName) {
  // Every file manager has its own folder below lib or lib/<architecture>.
  constexpr int DEEPEST = 3;
  std::vector<std::string> found;
  std::error_code error;
  const auto isPluginFolder = [](const std::string& name) {
    return name.starts_with("nautilus") || name.starts_with("nemo") || name.starts_with("caja") ||
           name.starts_with("thunarx") || name.starts_with("extensions-") || name == "vornet-vi" ||
           name.find("-linux-") != std::string::npos;
  };
  fs::recursive_directory_iterator entry(prefix + "/lib", fs::directory_options::skip_permission_denied, error);
  for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    const std::string name = entry->path().filename();
    if (name == fileName) found.push_back(entry->path());
    if (entry->is_directory(error) && (entry.depth() >= DEEPEST || !isPluginFolder(name)))
      entry.disable_recursion_pending();
  }
  return found;
}

Installation examineInstallation(bool canBeStarted, std::optional<std::uint32_t> process) {
  Installation result;
  const auto folders = serviceFolders();
  const std::string ownPrefix = prefixOf(targetOf("/proc/self/exe"));
  auto services = serviceFilesIn(folders);
  if (services.empty() && canBeStarted) services = serviceFilesIn({ownPrefix + "/share/dbus-1/services"});
  if (services.empty() && !canBeStarted) result.problems.push_back(missingServiceFile(folders));
  if (!services.empty()) judge(services.front(), canBeStarted, result.problems);

  std::string parts;
  for (const auto& service : services) add(prefixOf(service.program), service.program, result.prefixes, parts);
  const std::string home = g_get_home_dir();
  for (const auto& prefix : {std::string("/usr/local"), std::string("/usr"), home + "/.local"}) {
    for (const auto plugin : PLUGINS)
      for (const auto& file : pluginFiles(prefix, plugin)) add(prefix, file, result.prefixes, parts);
  }
  if (result.prefixes.size() > 1) {
    result.problems.push_back(
        {"two-installations", "The extension is installed more than once: " + parts + ".", "Uninstall all but one."});
  }

  result.program = services.empty() ? ownPrefix + "/" VORNET_LIBEXECDIR "/VornetVIExt" : services.front().program;
  if (access(result.program.c_str(), X_OK) != 0) result.program.clear();
  if (process && !result.program.empty()) judgeProcess(*process, result.program, result.problems);
  return result;
}

}  // namespace vornet::vi
