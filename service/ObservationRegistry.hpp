#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
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

  /// Forgets `client`. The folders that nobody observes any more.
  std::vector<std::string> endAll(const std::string& client);

  /// The folders that somebody observes.
  std::vector<std::string> folders() const;

  /// What the client calls the stream in which it gets the badges of a folder.
  using Stream = std::optional<std::uint64_t>;

  /// From now on `client` gets the badges of `folder` in `stream`, until it observes the folder no longer. False, and
  /// nothing changed, when it does not observe the folder.
  bool setStream(const std::string& client, const std::string& folder, std::uint64_t stream);
  Stream stream(const std::string& client, const std::string& folder);

  /// Ends the stream with this number. False, and nothing changed, when another has taken its place.
  bool endStream(const std::string& client, const std::string& folder, std::uint64_t stream);

  struct Observer {
    std::string client;
    Stream stream;
  };
  /// The clients that observe `folder`.
  std::vector<Observer> observers(const std::string& folder) const;

 private:
  struct Observation {
    unsigned windows = 0;
    Stream stream;
  };

  Observation* observation(const std::string& client, const std::string& folder);

  const std::size_t maxFolders_;
  mutable std::mutex lock_;
  std::map<std::string, std::map<std::string, Observation>> counts_;  // folder -> client
  std::map<std::string, std::size_t> observations_;                   // client -> its windows on all folders
};

}  // namespace vornet::service
