#include "Snapshots.hpp"

#include <algorithm>
#include <memory>
#include <optional>
#include <set>
#include <tuple>

#include "Selections.hpp"
#include "dbus/Interface.hpp"
#include "platform/FinderSync.hpp"

namespace vornet::service {
namespace {

using namespace std::chrono_literals;
using Listed = RESTPollingManager::Listed;

// How long an unfilled folder waits for the sync application, which answers in a few milliseconds or seconds.
constexpr auto BEFORE_LOOK_UP = 150ms;

// Between attempts at a locked database.
constexpr auto BETWEEN_LOOK_UPS = 1050ms;

// Between two snapshots of a folder for a client.
constexpr auto BETWEEN_SNAPSHOTS = 100ms;

// What a client is sent in a second, on average; so much more at once. A client that asks and never reads would fill
// the memory of the bus.
constexpr double BYTES_A_SECOND = 1024 * 1024;
constexpr auto ADVANCE = 8s;
constexpr std::size_t BYTES_OF_A_MESSAGE = 256;  // beside the names

bool isTooLarge(const FolderBadges& badges) {
  return badges.items() > dbus::MAX_ITEMS_A_SNAPSHOT || badges.bytes() > dbus::MAX_BYTES_A_SNAPSHOT;
}

}  // namespace

/// What is known of a folder beside what is stored, all at one moment. What waits to be sent is no newer than
/// `statuses`.
struct Snapshots::Known {
  std::shared_ptr<const StatusTable> statuses;  // null: the folder has not been filled
  Shown shown;
  BadgeChanges::Waiting waiting;

  bool operator==(const Known&) const = default;
};

/// Badges of a folder's items, which are newer than what is known.
class Snapshots::Snapshot {
 public:
  Snapshot(const std::string& folder, Known known)
      : roots_(platform::FIFinderSyncController::defaultController().directoryURLs()),
        folder_(folder + "/"),
        known_(std::move(known)) {}

  const FolderBadges& badges() const { return badges_; }

  /// What is known of an item; null for nothing.
  const platform::host::ShownBadge* shown(std::string_view name) const {
    const auto found = known_.shown.find(name);
    return found == known_.shown.end() ? nullptr : &found->second;
  }

  void add(std::string_view name, std::string_view identifier) {
    if (!identifier.empty() && isBelow(roots_, folder_ + std::string(name))) badges_.add(name, identifier);
    if (known_.shown.contains(name) || known_.waiting.contains(name)) said_.try_emplace(std::string(name), identifier);
  }

  /// Adds those shown that have not been added and for which `isKept` holds; the others have no badge.
  template <typename Condition>
  void addOthers(const Condition& isKept) {
    for (const auto& [name, badge] : known_.shown)
      if (!said_.contains(name)) add(name, isKept(badge) ? std::string_view(badge.identifier) : std::string_view());
  }

  /// To be called when it is sent, with the emission lock held: what waits to be sent becomes what was added, and so
  /// does what is known, with which the next badge is compared. Nothing newer is touched.
  void settle(BadgeChanges& changes) const {
    for (const auto& [name, identifier] : said_) {
      const auto url = platform::FileURL::fileURLWithPath(folder_ + name);
      if (const auto found = known_.waiting.find(name); found != known_.waiting.end())
        changes.amend(url, identifier, found->second);
      const auto* badge = shown(name);
      if (badge && badge->identifier != identifier) platform::host::noteSent(url, *badge, identifier);
    }
  }

  /// The items with a change that waits and of which nothing was added have no badge.
  void addWaiting() {
    for (const auto& [name, number] : known_.waiting) said_.try_emplace(name);
  }

