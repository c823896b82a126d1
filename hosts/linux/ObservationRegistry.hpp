#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace vornet::host {

/// Which client of the bus shows which folders, and how often. Any thread.
class ObservationRegistry {
 public:
  /// Counts one more window of `client` (a unique bus name) on `folder` (a path). True when nobody observed it before.
  bool begin(const std::string& client, const std::string& folder);

  enum class Ended { notObserving, stillObserved, byNobody };

  /// Counts one less; notObserving, and nothing changed, when `client` does not observe `folder`.
  Ended end(const std::string& client, const std::string& folder);

  /// Forgets `client`; the folders that nobody observes any more.
  std::vector<std::string> endAll(const std::string& client);

  /// The clients that observe `folder`.
  std::vector<std::string> observers(const std::string& folder) const;

 private:
  mutable std::mutex lock_;
  std::map<std::string, std::map<std::string, unsigned>> counts_;  // folder -> client -> windows
};

}  // namespace vornet::host
