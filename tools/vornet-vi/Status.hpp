#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Extension.hpp"

namespace vornet::vi {

/// The answer of the sync application on its local port.
struct SyncApplicationState {
  enum class Outcome { answers, refused, timedOut, failed, anotherUser };
  Outcome outcome = Outcome::failed;
  long httpStatus = 0;      ///< when it answers; any status is an answer
  double milliseconds = 0;  ///< until the outcome was known
  std::string problem;      ///< the transport's own words, when it failed
  uid_t user = 0;           ///< whose process listens instead of the sync application, when it is another user's
};

/// The user whose process listens where a connection to 127.0.0.1:`port` arrives; none when nobody does, or when the
/// system does not say. The extension trusts its own user and root, nobody else.
std::optional<uid_t> listeningUser(std::uint16_t port);

/// Where the sync application listens.
inline constexpr const char* SYNC_APPLICATION_ADDRESS = "127.0.0.1:8806";

/// Asks the sync application at `address` (a host, ":", a port) for the statuses of the topmost folder, as the
/// extension does, and waits at most three seconds. Another user's process is asked nothing. Proxies are ignored, no
/// redirect is followed. Any thread, once main has set up libcurl.
SyncApplicationState askSyncApplication(const std::string& address = SYNC_APPLICATION_ADDRESS);

/// A text that the sync application does not answer; none when it does, or when the extension is too old to say. Asks
/// the sync application where the extension has not asked lately, which may take three seconds.
std::optional<std::string> silenceIn(const ExtensionInfo& info);

/// A text that it has not answered since `time`.
std::string silenceSince(std::int64_t time);

/// " since 2026-03-01 10:31:00", in local time; empty unless `time`, in seconds since 1970, is one.
std::string sinceText(std::int64_t time);

/// Why the extension stopped itself the last time it ran, in its own words; none when it ended otherwise, or when the
/// reason is unknown. Reads the end of its log, which is in the group container of this user. Meaningless while the
/// extension runs. Any thread.
std::optional<std::string> lastStopReason();

/// Something that is wrong. vornet-vi(1) lists the identifiers. The texts may hold raw file names.
struct Problem {
  std::string id;
  std::string text;    ///< what is wrong
  std::string remedy;  ///< what to do
};

/// The findings of `status`.
struct Status {
  bool canBeStarted = false;
  std::optional<std::uint32_t> process;   ///< its pid; none: the extension does not run
  std::optional<ExtensionInfo> info;      ///< none: it does not run, or does not answer
  std::optional<std::string> stopReason;  ///< why it stopped itself, when it does not run; none: it did not
  SyncApplicationState syncApplication;
  std::vector<Problem> problems;
};

}  // namespace vornet::vi
