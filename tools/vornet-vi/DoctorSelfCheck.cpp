#include "Doctor.hpp"

#include <gio/gio.h>

#include <algorithm>
#include <boost/json.hpp>

#include "client/MainLoop.hpp"
#include "dbus/GLibPtr.hpp"

namespace vornet::vi {
namespace {

namespace json = boost::json;

/// The output of `program` --check; none when it does not end within `limit`.
std::optional<std::string> outputOfCheck(const std::string& program, std::chrono::milliseconds limit) {
  const GObjectPtr<GSubprocess> process(g_subprocess_new(
      static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_SILENCE), nullptr,
      program.c_str(), "--check", nullptr));
  if (!process) return "";
  bool isLate = false;
  client::Timer timer(nullptr);
  timer.start(limit, [&] {
    isLate = true;
    g_subprocess_force_exit(process.get());
  });
  std::optional<std::string> output;
  const auto ended = +[](GObject* source, GAsyncResult* result, gpointer data) {
    gchar* text = nullptr;
    g_subprocess_communicate_utf8_finish(G_SUBPROCESS(source), result, &text, nullptr, nullptr);
    const GCharPtr freed(text);
    *static_cast<std::optional<std::string>*>(data) = text ? text : "";
  };
  g_subprocess_communicate_utf8_async(process.get(), nullptr, nullptr, ended, &output);
  while (!output) g_main_context_iteration(nullptr, TRUE);
  if (isLate) return std::nullopt;
  return output;
}

std::string textIn(const json::object& object, const char* key) {
  const auto* value = object.if_contains(key);
  return value && value->is_string() ? std::string(value->get_string()) : std::string();
}

/// One of the files that the program has checked.
struct Finding {
  Finding(const json::object& all, const char* key) {
    const auto* value = all.if_contains(key);
    if (!value || !value->is_object()) return;
    path = textIn(value->get_object(), "path");
    state = textIn(value->get_object(), "state");
    const auto text = textIn(value->get_object(), "problem");
    if (!text.empty()) why = " (" + text + ")";
  }
  std::string path, state, why;
};

std::optional<Problem> judgePreferences(const Finding& preferences) {
  const std::string subject = "The preferences " + preferences.path;
  const char* const rewrite = "Start Kelvane, or set it up again: it writes them.";
  if (preferences.state == "missing")
    return Problem{"preferences-missing",
                   "There are no preferences: expected " + preferences.path + ", written by Kelvane.",
                   "Start Kelvane and set it up. The extension waits for the file."};
  if (preferences.state == "unreadable")
    return Problem{"preferences-unreadable", subject + " cannot be read" + preferences.why + ".",
                   "Make them readable for you."};
  if (preferences.state == "garbage")
    return Problem{"preferences-garbage", subject + " are not a property list.", rewrite};
  if (preferences.state == "no root_dir")
    return Problem{"preferences-without-root",
                   subject + " name no synced folder (root_dir). The extension stops by design.", rewrite};
  return std::nullopt;
}

std::optional<Problem> judgeRoot(const Finding& root) {
  if (root.state == "missing" || root.state == "not a folder" || root.state == "unreadable")
    return Problem{
        "folder-missing",
        "The synced folder " + root.path + " is not there" + (root.why.empty() ? " (no folder)" : root.why) + ".",
        "Mount or restore it, or choose another one in Kelvane."};
  return std::nullopt;
}

/// The problem that the running extension shows another folder than the preferences name; none when there is none.
std::optional<Problem> compareRoot(const Finding& root, const Status& status) {
  if (!status.info || root.path.empty()) return std::nullopt;
  const auto& observed = status.info->observedFolders;
  if (std::find(observed.begin(), observed.end(), root.path) != observed.end()) return std::nullopt;
  return Problem{"folder-changed",
                 "The running extension shows " + (observed.empty() ? "no folder" : observed.front()) +
                     ", but the preferences name " + root.path + ".",
                 "It follows within seconds. If it does not, end it (kill " +
                     std::to_string(status.process.value_or(0)) + "): the next call starts it again."};
}

std::optional<Problem> judgeDatabase(const Finding& database) {
  const std::string subject = "The status database " + database.path;
  if (database.state == "missing")
    return Problem{"database-missing", subject + " is not there.", "Start Kelvane: it makes it."};
  if (database.state == "unreadable")
    return Problem{"database-unreadable", subject + " cannot be read" + database.why + ".",
                   "Make it readable for you."};
  if (database.state == "locked")
    return Problem{"database-locked", subject + " is locked by another process.",
                   "Wait. If it stays locked, restart Kelvane."};
  if (database.state == "corrupt")
    return Problem{"database-corrupt", subject + " is damaged" + database.why + ".",
                   "Have Kelvane make it again: end Kelvane, remove the file, start Kelvane."};
  return std::nullopt;
}

std::optional<Problem> judgeLog(const Finding& log) {
  if (log.state == "not writable")
    return Problem{"log-not-writable", "The log " + log.path + " cannot be written" + log.why + ".",
                   "Make its folder writable for you."};
  if (log.state == "disk full")
    return Problem{"disk-full", "The log " + log.path + " cannot be written: the disk is full.", "Free space."};
  return std::nullopt;
}

}  // namespace

std::vector<Problem> examineFiles(const std::string& program, const Status& status, std::chrono::milliseconds limit) {
  const auto output = outputOfCheck(program, limit);
  if (!output)
    return {{"check-hangs", program + " --check does not end: a disk or a network folder may hang.",
             "Look at the synced folder and at your home folder."}};
  boost::system::error_code error;
  const auto parsed = json::parse(*output, error);
  if (error || !parsed.is_object())
    return {{"check-failed", program + " cannot check itself: it is of another version.", "Install Vornet VI again."}};
  const auto& found = parsed.get_object();
  if (!found.contains("preferences"))
    return {{"container-missing", "No folder for the preferences can be named: HOME is not set or not valid UTF-8.",
             "Set HOME."}};

  std::vector<Problem> problems;
  const auto note = [&](std::optional<Problem> problem) {
    if (problem) problems.push_back(*std::move(problem));
  };
  const std::string installed = textIn(found, "version");
  const auto isOutdated = [](const Problem& problem) { return problem.id == "process-outdated"; };
  const bool isKnown = std::any_of(status.problems.begin(), status.problems.end(), isOutdated);
  if (status.info && status.info->version != installed && !isKnown)
    note(Problem{
        "process-outdated",
        "The running extension is version " + status.info->version + ", the installed one is " + installed + ".",
        "End it (kill " + std::to_string(status.process.value_or(0)) + "): the next call starts the installed one."});
  const Finding preferences(found, "preferences");
  const Finding root(found, "root");
  note(judgePreferences(preferences));
  note(judgeRoot(root));
  note(compareRoot(root, status));
  if (preferences.state != "missing") note(judgeDatabase(Finding(found, "database")));
  note(judgeLog(Finding(found, "log")));
  return problems;
}

}  // namespace vornet::vi
