#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Client.hpp"

namespace vornet::vi {

/// Asks for the badges of one folder's entries, in batches, a few of them under way at a time: the extension always has
/// work, and the limit for an answer counts for one batch, however large the folder is. One thread, as Client.
class BadgeLoader {
 public:
  /// Items in one request, and requests under way at once.
  static constexpr std::size_t BATCH_SIZE = 500;
  static constexpr std::size_t WINDOW = 4;

  /// `sink` receives each entry's name and badge identifier, in the order in which the answers come.
  BadgeLoader(Client& client, std::string folder, std::function<void(const std::string&, const std::string&)> sink);
  ~BadgeLoader();
  BadgeLoader(const BadgeLoader&) = delete;
  BadgeLoader& operator=(const BadgeLoader&) = delete;

  /// Asks for `names` after what was asked before.
  void ask(const std::vector<std::string>& names);

  /// Asks again for what a failure has left unanswered; does nothing without one.
  void retry();

  /// Drops what was asked and not answered, and a failure with it.
  void forget();

  /// True while answers are awaited; false also after a failure.
  bool isBusy() const;

  /// Why asking ended early, if it did: nothing more is asked until retry() or forget().
  const std::optional<Failure>& failure() const;

 private:
  struct State;
  static void pump(const std::shared_ptr<State>& state);
  std::shared_ptr<State> state_;
};

}  // namespace vornet::vi
