#pragma once

#include <gio/gio.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "BadgeAnswers.hpp"
#include "BadgeChanges.hpp"
#include "FinderSync1.h"
#include "ObservationRegistry.hpp"
#include "Snapshots.hpp"
#include "WorkPool.hpp"
#include "dbus/GLibPtr.hpp"
#include "extension/FinderSync.hpp"
#include "platform/linux/FinderSyncHost.hpp"

namespace vornet::service {

/// Serves the extension's callbacks on a bus as com.vornet.FinderSync1. The thread of the main context only takes calls
/// in: they run on the service's threads, badges apart from menus, so that neither waits for the other. Made, started
/// and stopped on the thread of the main context.
class FinderSyncService : private platform::host::Listener {
 public:
  /// Serves `extension` on `connection`. Both outlive the service.
  FinderSyncService(FinderSync& extension, GDBusConnection* connection);
  ~FinderSyncService() override;
  FinderSyncService(const FinderSyncService&) = delete;
  FinderSyncService& operator=(const FinderSyncService&) = delete;

  /// Exports the object. Calls to it wait in the main context, which must not run before the extension has been brought
  /// to life. False, with `error` saying why, when the object cannot be exported.
  bool start(std::string& error);

  /// Updates the object's properties from the extension. The service does so automatically when the observed folders
  /// change; to be called once the extension has been brought to life.
  void publishProperties();

  /// Takes no more calls, finishes those being carried out (at most some seconds) and drops those that wait.
  void stop();

 private:
  using Strings = std::vector<std::string>;
  using URLs = std::vector<platform::FileURL>;

  bool badgeChanged(const platform::FileURL& url, const std::string& identifier) override;
  void badgeAnswered(const platform::FileURL& url, const std::string& identifier) override;
  void badgesInvalidated(const platform::FileURL& folder) override;
  void directoriesChanged() override;

  void noteAnswer(const std::optional<platform::Date>& silentSince);
  void publishAnswer();

  void connectHandlers();
  void unwatchClients();

  /// Runs `work` on `pool` when it is the caller's turn; answers `invocation` with an error when `work` throws. `cost`:
  /// how many items it deals with.
  void carryOut(WorkPool& pool, GDBusMethodInvocation* invocation, std::size_t cost, std::function<void()> work);

  void beginObserving(GDBusMethodInvocation* invocation, const std::string& folder);
  void endObserving(GDBusMethodInvocation* invocation, const std::string& folder);
  void requestSnapshot(GDBusMethodInvocation* invocation, const std::string& folder, guint64 stream);
  void requestBadges(GDBusMethodInvocation* invocation, const Strings& items);
  void answerBadges(GDBusMethodInvocation* invocation, const URLs& items, WorkPool& pool);
  void getMenu(GDBusMethodInvocation* invocation, const Strings& selection);
  void performAction(GDBusMethodInvocation* invocation, const std::string& action, const Strings& selection);
  void watchClient(const std::string& client);
  void forgetClient(const std::string& client);
  void endObservationOf(const std::string& folder);
  void keepOthersCached(const std::string& folder);

  FinderSync& extension_;
  GDBusConnection* const connection_;
  const GObjectPtr<VornetFinderSync1> skeleton_;
  bool exported_ = false;
  bool stopped_ = false;

  std::atomic<gint64> silentSince_;  // as the property says
  guint forgettingAnswer_ = 0;       // the time-out that forgets the answer

  ObservationRegistry observations_;
  std::mutex clientsLock_;
  std::map<std::string, guint> clientWatches_;  // unique bus name -> watch

  SharedThreads threads_;
  WorkPool observing_;  // one at a time: begin, end and signals keep their order
  WorkPool badges_;     // never wait for the database
  WorkPool lookUps_;    // one at a time: see BadgeAnswers
  WorkPool menus_;      // may wait for the sync application
  BadgeChanges changes_;
  BadgeAnswers answers_;
  Snapshots snapshots_;
};

}  // namespace vornet::service
