#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Failure.hpp"

namespace vornet::vi {

/// A registered badge.
struct Badge {
  std::string identifier, label, image;
};

/// What the extension says of itself.
struct ExtensionInfo {
  std::vector<std::string> observedFolders;  ///< paths; empty while the sync application is not configured
  std::vector<Badge> badges;
  std::string version;
  std::string logFile;  ///< a path; empty when there is none
};

/// One entry of a context menu.
struct MenuEntry {
  std::string title;
  std::string action;  ///< the selector, such as "copyLink:"
  bool enabled = false;
  std::string image;
};

/// The process behind the extension's bus name.
struct ExtensionProcess {
  std::string uniqueName;
  std::uint32_t pid = 0;
};

/// The extension, as a client of the session bus sees it.
///
/// One thread: the one that made it, whose default main context delivers everything. The blocking operations run that
/// context until their answer is there, so handlers are called meanwhile, in the order in which the bus delivered; a
/// handler must not call a blocking operation. Every operation ends within the time-out given, whatever the extension
/// or the bus does. All paths are absolute, as absolutePath gives them. Failures are thrown as Failure.
class Client {
 public:
  /// Item path and new badge identifier, in the order sent.
  using Changes = std::vector<std::pair<std::string, std::string>>;
  /// The identifiers in the order asked, or why there are none.
  using BadgesAnswer = std::function<void(std::vector<std::string>, std::optional<Failure>)>;

  /// Connects to the session bus; does not start the extension. `timeout`: the limit for every single operation.
  explicit Client(std::chrono::milliseconds timeout);
  /// Leaves the bus, which ends what was observed. Requests under way are dropped.
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Blocking operations that start the extension when it does not run.

  ExtensionInfo info();
  void beginObserving(const std::string& folder);
  /// `limit`: instead of the time-out for this one operation.
  void endObserving(const std::string& folder, std::optional<std::chrono::milliseconds> limit = std::nullopt);
  /// The entries in the menu's order; empty when an item lies outside the observed folders.
  std::vector<MenuEntry> menu(const std::vector<std::string>& selection);
  void performAction(const std::string& action, const std::vector<std::string>& selection);
  /// Only starts it.
  void start();

  // Blocking operations that never start it.

  /// None when the extension does not run.
  std::optional<ExtensionProcess> process();
  /// What the running extension says; throws Failure when it does not run.
  ExtensionInfo infoIfRunning();
  /// True when the bus can start the extension.
  bool canBeStarted();

  // Without blocking.

  /// Asks for the badges of `items`, at most 10,000; `answer` is called later, once, unless the client goes first.
  void requestBadges(const std::vector<std::string>& items, BadgesAnswer answer);

  /// Badges of observed folders changed.
  void onBadgesChanged(std::function<void(Changes)> handler);
  /// Another process, or none, owns the extension's bus name now. What was observed through the one before is void.
  void onOwnerChanged(std::function<void()> handler);
  /// The bus itself went away; nothing works any more.
  void onBusClosed(std::function<void()> handler);

  /// The unique name of the process that owns the extension's bus name now; empty when none does.
  std::string owner() const;

  /// Makes the blocking operation under way, if any, throw FailureKind::interrupted. For handlers.
  void interrupt();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vornet::vi
