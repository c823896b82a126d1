#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kelvane-sim/Commands.hpp"
#include "kelvane-sim/Container.hpp"
#include "kelvane-sim/HttpServer.hpp"
#include "kelvane-sim/SyncedFolder.hpp"

namespace vornet::sim {

/// The stand-in sync application: keeps a folder "synced", writes sync.db, config.db and VornetKelvane.plist into the
/// group container, answers the three commands on loopback (Commands.hpp) and misbehaves on request. It only reads the
/// folder, and looks through it several times a second. One object is one application; `stop` and `start` restart it.
/// `start`, `stop` and `setFault` belong to one thread at a time; everything else may be called from any thread.
class KelvaneSim {
 public:
  struct Options {
    std::string root;                              ///< the folder to keep
    std::string container;                         ///< the group container, made when missing
    std::chrono::milliseconds transferTime{1500};  ///< of one file; 0: a file is synced as soon as it is noticed
    std::size_t parallelTransfers = 4;
    bool assumeSynced = false;  ///< files found at a start are synced already instead of new
    bool force = false;         ///< files of another application in the container are replaced
  };

  /// Touches nothing yet.
  explicit KelvaneSim(Options options);
  ~KelvaneSim();

  /// When it returns the port answers and databases and preferences are written. Throws std::runtime_error with one
  /// line (port in use, and see Container::open); then it is stopped.
  void start();

  /// Stops answering at once, whatever clients do. The files of the container stay. Stopped: nothing.
  void stop();

  /// Makes the cloud path `path` show `code`, any integer, in replies and in sync.db, whatever its own status; now or
  /// as soon as it exists. Stays over restarts.
  void setStatus(const std::string& path, int code);

  /// The code that `path` has now; none when it is unknown.
  std::optional<int> status(const std::string& path) const;

  /// Misbehaves in every command from now on, over restarts too; Fault::none ends it. Replies held or dripping stay so.
  /// Throws std::runtime_error when the port cannot be taken again after Fault::refuse.
  void setFault(Fault fault);

  /// The requests that came in.
  std::vector<HttpRequest> requests() const;
  void clearRequests();
  /// Waits until one of `requests` is for `command`; false when `timeout` passes first.
  bool waitForRequest(const std::string& command, std::chrono::milliseconds timeout) const;

  /// The actions carried out.
  std::vector<Action> actions() const;
  /// Waits for at least `count` of them; false when `timeout` passes first.
  bool waitForActions(std::size_t count, std::chrono::milliseconds timeout) const;

  /// Waits until everything done before the call is noticed, all transfers are over and sync.db is written. False when
  /// `timeout` passes first, or when stopped.
  bool waitUntilIdle(std::chrono::milliseconds timeout);

 private:
  HttpReply handle(const HttpRequest& request);
  void run();
  std::optional<SyncedFolder::Clock::time_point> look(bool synced);
  void applyRefusal();

  const Options options_;
  Container container_;
  bool started_ = false, listening_ = false;
  bool complained_ = false;

  mutable std::mutex mutex_;  // of what follows, up to the server
  mutable std::condition_variable changed_;
  SyncedFolder folder_;
  Fault fault_ = Fault::none;
  std::vector<HttpRequest> requests_;
  std::vector<Action> actions_;
  bool stopping_ = false;
  std::uint64_t asked_ = 0, seen_ = 0, idle_ = 0;  // looks: asked for, begun, and after which all was settled

  HttpServer server_;
  std::thread thread_;
};

}  // namespace vornet::sim
