#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelvane-sim/ActionJournal.hpp"
#include "kelvane-sim/Fault.hpp"
#include "kelvane-sim/FolderModel.hpp"
#include "kelvane-sim/HttpServer.hpp"

namespace vornet::sim {

/// The stand-in sync application: keeps a folder "synced", writes sync.db, config.db and VornetKelvane.plist into the
/// group container, answers the three commands on loopback (Commands.hpp) and misbehaves on request (Fault.hpp). It
/// only ever reads the folder. One object stands for one application; `stop` and `start` are its end and new start.
/// `start` and `stop` belong to one thread at a time; everything else may be called from any thread.
class KelvaneSim {
 public:
  static constexpr std::uint16_t DEFAULT_PORT = 8806;
  static constexpr std::size_t MOST_REQUESTS = 10'000;

  struct Options {
    std::string root;       ///< the folder to keep; relative paths count from the current folder
    std::string container;  ///< the group container, made with mode 0700 when missing; empty: groupContainerPath()
    std::string state;      ///< where the action journal goes, made likewise; empty: the container
    std::uint16_t port = DEFAULT_PORT;             ///< 0: any free one
    std::chrono::milliseconds transferTime{1500};  ///< of one file; 0: a file is synced as soon as it is noticed
    std::size_t parallelTransfers = 4;             ///< how many files are under way together
    bool force = false;         ///< use the container even if another application has written its files there
    bool assumeSynced = false;  ///< files found at a start are synced already instead of new
    /// Told one line for whatever happens, one call at a time. Must not start or stop the object.
    std::function<void(const std::string&)> notice{};
  };

  /// Touches nothing yet.
  explicit KelvaneSim(Options options);
  /// Stops.
  ~KelvaneSim();

  /// Starts: when it returns the port answers, the folder is looked through, the databases are written and then the
  /// preferences. Throws std::runtime_error with one line saying what is wrong (folder missing or not UTF-8, container
  /// or state inside the folder, files of another application in the container, container in use by another one, port
  /// in use); then it is stopped.
  void start();

  /// Stops answering at once, whatever clients do, and leaves the files of the container as they are. Stopped: nothing.
  void stop();

  /// The port in use; after `stop` the last one. `start` with Options::port 0 takes a new one each time.
  std::uint16_t port() const;
  /// The folder, absolute and without trailing slash, as in the preferences; likewise the container and state folders.
  const std::string& root() const;
  const std::string& container() const;
  const std::string& state() const;

  /// Makes the cloud path `path` show `code` in replies and in sync.db, whatever its own state, until `clearStatus`;
  /// now or as soon as it exists. Any integer is allowed. Folders above follow as usual.
  void setStatus(const std::string& path, int code);
  void clearStatus(const std::string& path);

  /// The code `path` has just now; none when unknown.
  std::optional<int> status(const std::string& path) const;
  /// The number of items in the folder, at any depth.
  std::size_t items() const;

  /// Misbehaves as `fault` says in every command, or in one only; NONE ends it. `duration`: for how long; zero: until
  /// the next call. A command's own fault comes before the one for all. Replies that are held or dripping already stay
  /// so. The faults outlive stop and start. Throws std::runtime_error when the port cannot be had again after REFUSE,
  /// and std::invalid_argument for an unknown command and for REFUSE of one command.
  void setFault(Fault fault, std::chrono::milliseconds duration = {});
  void setFault(const std::string& command, Fault fault, std::chrono::milliseconds duration = {});

  /// The requests that came in, the latest MOST_REQUESTS of them, those answered by a fault included.
  std::vector<HttpRequest> requests() const;
  void clearRequests();
  /// Waits until one of `requests` is for `command`, and returns the first that is; none when `timeout` passes first.
  std::optional<HttpRequest> waitForRequest(const std::string& command, std::chrono::milliseconds timeout) const;

  /// The actions carried out by this object, all starts together.
  std::vector<Action> actions() const;
  /// Waits for at least `count` of them; false when `timeout` passes first.
  bool waitForActions(std::size_t count, std::chrono::milliseconds timeout) const;

  /// Waits until everything done to the folder before the call is noticed, all transfers are over and sync.db is
  /// written. False when `timeout` passes first, or when stopped.
  bool waitUntilIdle(std::chrono::milliseconds timeout);
  /// Waits until `path` has `code` (none: is unknown). False when `timeout` passes first.
  bool waitForStatus(const std::string& path, std::optional<int> code, std::chrono::milliseconds timeout);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vornet::sim
