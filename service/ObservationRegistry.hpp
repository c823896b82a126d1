#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace vornet::service {

/// Which client of the bus shows which folders, and how often. Any thread.
class ObservationRegistry {
 public:
  /// `maxFolders`: how many folders all clients together may observe.
  explicit ObservationRegistry(std::size_t maxFolders) : maxFolders_(maxFolders) {}

  enum class Begun {
    byTheFirst,           ///< nobody observed the folder before
    byAnother,            ///< it was observed already
    tooManyFolders,       ///< nothing changed: it would be one folder too many
    tooManyObservations,  ///< nothing changed: the client has as many observations as it may have
  };

  /// Counts one more window of `client` (a unique bus name) on `folder` (a path).
  Begun begin(const std::string& client, const std::string& folder);

  enum class Ended { notObserving, stillObserved, byNobody };

  /// Counts one less; notObserving, and nothing changed, when `client` does not observe `folder`.
  Ended end(const std::string& client, const std::string& folder);

  /// Forgets `client`; the folders that nobody observes any more.
  std::vector<std::string> endAll(const std::string& client);

  /// The folders that somebody observes.
  std::vector<std::string> folders() const;

  /// The clients that observe `folder`.
  std::vector<std::string> observers(const std::string& folder) const;

 private:
  const std::size_t maxFolders_;
  mutable std::mutex lock_;
  std::map<std::string, std::map<std::string, unsigned>> counts_;  // folder -> client -> windows
  std::map<std::string, std::size_t> observations_;                // client -> its windows on all folders
};

}  // namespace vornet::service
