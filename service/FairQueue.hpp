#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>

namespace vornet::service {

/// Items that wait for several clients, who take turns: each gets the same share of the cost served, so a client that
/// asked for little is served next however much others have queued. The items of one client keep their order. Not
/// thread-safe.
///
/// This is start-time fair queueing: each client's next item has a finish time on a clock that counts cost, and the
/// earliest finish goes first.
template <typename Item>
class FairQueue {
 public:
  /// `cost`: how much work `item` is, in a unit that all items share.
  void add(const std::string& client, std::uint64_t cost, Item item) {
    const auto found = clients_.try_emplace(client).first;
    found->second.waiting.push_back({cost, std::move(item)});
    if (found->second.waiting.size() == 1) enterOrder(found);
    ++size_;
  }

  /// Takes the item whose turn it is among the clients' next ones that `may(client, item)` allows.
  template <typename May>
  std::optional<Item> take(May may) {
    const auto next = find(may);
    if (next == order_.end()) return std::nullopt;
    const auto name = std::get<std::string>(*next);
    const auto found = clients_.find(name);
    Client& client = found->second;
    clock_ = std::max(clock_, client.start);
    client.finished = std::get<0>(*next);
    order_.erase(next);
    Item item = std::move(client.waiting.front().item);
    client.waiting.pop_front();
    --size_;
    if (!client.waiting.empty()) enterOrder(found);
    forgetIdleClients();
    return item;
  }

  /// True if take() with this `may` would take something.
  template <typename May>
  bool has(May may) const {
    return find(may) != order_.end();
  }

  std::size_t size() const { return size_; }

 private:
  struct Waiting {
    std::uint64_t cost;
    Item item;
  };
  struct Client {
    std::deque<Waiting> waiting;
    std::uint64_t start = 0;     // of the first that waits
    std::uint64_t finished = 0;  // of the last that was taken
  };
  using Clients = std::map<std::string, Client>;
  using Order = std::set<std::tuple<std::uint64_t, std::uint64_t, std::string>>;  // finish, entered, client

  void enterOrder(typename Clients::iterator client) {
    client->second.start = std::max(clock_, client->second.finished);
    order_.emplace(client->second.start + client->second.waiting.front().cost, entered_++, client->first);
  }

  template <typename May>
  typename Order::const_iterator find(May may) const {
    return std::find_if(order_.begin(), order_.end(), [&](const auto& entry) {
      const auto& client = std::get<std::string>(entry);
      return may(client, clients_.find(client)->second.waiting.front().item);
    });
  }

  /// A client that has caught up counts as new. Searched only when idle clients outnumber the others, which makes it
  /// cheap.
  void forgetIdleClients() {
    constexpr std::size_t FEW = 64;
    if (clients_.size() < 2 * order_.size() + FEW) return;
    const bool tooMany = clients_.size() > 16 * FEW + 2 * order_.size();
    std::erase_if(clients_, [&](const auto& client) {
      return client.second.waiting.empty() && (tooMany || client.second.finished <= clock_);
    });
  }

  Clients clients_;
  Order order_;
  std::uint64_t clock_ = 0;
  std::uint64_t entered_ = 0;
  std::size_t size_ = 0;
};

}  // namespace vornet::service
