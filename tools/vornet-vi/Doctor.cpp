#include "Doctor.hpp"

#include <algorithm>

namespace vornet::vi {
namespace {

void append(std::vector<Problem>& problems, std::vector<Problem> more) {
  std::move(more.begin(), more.end(), std::back_inserter(problems));
}

Problem startFailed(std::string reason) {
  reason.front() = static_cast<char>(std::toupper(reason.front()));
  return {"start-failed", reason + ".", "Look at the other problems, and at the end of the log."};
}

/// Starts the extension if asked to, and asks the one that runs.
void examineProcess(Extension& extension, bool start, Status& status) {
  bool failed = false;
  if (start) {
    try {
      extension.start();
    } catch (const Failure& failure) {
      if (failure.kind() == FailureKind::noBus) throw;
      failed = true;
      if (failure.kind() != FailureKind::notInstalled) status.problems.push_back(startFailed(failure.what()));
    }
  }
  status.process = extension.process();
  status.canBeStarted = extension.canBeStarted();
  if (status.process) {
    try {
      status.info = extension.infoIfRunning();
    } catch (const Failure& silent) {
      if (silent.kind() == FailureKind::gone || silent.kind() == FailureKind::notInstalled)
        status.process.reset();
      else
        status.problems.push_back(
            {"frozen",
             "The extension runs (pid " + std::to_string(*status.process) + "), but does not answer: " + silent.what() +
                 ".",
             "End it (kill " + std::to_string(*status.process) + "): the next call starts it again."});
    }
  }
  if (status.process) return;
  if (start && !failed) status.problems.push_back(startFailed("the extension ended as soon as it was started"));
  status.stopReason = lastStopReason();
}

/// Adds what stopped the extension last time, unless the preferences, which are often the reason, are still wrong.
void judgeStop(Status& status) {
  const auto isOfPreferences = [](const Problem& problem) { return problem.id.starts_with("preferences-"); };
  if (!status.stopReason || std::any_of(status.problems.begin(), status.problems.end(), isOfPreferences)) return;
  status.problems.push_back({"stopped", "The extension stopped itself the last time: " + *status.stopReason + ".",
                             "It starts again with the next call; \"vornet-vi status --start\" tries it."});
}

std::string sinceWhen(const Status& status) {
  return sinceText(status.info ? status.info->silentSince.value_or(0) : 0);
}

std::vector<Problem> judgeSyncApplication(const Status& status) {
  const std::string address = SYNC_APPLICATION_ADDRESS;
  const char* const meanwhile = " Badges keep their last state meanwhile.";
  const auto& state = status.syncApplication;
  switch (state.outcome) {
    case SyncApplicationState::Outcome::answers:
      return {};
    case SyncApplicationState::Outcome::refused:
      return {{"sync-application-down",
               "Kelvane is not running" + sinceWhen(status) + ": nobody listens on " + address + ".",
               std::string("Start Kelvane.") + meanwhile}};
    case SyncApplicationState::Outcome::timedOut:
      return {{"sync-application-stalled",
               "Kelvane has stalled" + sinceWhen(status) + ": it does not answer on " + address + ".",
               std::string("Restart Kelvane.") + meanwhile}};
    case SyncApplicationState::Outcome::anotherUser:
      return {{"sync-application-foreign",
               "A process of another user (uid " + std::to_string(state.user) + ") listens on " + address +
                   ", where Kelvane should. The extension sends it nothing.",
               "End that process, then start Kelvane."}};
    case SyncApplicationState::Outcome::failed:
      break;
  }
  return {{"sync-application-fails",
           "Kelvane does not answer on " + address + " as expected (" + state.problem + ")" + sinceWhen(status) + ".",
           std::string("Restart Kelvane.") + meanwhile}};
}

}  // namespace

Status examine(Extension& extension, bool start) {
  Status status;
  examineProcess(extension, start, status);
  auto installation = examineInstallation(status.canBeStarted, status.process);
  append(status.problems, std::move(installation.problems));
  if (!installation.program.empty())
    append(status.problems, examineFiles(installation.program, status, extension.timeout()));
  judgeStop(status);
  status.syncApplication = askSyncApplication();
  append(status.problems, judgeSyncApplication(status));
  append(status.problems, examineFileManagers(extension.processesOnBus(), installation.prefixes));
  return status;
}

}  // namespace vornet::vi
