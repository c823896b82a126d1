#pragma once

#include <boost/asio/steady_timer.hpp>
#include <functional>
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

/// Asks the extension for badges, once for each question of a client, and again when an answer has become doubtful:
/// when its folder was filled, or when the sync database was locked. Any thread.
class BadgeAnswers {
 public:
  /// `lookUps`: one thread, on which all questions are asked that need the database. All arguments outlive this object;
  /// its last work is done, or dropped, when `lookUps` has been joined or stopped.
  BadgeAnswers(FinderSync& extension, BadgeChanges& changes, WorkPool& lookUps);

  /// Whether every item's badge is known without the database. Never waits.
  bool areCached(const std::vector<platform::FileURL>& items) const;

  enum class Outcome {
    answered,
    inDoubt,  ///< answered; some items will be looked up again, and `client` is told of those that differ
    tooMuch,  ///< not answered: too much is to be looked up again already
  };
  using Reply = std::function<void(const std::vector<std::string>& identifiers)>;

  /// Calls `reply` with the identifier of each item, "" for none; `client` (a unique bus name) is who asks. On the
  /// thread of look-ups, unless the items are cached. An item whose look-up fails because the database is locked keeps
  /// the badge that it was last known to carry. `pool`: whose thread this is; others get their turns there meanwhile.
  Outcome answer(const std::string& client, const std::vector<platform::FileURL>& items, WorkPool& pool,
                 const Reply& reply);

  /// Asks again, soon, for every item of the folder on screen at `folder` that was asked for. Never refused.
  void askAgain(const std::string& folder);

  /// Forgets what `client` was told in doubt.
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
