#pragma once

#include <atomic>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "BadgeChanges.hpp"
#include "ObservationRegistry.hpp"
#include "WorkPool.hpp"
#include "extension/FinderSync.hpp"
#include "platform/linux/FinderSyncHost.hpp"

namespace vornet::service {

/// Sends the badges of whole folders, as snapshots, to clients that have a stream of a folder: at once when it has been
/// filled; else when it is, or after a moment from the sync database, one folder after another. A snapshot is sent as a
/// whole, when the connection has room and the client has not had too many just now. Any thread.
class Snapshots {
 public:
  /// `signals`, `lookUps`: one thread each, the one that sends changes, and the one that asks the database. All
  /// arguments outlive this object, whose last work is done, or dropped, when both pools have been joined or stopped.
  Snapshots(FinderSync& extension, BadgeChanges& changes, ObservationRegistry& observations, WorkPool& signals,
            WorkPool& lookUps);

  /// `client` (a unique bus name) has begun a stream of `folder` (a path). A snapshot that it still waits for becomes
  /// this one.
  void request(const std::string& client, const std::string& folder);

  /// The badges of the items of `folder` may be others than was sent: sends all streams of it another snapshot. Never
  /// waits.
  void renew(const std::string& folder);

  /// Forgets `client`.
  void forget(const std::string& client);

  /// Ends the waiting. Once, before the pools are joined.
  void stop();

 private:
  using Clock = std::chrono::steady_clock;
  using Clients = std::vector<std::string>;
  using Key = std::pair<std::string, std::string>;  // folder, client
  using Shown = std::map<std::string, platform::host::ShownBadge, std::less<>>;
  struct Request {
    Clock::time_point due;
    bool needsLookUp = false;
  };
  struct Known;
  class Snapshot;

  void add(const std::string& client, const std::string& folder, Clock::time_point due);
  void putBack(const std::string& folder, const Clients& clients, bool needsLookUp);
  Clock::time_point dueOf(const Key& key, const Request& request) const;
  void serveSoon();
  void serve();
  void serve(const std::string& folder, Clients clients);
  std::pair<std::string, Clients> takeNext();
  void lookUpSoon(const std::string& folder, const Clients& clients);
  void lookUp(const std::string& folder, const Clients& clients);
  Known known(const std::string& folder);
  void send(const std::string& folder, const Clients& clients, RESTPollingManager::Listed listed,
            const Snapshot& snapshot);

  FinderSync& extension_;
  BadgeChanges& changes_;
  ObservationRegistry& observations_;
  WorkPool& signals_;
  WorkPool& lookUps_;
  std::atomic<bool> waitsForRoom_ = false;
  std::mutex lock_;  // guards what follows
  std::map<Key, Request> waiting_;
  std::map<Key, Clock::time_point> sent_;               // when
  std::map<std::string, Clock::time_point> paidUntil_;  // client -> when it has been sent no more than its share
  bool isLookingUp_ = false;
  bool stopped_ = false;
  Clock::time_point serves_ = Clock::time_point::max();  // when serve() is to run; min: it waits for its thread
  boost::asio::steady_timer timer_;
};

}  // namespace vornet::service
