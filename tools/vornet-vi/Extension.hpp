#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "client/ExtensionLink.hpp"
#include "client/FileManager.hpp"

namespace vornet::vi {

using client::MenuEntry;

/// Failures of the extension that callers treat differently.
enum class FailureKind {
  noBus,         ///< there is no session bus, or it went away
  notInstalled,  ///< nobody owns the extension's bus name and the bus cannot start it
  notStarted,    ///< the bus could not start the extension
  gone,          ///< the extension left the bus before it answered
  timedOut,      ///< no answer in time
  interrupted,   ///< Extension::interrupt was called
  outside,       ///< the folder is outside the observed ones
  busy,          ///< the extension, or the bus, has too much to do; later it may not
  noRoom,        ///< the extension observes as many folders as it takes; badges can be asked for all the same
  unhealthy,     ///< `status` found something wrong
  refused,       ///< the extension refused the call for another reason, or answered wrongly
};

/// What the extension, or the bus, refused. what() is one line for the user, in which file names are raw: escape it
/// before showing it.
class Failure : public std::runtime_error {
 public:
  Failure(FailureKind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}
  FailureKind kind() const { return kind_; }

 private:
  FailureKind kind_;
};

/// What a call's `error` means. `subject`: what the call was about (a path, an action), or empty.
Failure failureOf(const client::CallError& error, const std::string& subject);

/// A registered badge.
struct Badge {
  std::string identifier, label, image;
};

/// The extension's properties.
struct ExtensionInfo {
  std::vector<std::string> observedFolders;  ///< paths; empty while the sync application is not configured
  std::vector<Badge> badges;
  std::string version;
  std::string logFile;  ///< a path; empty when there is none
  /// Since when the sync application has not answered, in seconds since 1970; 0: it answers; -1: it has not been asked
  /// lately. None: an older extension, which does not say.
  std::optional<std::int64_t> silentSince;
};

/// The extension for a program that does nothing but wait for it.
///
/// One thread, whose default main context delivers everything. Blocking operations run that context until their answer
/// is there, so handlers are called meanwhile, in the order in which the bus delivered; a handler must not call a
/// blocking operation. Each ends within the time-out, whatever the extension or the bus does. All paths are absolute.
/// Failures are thrown as Failure.
class Extension : private client::ExtensionLink::Listener {
 public:
  /// Connects to the session bus; does not start the extension. `timeout`: the limit for every single operation.
  explicit Extension(std::chrono::milliseconds timeout);
  Extension(const Extension&) = delete;
  Extension& operator=(const Extension&) = delete;

  // Blocking operations that start the extension when it does not run.

  ExtensionInfo info() { return readInfo(true); }
  /// Where `folder` is outside the observed folders, the failure names them, or says that there are none.
  void beginObserving(const std::string& folder);
  /// `limit`: instead of the time-out.
  void endObserving(const std::string& folder, std::optional<std::chrono::milliseconds> limit = std::nullopt);
  /// The entries in the menu's order; `icon` is the image's name. Fails when an item is outside the observed folders.
  client::Menu menu(const client::Selection& selection);
  void performAction(const std::string& action, const client::Selection& selection);
  /// Only starts it.
  void start();

  // Blocking operations that never start it.

  /// The process; none when the extension does not run.
  std::optional<std::uint32_t> process();
  /// The running extension's properties; fails when it does not run.
  ExtensionInfo infoIfRunning() { return readInfo(false); }
  /// True if the bus can start the extension.
  bool canBeStarted();
  /// The processes of all clients of the bus, each once.
  std::vector<std::uint32_t> processesOnBus();

  // Without blocking.

  /// For several calls in flight at a time. Owned by this object.
  client::ExtensionLink& link() { return link_; }

  /// The limit for every operation, and why one failed that took longer.
  std::chrono::milliseconds timeout() const { return timeout_; }
  Failure timeoutFailure() const;

  /// The unique name of the process that owns the extension's bus name; empty for none. Observations of an earlier
  /// process no longer count.
  const std::string& owner() const { return link_.owner(); }

  /// As client::ExtensionLink's.
  std::optional<std::int64_t> syncApplicationSilentSince() const { return link_.syncApplicationSilentSince(); }

  /// From now on an extension that ended is restarted: at once, then with back-off while it keeps ending.
  void keepRunning() { keepsRunning_ = true; }

  /// True if the bus itself went away; nothing works any more.
  bool isBusGone() const { return busProblem_.has_value(); }

  /// Makes the blocking operation in progress, if any, fail with FailureKind::interrupted. For handlers.
  void interrupt() { interrupted_ = true; }

 private:
  void extensionReady() override {}
  void extensionGone() override;
  void observedFoldersChanged() override {}
  void busOpened() override { isOpen_ = true; }
  void busLost(const std::string& message) override { busProblem_ = message; }
  void startFailed(const client::CallError& error, bool isFirst, bool willRetry) override;

  void waitUntil(const std::function<bool()>& done, std::optional<std::chrono::milliseconds> limit = std::nullopt);
  GVariantPtr await(const std::function<void(client::ExtensionLink::Done)>& begin, const std::string& subject,
                    std::optional<std::chrono::milliseconds> limit = std::nullopt);
  GVariantPtr call(const char* method, GVariant* arguments, const char* type, const std::string& subject);
  ExtensionInfo readInfo(bool mayStart);
  Failure outsideFailure(const client::Selection& selection);
  std::optional<std::uint32_t> processOf(const std::string& busName);

  const std::chrono::milliseconds timeout_;
  std::optional<std::string> busProblem_;
  bool isOpen_ = false;
  bool interrupted_ = false;
  bool keepsRunning_ = false;
  client::ExtensionLink link_;
};

}  // namespace vornet::vi