 private:
  std::set<platform::FileURL> roots_;
  std::string folder_;
  Known known_;
  FolderBadges badges_;
  std::map<std::string, std::string, std::less<>> said_;  // of items that are known
};

Snapshots::Snapshots(FinderSync& extension, BadgeChanges& changes, ObservationRegistry& observations, WorkPool& signals,
                     WorkPool& lookUps)
    : extension_(extension),
      changes_(changes),
      observations_(observations),
      signals_(signals),
      lookUps_(lookUps),
      timer_(signals.threads()) {
  changes_.whenRoom([this] {
    if (waitsForRoom_.exchange(false)) serveSoon();
  });
}

void Snapshots::request(const std::string& client, const std::string& folder) {
  add(client, folder, Clock::now() + (extension_.cachedStatuses(folder) ? 0ms : BEFORE_LOOK_UP));
}

void Snapshots::renew(const std::string& folder) {
  signals_.postOwn([this, folder] {
    for (const auto& [client, stream] : observations_.observers(folder))
      if (stream) add(client, folder, Clock::now());
  });
}

void Snapshots::forget(const std::string& client) {
  const std::lock_guard guard(lock_);
  std::erase_if(waiting_, [&](const auto& entry) { return entry.first.second == client; });
}

void Snapshots::stop() {
  const std::lock_guard guard(lock_);
  stopped_ = true;
  timer_.cancel();
}

void Snapshots::add(const std::string& client, const std::string& folder, Clock::time_point due) {
  {
    const std::lock_guard guard(lock_);
    const auto waiting = waiting_.try_emplace({folder, client}, Request{due}).first;
    waiting->second = {std::min(waiting->second.due, due)};
    if (dueOf(waiting->first, waiting->second) >= serves_) return;  // the others need not be searched
  }
  serveSoon();
}

void Snapshots::putBack(const std::string& folder, const Clients& clients, bool needsLookUp) {
  const std::lock_guard guard(lock_);
  for (const auto& client : clients) waiting_.try_emplace({folder, client}, Request{Clock::now(), needsLookUp});
}

/// With the lock held, as for what follows.
Snapshots::Clock::time_point Snapshots::dueOf(const Key& key, const Request& request) const {
  if (request.needsLookUp && isLookingUp_) return Clock::time_point::max();
  auto due = request.due;
  if (const auto paid = paidUntil_.find(key.second); paid != paidUntil_.end())
    due = std::max(due, paid->second - ADVANCE);
  if (const auto sent = sent_.find(key); sent != sent_.end()) due = std::max(due, sent->second + BETWEEN_SNAPSHOTS);
  return due;
}

/// When the first one is due, and the pool's thread has done what it was given before. It is given one serve() at a
/// time: changes would wait for all of them.
void Snapshots::serveSoon() {
  const std::lock_guard guard(lock_);
  auto first = Clock::time_point::max();
  for (const auto& [key, request] : waiting_) first = std::min(first, dueOf(key, request));
  if (stopped_ || first >= serves_) return;
  serves_ = first;
  timer_.expires_at(first);
  timer_.async_wait([this](const boost::system::error_code& cancelled) {
    if (cancelled) return;
    const std::lock_guard expired(lock_);
    if (std::exchange(serves_, Clock::time_point::min()) != Clock::time_point::min())
      signals_.postOwn([this] { serve(); });
  });
}

void Snapshots::serve() {
  {
    const std::lock_guard guard(lock_);
    serves_ = Clock::time_point::max();
  }
  waitsForRoom_ = true;
  if (!changes_.hasRoom()) return;
  waitsForRoom_ = false;
  const auto [folder, clients] = takeNext();
  if (!clients.empty()) serve(folder, clients);
  serveSoon();
}

/// The folder of which a snapshot is due first, and the clients for which it is, in that order; none when none is due.
std::pair<std::string, Snapshots::Clients> Snapshots::takeNext() {
  const auto now = Clock::now();
  const std::lock_guard guard(lock_);
  std::erase_if(paidUntil_, [now](const auto& paid) { return paid.second < now; });
  std::erase_if(sent_, [now](const auto& sent) { return sent.second + BETWEEN_SNAPSHOTS < now; });
  std::string folder;
  auto first = now;
  for (const auto& [key, request] : waiting_) {
    const auto due = dueOf(key, request);
    if (due > first) continue;
    first = due;
    folder = key.first;
  }
  std::multimap<Clock::time_point, std::string> taken;
  std::erase_if(waiting_, [&](const auto& entry) {
    const auto due = dueOf(entry.first, entry.second);
    const bool isTaken = entry.first.first == folder && due <= now;
    if (isTaken) taken.emplace(due, entry.first.second);
    return isTaken;
  });
  Clients clients;
  for (auto& [due, client] : taken) clients.push_back(std::move(client));
  return {folder, clients};
}

/// Sends a folder's snapshot. It is put together before the emission lock is taken, and again if something has changed
/// by then.
void Snapshots::serve(const std::string& folder, Clients clients) {
  std::erase_if(clients, [&](const auto& client) { return !observations_.stream(client, folder); });
  if (clients.empty()) return;
  auto known = this->known(folder);
  if (!known.statuses) return lookUpSoon(folder, clients);
  const auto read = [&] {
    Snapshot snapshot(folder, known);
    const auto listed = extension_.listCachedBadges(folder, dbus::MAX_ITEMS_A_SNAPSHOT, [&](auto name, auto badge) {
      if (badge) snapshot.add(name, *badge);  // else it stays
    });
    snapshot.addOthers([](const auto&) { return true; });
    return std::pair(listed, std::move(snapshot));
  };
  auto [listed, snapshot] = read();
  const std::lock_guard emitting(changes_.emission());
  for (bool isOld = this->known(folder) != known; isOld; isOld = known.statuses != extension_.cachedStatuses(folder)) {
    known = this->known(folder);
    std::tie(listed, snapshot) = read();
  }
  if (listed == Listed::notYet) return putBack(folder, clients, false);
  send(folder, clients, listed, snapshot);
}

Snapshots::Known Snapshots::known(const std::string& folder) {
  Known known;
  do {
    known.statuses = extension_.cachedStatuses(folder);
    known.shown = platform::host::badgesOnScreen(folder);
    known.waiting = changes_.waitingIn(folder);
  } while (known.statuses != extension_.cachedStatuses(folder));
  return known;
}

void Snapshots::lookUpSoon(const std::string& folder, const Clients& clients) {
  {
    const std::lock_guard guard(lock_);
    if (!std::exchange(isLookingUp_, true)) {
      // Not as own work, for which long calls do not give way.
      lookUps_.post("snapshots", 1, [this, folder, clients] {
        lookUp(folder, clients);
        {
          const std::lock_guard ended(lock_);
          isLookingUp_ = false;
        }
        serveSoon();
      });
      return;
    }
  }
  putBack(folder, clients, true);
}

void Snapshots::lookUp(const std::string& folder, const Clients& clients) {
  const auto before = platform::host::lastSetting();
  const auto waiting = changes_.waitingIn(folder);
  std::vector<std::pair<std::string, std::optional<std::string_view>>> rows;
  const auto listed = extension_.listStoredBadges(folder, dbus::MAX_ITEMS_A_SNAPSHOT,
                                                  [&](auto name, auto badge) { rows.emplace_back(name, badge); });
  if (listed == Listed::notYet) {
    for (const auto& client : clients) add(client, folder, Clock::now() + BETWEEN_LOOK_UPS);
    return;
  }
  const auto isNewer = [before](const auto& badge) { return badge.setting > before; };
  const auto merge = [&](const Shown& shown) {
    Snapshot snapshot(folder, {nullptr, shown, waiting});
    for (const auto& [name, badge] : rows) {
      const auto* known = snapshot.shown(name);
      snapshot.add(name,
                   known && (!badge || isNewer(*known)) ? std::string_view(known->identifier) : badge.value_or(""));
    }
    snapshot.addOthers(isNewer);
    snapshot.addWaiting();
    return snapshot;
  };
  const auto shown = platform::host::badgesOnScreen(folder);
  auto snapshot = merge(shown);
  const std::lock_guard emitting(changes_.emission());
  if (extension_.cachedStatuses(folder)) return putBack(folder, clients, false);  // filled meanwhile
  if (const auto now = platform::host::badgesOnScreen(folder); now != shown) snapshot = merge(now);
  send(folder, clients, listed, snapshot);
}

/// The caller holds the emission lock. Those for which the connection has no room wait again.
void Snapshots::send(const std::string& folder, const Clients& clients, Listed listed, const Snapshot& snapshot) {
  const auto& badges = snapshot.badges();
  const bool exists = listed == Listed::all && !isTooLarge(badges);
  if (exists) snapshot.settle(changes_);
  bool isSent = false;
  for (auto client = clients.begin(); client != clients.end(); ++client) {
    const auto stream = observations_.stream(*client, folder);
    if (!stream) continue;  // it has left
    if (std::exchange(isSent, true) && !changes_.hasRoom()) return putBack(folder, {client, clients.end()}, false);
    if (exists)
      changes_.sendNow(*client, *stream, badges, true);
    else if (observations_.endStream(*client, folder, *stream))
      changes_.refuseSnapshot(*client, *stream);
    const auto bytes = static_cast<double>(BYTES_OF_A_MESSAGE + (exists ? badges.bytes() : 0));
    const std::lock_guard guard(lock_);
    sent_[{folder, *client}] = Clock::now();
    auto& paid = paidUntil_[*client];
    paid = std::max(paid, Clock::now()) +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(bytes / BYTES_A_SECOND));
  }
}

}  // namespace vornet::service
