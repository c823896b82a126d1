#include "ObservationRegistry.hpp"

namespace vornet::host {

bool ObservationRegistry::begin(const std::string& client, const std::string& folder) {
  const std::lock_guard guard(lock_);
  auto& clients = counts_[folder];
  const bool first = clients.empty();
  ++clients[client];
  return first;
}

ObservationRegistry::Ended ObservationRegistry::end(const std::string& client, const std::string& folder) {
  const std::lock_guard guard(lock_);
  const auto clients = counts_.find(folder);
  if (clients == counts_.end()) return Ended::notObserving;
  const auto count = clients->second.find(client);
  if (count == clients->second.end()) return Ended::notObserving;
  if (--count->second == 0) clients->second.erase(count);
  if (!clients->second.empty()) return Ended::stillObserved;
  counts_.erase(clients);
  return Ended::byNobody;
}

std::vector<std::string> ObservationRegistry::endAll(const std::string& client) {
  const std::lock_guard guard(lock_);
  std::vector<std::string> left;
  for (auto clients = counts_.begin(); clients != counts_.end();) {
    if (clients->second.erase(client) > 0 && clients->second.empty()) {
      left.push_back(clients->first);
      clients = counts_.erase(clients);
    } else {
      ++clients;
    }
  }
  return left;
}

std::vector<std::string> ObservationRegistry::observers(const std::string& folder) const {
  const std::lock_guard guard(lock_);
  std::vector<std::string> clients;
  if (const auto found = counts_.find(folder); found != counts_.end()) {
    for (const auto& [client, count] : found->second) clients.push_back(client);
  }
  return clients;
}

}  // namespace vornet::host
