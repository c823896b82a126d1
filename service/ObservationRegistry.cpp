#include "ObservationRegistry.hpp"

#include "dbus/Interface.hpp"

namespace vornet::service {

ObservationRegistry::Begun ObservationRegistry::begin(const std::string& client, const std::string& folder) {
  const std::lock_guard guard(lock_);
  const auto observations = observations_.find(client);
  if (observations != observations_.end() && observations->second >= dbus::MAX_OBSERVATIONS_OF_A_CLIENT)
    return Begun::tooManyObservations;
  auto clients = counts_.find(folder);
  const bool first = clients == counts_.end();
  if (first) {
    if (counts_.size() >= maxFolders_) return Begun::tooManyFolders;
    clients = counts_.try_emplace(folder).first;
  }
  ++clients->second[client].windows;
  ++observations_[client];
  return first ? Begun::byTheFirst : Begun::byAnother;
}

ObservationRegistry::Ended ObservationRegistry::end(const std::string& client, const std::string& folder) {
  const std::lock_guard guard(lock_);
  const auto clients = counts_.find(folder);
  if (clients == counts_.end()) return Ended::notObserving;
  const auto count = clients->second.find(client);
  if (count == clients->second.end()) return Ended::notObserving;
  const auto observations = observations_.find(client);
  if (--observations->second == 0) observations_.erase(observations);
  if (--count->second.windows == 0) clients->second.erase(count);
  if (!clients->second.empty()) return Ended::stillObserved;
  counts_.erase(clients);
  return Ended::byNobody;
}

std::vector<std::string> ObservationRegistry::endAll(const std::string& client) {
  const std::lock_guard guard(lock_);
  std::vector<std::string> left;
  observations_.erase(client);
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

std::vector<std::string> ObservationRegistry::folders() const {
  const std::lock_guard guard(lock_);
  std::vector<std::string> folders;
  for (const auto& [folder, clients] : counts_) folders.push_back(folder);
  return folders;
}

bool ObservationRegistry::setStream(const std::string& client, const std::string& folder, std::uint64_t stream) {
  const std::lock_guard guard(lock_);
  auto* found = observation(client, folder);
  if (found) found->stream = stream;
  return found;
}

ObservationRegistry::Stream ObservationRegistry::stream(const std::string& client, const std::string& folder) {
  const std::lock_guard guard(lock_);
  const auto* found = observation(client, folder);
  return found ? found->stream : std::nullopt;
}

bool ObservationRegistry::endStream(const std::string& client, const std::string& folder, std::uint64_t stream) {
  const std::lock_guard guard(lock_);
  auto* found = observation(client, folder);
  if (!found || found->stream != stream) return false;
  found->stream.reset();
  return true;
}

/// With the lock held; null for none.
ObservationRegistry::Observation* ObservationRegistry::observation(const std::string& client,
                                                                   const std::string& folder) {
  const auto clients = counts_.find(folder);
  if (clients == counts_.end()) return nullptr;
  const auto found = clients->second.find(client);
  return found == clients->second.end() ? nullptr : &found->second;
}

std::vector<ObservationRegistry::Observer> ObservationRegistry::observers(const std::string& folder) const {
  const std::lock_guard guard(lock_);
  std::vector<Observer> observers;
  if (const auto found = counts_.find(folder); found != counts_.end())
    for (const auto& [client, observation] : found->second) observers.push_back({client, observation.stream});
  return observers;
}

}  // namespace vornet::service
