#include "BadgeAnswers.hpp"

#include <chrono>
#include <map>
#include <string_view>

#include "Selections.hpp"
#include "db/SyncDB.hpp"
#include "platform/linux/FinderSyncHost.hpp"

namespace vornet::service {
namespace {

using platform::FIFinderSyncController;
using platform::FileURL;

// Just longer than the time for which no look-up waits for a lock, so that the first one of a round waits again.
constexpr std::chrono::milliseconds BETWEEN_ROUNDS{1050};

// Items of a long call that are looked up before other clients' short calls get a turn.
constexpr std::size_t ITEMS_A_TURN = 50;

// Look-ups of a round before clients' requests get a turn.
constexpr std::size_t LOOK_UPS_A_TURN = 200;

std::string_view folderOf(std::string_view path) {
  return path.substr(0, path.find_last_of('/'));
}

bool carriesBadge(const std::set<FileURL>& roots, const FileURL& item) {
  return item.path() && isBelow(roots, *item.path());
}

void reply(GDBusMethodInvocation* call, const std::vector<std::string>& identifiers) {
  GVariantBuilder texts;
  g_variant_builder_init(&texts, G_VARIANT_TYPE_STRING_ARRAY);
  for (const auto& identifier : identifiers) g_variant_builder_add(&texts, "s", identifier.c_str());
  g_dbus_method_invocation_return_value(call, g_variant_new("(as)", &texts));
}

}  // namespace

BadgeAnswers::BadgeAnswers(FinderSync& extension, BadgeChanges& changes, WorkPool& lookUps)
    : extension_(extension), changes_(changes), lookUps_(lookUps), timer_(lookUps.threads()) {}

bool BadgeAnswers::areCached(const std::vector<FileURL>& items) const {
  const auto roots = FIFinderSyncController::defaultController().directoryURLs();
  std::optional<std::string_view> cached;  // most batches have one folder
  for (const auto& item : items) {
    if (!carriesBadge(roots, item)) continue;
    const auto folder = folderOf(*item.path());
    if (folder == cached) continue;
    if (!extension_.isCached(item)) return false;
    cached = folder;
  }
  return true;
}

/// The extension's identifier for `item`; none while the database is locked: the badge is then left as it is.
std::optional<std::string> BadgeAnswers::ask(const FileURL& item) const {
  for (;;) {
    const auto before = SyncDB::lockedQueriesOfThisThread();
    platform::host::BadgeRequest request(item);
    extension_.requestBadgeIdentifierForURL(item);
    const bool locked = SyncDB::lockedQueriesOfThisThread() != before;
    if (locked) request.withdraw();
    const auto answer = request.answer();
    if (!request.apply()) continue;
    if (locked) return std::nullopt;
    return answer.value_or("");
  }
}

BadgeAnswers::Outcome BadgeAnswers::answer(GDBusMethodInvocation* call, const std::vector<FileURL>& items,
                                           WorkPool& pool) {
  const std::string client = g_dbus_method_invocation_get_sender(call);
  const auto roots = FIFinderSyncController::defaultController().directoryURLs();
  std::vector<std::optional<std::string>> found(items.size());
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i % ITEMS_A_TURN == ITEMS_A_TURN - 1) pool.giveWay();
    if (pool.isStopping()) return Outcome::givenUp;
    if (carriesBadge(roots, items[i])) found[i] = ask(items[i]);
  }

  // A badge may have changed since it was requested: the answer holds the present one, and no older one follows it.
  const std::lock_guard emitting(changes_.emission());
  std::vector<std::string> identifiers(items.size());
  std::vector<DoubtfulAnswers::Answer> doubtful;
  const bool nothingInDoubt = doubtful_.isEmpty();
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (!carriesBadge(roots, items[i])) continue;
    const auto& path = *items[i].path();
    auto shown = platform::host::badgeIdentifier(items[i]);
    if (!shown && found[i] && platform::host::isOverlooked(items[i]) && extension_.isCached(items[i]))
      found[i] = ask(items[i]);  // its changes were not recorded; the cache is as new as any signal
    if (!found[i]) {
      identifiers[i] = shown ? *std::move(shown) : doubtful_.lastKnown(path);
      doubtful.emplace_back(path, identifiers[i]);
      continue;
    }
    if (!shown) doubtful_.setKnown(path, *found[i]);
    if (!nothingInDoubt) doubtful_.settle(client, path);
    identifiers[i] = shown ? *std::move(shown) : *std::move(found[i]);
  }
  if (doubtful.empty()) {
    reply(call, identifiers);
    return Outcome::answered;
  }
  if (!doubtful_.add(client, doubtful)) return Outcome::tooMuch;
  lookUpAgainLater();
  reply(call, identifiers);
  return Outcome::inDoubt;
}

void BadgeAnswers::askAgain(const std::string& folder) {
  lookUps_.postOwn([this, folder] {
    const auto roots = FIFinderSyncController::defaultController().directoryURLs();
    for (const auto& item : platform::host::itemsOnScreen(folder)) {
      if (lookUps_.isStopping()) return;
      if (carriesBadge(roots, item)) ask(item);
    }
  });
}

void BadgeAnswers::lookUpAgainLater() {
  const std::lock_guard guard(lock_);
  if (scheduled_) return;
  scheduled_ = true;
  timer_.expires_after(BETWEEN_ROUNDS);
  timer_.async_wait([this](const boost::system::error_code&) {
    {
      const std::lock_guard begun(lock_);
      scheduled_ = false;
    }
    lookUps_.postOwn([this] { lookUpAgain(); });
  });
}

/// Repeats some of the look-ups that failed. On the thread of look-ups, so that no answer is sent between finding a
/// badge here and sending it.
void BadgeAnswers::lookUpAgain() {
  std::vector<std::pair<FileURL, std::string>> found;
  bool locked = false;
  for (const auto& path : doubtful_.items(LOOK_UPS_A_TURN)) {
    const auto item = FileURL::fileURLWithPath(path);
    auto identifier = ask(item);
    locked = !identifier;
    if (locked) break;  // the others would fail as well
    found.emplace_back(item, *std::move(identifier));
  }
  {
    const std::lock_guard emitting(changes_.emission());
    std::map<std::string, BadgeChanges::Changes> news;  // by client
    for (const auto& [item, identifier] : found) {
      const auto shown = platform::host::badgeIdentifier(item);
      if (!shown) doubtful_.setKnown(*item.path(), identifier);
      const auto& now = shown ? *shown : identifier;
      for (const auto& [client, told] : doubtful_.take(*item.path()))
        if (told != now) news[client].emplace_back(item.description(), now);
    }
    for (const auto& [client, changes] : news) changes_.sendNow(client, changes);
  }
  if (doubtful_.isEmpty()) return;
  if (locked) return lookUpAgainLater();
  lookUps_.postOwn([this] { lookUpAgain(); });
}

}  // namespace vornet::service
