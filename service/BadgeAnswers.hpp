#pragma once

#include <boost/asio/steady_timer.hpp>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "BadgeChanges.hpp"
#include "DoubtfulAnswers.hpp"
#include "WorkPool.hpp"
#include "extension/FinderSync.hpp"

namespace vornet::service {

/// Asks the extension for badges: once for each request of a client, and again when an answer has become doubtful
/// because its folder was filled or the sync database was locked. Any thread.
class BadgeAnswers {
 public:
  /// `lookUps`: runs one work at a time, and all questions that need the database. All arguments outlive this object;
  /// its last work is done, or dropped, when the pool's threads have been stopped.
  BadgeAnswers(FinderSync& extension, BadgeChanges& changes, WorkPool& lookUps);

  /// True if every item's badge is known without the database. Never waits.
  bool areCached(const std::vector<platform::FileURL>& items) const;

  enum class Outcome {
    answered,
    inDoubt,  ///< answered; some items will be looked up again, and the caller gets those that differ
    tooMuch,  ///< not answered: too many items wait to be looked up again already
    givenUp,  ///< not answered: `pool` is stopping
  };

  /// Answers `call`, a RequestBadges for `items`: the identifier of each, "" for none. On the thread of look-ups,
  /// unless the items are cached. An item whose look-up fails because the database is locked keeps the badge that it
  /// was last known to carry. `pool`: whose thread this is; others get their turns there meanwhile.
  Outcome answer(GDBusMethodInvocation* call, const std::vector<platform::FileURL>& items, WorkPool& pool);

  /// Soon repeats the look-up of every item of the folder on screen at `folder` that was asked for. Never refused.
  void askAgain(const std::string& folder);

  /// Forgets the doubtful answers to `client`.
  void forget(const std::string& client) { doubtful_.forget(client); }

 private:
  std::optional<std::string> ask(const platform::FileURL& item) const;
  void lookUpAgainLater();
  void lookUpAgain();

  FinderSync& extension_;
  BadgeChanges& changes_;
  WorkPool& lookUps_;
  DoubtfulAnswers doubtful_;
  std::mutex lock_;  // guards what follows
  bool scheduled_ = false;
  boost::asio::steady_timer timer_;
};

}  // namespace vornet::service
