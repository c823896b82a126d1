#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "Client.hpp"
#include "Printer.hpp"

namespace vornet::vi {

/// Shows a folder, then every change of its badges and entries, until it is ended. When the extension leaves the bus
/// the folder is observed anew, which starts it again, and all badges are asked anew. Where the extension observes as
/// many folders as it takes, badges are asked for now and then instead; where it is too busy, again a second later. One
/// thread, the client's. Takes the client's handlers, and SIGINT and SIGTERM while it runs.
class Watch {
 public:
  /// `folder`: absolute. `outputDescriptor`: watching ends when nobody reads it any more.
  Watch(Client& client, Printer& printer, std::string folder, int outputDescriptor);
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  /// Returns when `duration` is over or SIGINT or SIGTERM came, having ended the observation. Throws Failure when the
  /// folder cannot be observed, vanishes, or the extension stops answering, and what Output throws.
  void run(std::optional<std::chrono::milliseconds> duration);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vornet::vi
