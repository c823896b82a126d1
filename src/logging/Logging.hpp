#pragma once

#include <map>
#include <string>
#include <string_view>

#include "logging/XCGLogger.hpp"

namespace vornet {

/// The process-wide logger: XCGLogger::defaultInstance(), from the first use on. Any thread.
XCGLogger& logger();

/// The names of the levels that can be configured: "DEBUG", "INFO", "WARNING", "ERROR" and "CRITICAL" (Severe). Exact
/// match.
const std::map<std::string, LogLevel, std::less<>>& logMap();

/// Configures `logger()` for the level named `level`: console and the file "log/vi.log" of the group container, which
/// starts empty. From then on the reason for a fatal stop is logged, too. An unknown name, or a log folder that cannot
/// be made, is logged (the latter in the system's log, too) and leaves the logger as it was. Stops the process without
/// a group container. Call once, before other threads log.
void setupLogger(const std::string& level);

/// Logs why the process is about to stop, as "Fatal error: " and `reason`, at level Severe.
void logFatalError(std::string_view reason) noexcept;

}  // namespace vornet

// Log through these: they record the call site, and build `message` only when some destination takes the level.
#define VORNET_LOG(level, entry, message)                                                                          \
  do {                                                                                                             \
    ::vornet::XCGLogger& vornetLogger = ::vornet::logger();                                                        \
    if (vornetLogger.isWantedAtLogLevel(::vornet::LogLevel::level))                                                \
      vornetLogger.entry((message), static_cast<const char*>(__func__), ::vornet::sourceFile(__FILE__), __LINE__); \
  } while (false)
#define VI_DEBUG(message) VORNET_LOG(Debug, debug, message)
#define VI_INFO(message) VORNET_LOG(Info, info, message)
#define VI_WARNING(message) VORNET_LOG(Warning, warning, message)
