#pragma once

#include <gio/gio.h>

#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ObservationRegistry.hpp"
#include "WorkPool.hpp"
#include "platform/Foundation.hpp"

namespace vornet::service {

/// Badges of items of one folder, as the signal FolderBadges has them.
class FolderBadges {
 public:
  void add(std::string_view name, std::string_view identifier);

  std::size_t items() const { return items_; }
  std::size_t bytes() const { return bytes_; }

 private:
  friend class BadgeChanges;
  struct Message {
    std::string names;
    std::string badges;  // a byte each
  };
  std::map<std::string, char, std::less<>> numbers_ = numbers();
  std::vector<Message> messages_;
  std::size_t items_ = 0;
  std::size_t bytes_ = 0;

  static std::map<std::string, char, std::less<>> numbers();
};

/// Gathers badge changes for a few milliseconds and sends them, each to the clients that observe the item's folder, as
/// the signal BadgesChanged, or FolderBadges to one with a stream of it. Sends nothing for items that carry no badges
/// (isBelow in Selections). The connection is at most a few hundred kilobytes ahead of what it has sent: the rest waits
/// here, once for each item, and whoever sets badges waits when it grows too large. Any thread.
class BadgeChanges {
 public:
  /// Sends on `connection`, as work of `pool`. All arguments outlive this object, whose last change is sent, or
  /// dropped, when the pool's threads have been stopped.
  BadgeChanges(GDBusConnection* connection, const ObservationRegistry& observations, WorkPool& pool);
  ~BadgeChanges();

  /// The badge of `url` is now `identifier`. Never waits. False when so much waits that no more should be added before
  /// this has called platform::host::listenerHasRoom(); the change is recorded all the same.
  bool add(const platform::FileURL& url, const std::string& identifier);

  /// The badge of `url` is answered as `identifier`: a change of it that still waits is replaced by that.
  void amend(const platform::FileURL& url, const std::string& identifier);

  using Changes = std::vector<std::pair<std::string, std::string>>;  // URL text, identifier

  /// Sends `changes` to `client` (a unique bus name) at once. The caller holds emission().
  void sendNow(const std::string& client, const Changes& changes);

  /// Sends `badges` to `client` at once, in its `stream` of a folder. The caller holds emission(). A whole snapshot is
  /// sent also when it has no items.
  void sendNow(const std::string& client, std::uint64_t stream, const FolderBadges& badges, bool isSnapshot);

  /// Sends that there is no snapshot for `stream`. The caller holds emission().
  void refuseSnapshot(const std::string& client, std::uint64_t stream);

  /// The items of `folder` with a change that waits to be sent, by name, and the number of the change.
  using Waiting = std::map<std::string, std::uint64_t, std::less<>>;
  Waiting waitingIn(const std::string& folder);

  /// As amend(url, identifier), unless another change than the one with this number waits by now.
  void amend(const platform::FileURL& url, const std::string& identifier, std::uint64_t number);

  /// False while so much has been given to the connection, and not been sent, that more should wait. `listener` is
  /// called when that changes, from any thread, and must not wait. To be set before anything is sent.
  bool hasRoom() const;
  void whenRoom(std::function<void()> listener) { roomListener_ = std::move(listener); }

  /// Held while messages are given to the connection. No older state is signalled after an answer that was read and
  /// sent under this lock.
  std::mutex& emission() { return emission_; }

  /// Stops waiting for the next batch. Once, before `pool` is stopped.
  void stop();

 private:
  class Output;
  struct Change {
    platform::FileURL url;
    std::string identifier;
    std::uint64_t number;  // never used twice
  };

  void sendSoon();
  void sendFolderBadges(const std::string& client, std::uint64_t stream, unsigned char flags,
                        const FolderBadges::Message& message);
  void send(const char* signal, const std::string& client, GVariant* body, std::size_t bytes);
  void send();
  bool sendSome();
  void sendAfter(std::chrono::milliseconds delay);
  bool isFull() const { return waiting_ >= MOST_WAITING; }

  static constexpr std::size_t MOST_WAITING = 1024 * 1024;  // bytes, of memory

  GDBusConnection* const connection_;
  const ObservationRegistry& observations_;
  WorkPool& pool_;
  std::mutex emission_;
  std::mutex lock_;  // guards what follows
  boost::asio::steady_timer timer_;
  boost::asio::steady_timer calm_;  // expires when a storm of changes is over
  bool scheduled_ = false;
  bool stopped_ = false;
  std::unordered_map<std::string, Change> pending_;  // by path
  std::size_t sent_ = 0;                             // since memory was last returned
  std::size_t waiting_ = 0;                          // their memory in bytes, roughly
  std::uint64_t lastNumber_ = 0;
  const std::shared_ptr<Output> output_;
  std::function<void()> roomListener_ = [] {};
};

}  // namespace vornet::service
