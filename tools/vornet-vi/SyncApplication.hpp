#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace vornet::vi {

/// Whether the sync application answers on its local port.
struct SyncApplicationState {
  enum class Outcome { answers, refused, timedOut, failed, anotherUser };
  Outcome outcome = Outcome::failed;
  long httpStatus = 0;      ///< when it answers; any status is an answer
  double milliseconds = 0;  ///< until the outcome was known
  std::string problem;      ///< the transport's own words, when it failed
  uid_t user = 0;           ///< whose process listens instead of the sync application, when it is another user's
};

/// The user whose process listens where a connection to 127.0.0.1:`port` arrives; none when nobody does, or when the
/// system does not tell. The extension believes its own user and root, nobody else.
std::optional<uid_t> listeningUser(std::uint16_t port);

/// Where the sync application listens.
inline constexpr const char* SYNC_APPLICATION_ADDRESS = "127.0.0.1:8806";

/// Asks the sync application at `address` (a host, ":", a port) for the statuses of the topmost folder, as the
/// extension does, and waits at most three seconds. Another user's process is asked nothing. Proxies are ignored, no
/// redirect is followed. Any thread, once main has set up libcurl.
SyncApplicationState askSyncApplication(const std::string& address = SYNC_APPLICATION_ADDRESS);

}  // namespace vornet::vi
