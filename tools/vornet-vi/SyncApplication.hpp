#pragma once

#include <string>

namespace vornet::vi {

/// Whether the sync application answers on its local port.
struct SyncApplicationState {
  enum class Outcome { answers, refused, timedOut, failed };
  Outcome outcome = Outcome::failed;
  long httpStatus = 0;      ///< when it answers; any status is an answer
  double milliseconds = 0;  ///< until the outcome was known
  std::string problem;      ///< the transport's own words, when it failed
};

/// Where the sync application listens.
inline constexpr const char* SYNC_APPLICATION_ADDRESS = "127.0.0.1:8806";

/// Asks the sync application at `address` (host:port) for the statuses of the topmost folder, as the extension does,
/// and waits at most three seconds. Proxies are ignored, no redirect is followed. Any thread, once main has set up
/// libcurl.
SyncApplicationState askSyncApplication(const std::string& address = SYNC_APPLICATION_ADDRESS);

}  // namespace vornet::vi
