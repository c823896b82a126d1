#pragma once

#include <gio/gio.h>

#include <boost/asio/steady_timer.hpp>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ObservationRegistry.hpp"
#include "WorkPool.hpp"
#include "platform/Foundation.hpp"

namespace vornet::service {

/// Gathers badge changes for a few milliseconds and sends them, each to the clients that observe the item's folder, as
/// the signal BadgesChanged. Of items that carry no badges (isBelow in Selections) nothing is sent. No more is given to
/// the connection than it has sent, save some hundred kilobytes: what waits here waits once for each item, and who sets
/// badges waits when that is much. Any thread.
class BadgeChanges {
 public:
  /// Sends on `connection`, from a thread of `pool`. All arguments outlive this object, whose last change is sent, or
  /// dropped, when `pool` has been joined.
  BadgeChanges(GDBusConnection* connection, const ObservationRegistry& observations, WorkPool& pool);
  ~BadgeChanges();

  /// The badge of `url` is now `identifier`. Never waits. False when so much waits that no more should be added before
  /// platform::host::listenerHasRoom() has been called, which this does; it is noted all the same.
  bool add(const platform::FileURL& url, const std::string& identifier);

  /// Whoever asked for the badge of `url` is told `identifier`: a change of it that still waits becomes that.
  void amend(const platform::FileURL& url, const std::string& identifier);

  using Changes = std::vector<std::pair<std::string, std::string>>;  // URL text, identifier

  /// Sends `changes` to `client` (a unique bus name) at once. The caller holds emission().
  void sendNow(const std::string& client, const Changes& changes);

  /// Held while messages are given to the connection. Who reads badges and answers with them under this lock may be
  /// sure that no older state is signalled after the answer.
  std::mutex& emission() { return emission_; }

  /// Ends the waiting for a next batch. Once, before `pool` is joined.
  void stop();

 private:
  class Output;
  struct Change {
    platform::FileURL url;
    std::string identifier;
  };

  void sendSoon();
  void send();
  bool sendSome();
  bool isFull() const { return waiting_ >= MOST_WAITING; }

  static constexpr std::size_t MOST_WAITING = 1024 * 1024;  // bytes, of memory

  GDBusConnection* const connection_;
  const ObservationRegistry& observations_;
  std::mutex emission_;
  std::mutex lock_;  // guards what follows
  boost::asio::steady_timer timer_;
  boost::asio::steady_timer calm_;  // expires when a storm of changes is over
  bool scheduled_ = false;
  bool stopped_ = false;
  std::unordered_map<std::string, Change> pending_;  // by path
  std::size_t sent_ = 0;                             // since memory was last given back
  std::size_t waiting_ = 0;                          // bytes that they take, roughly
  const std::shared_ptr<Output> output_;
};

}  // namespace vornet::service
