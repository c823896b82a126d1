#pragma once

#include <cstddef>

/// What the two sides of the bus interface com.vornet.FinderSync1 agree on, beside its XML: names and limits, as
/// docs/dbus.md explains them. Includes nothing of the project's; the target vornet_dbus_names gives it to both.
namespace vornet::dbus {

inline constexpr const char* BUS_NAME = "com.vornet.KelvaneSync.FinderBadgeExtension";
inline constexpr const char* OBJECT_PATH = "/com/vornet/FinderSync1";
inline constexpr const char* INTERFACE = "com.vornet.FinderSync1";

/// The interface's own errors are this and one of the names below.
inline constexpr const char* ERROR_PREFIX = "com.vornet.FinderSync1.Error.";

namespace error {
inline constexpr const char* INVALID_URL = "InvalidURL";
inline constexpr const char* TOO_MANY_URLS = "TooManyURLs";
inline constexpr const char* OUTSIDE_OBSERVED_FOLDERS = "OutsideObservedFolders";
inline constexpr const char* NOT_A_FOLDER = "NotAFolder";
inline constexpr const char* TOO_MANY_FOLDERS = "TooManyFolders";
inline constexpr const char* NOT_OBSERVING = "NotObserving";
inline constexpr const char* UNKNOWN_ACTION = "UnknownAction";
inline constexpr const char* BUSY = "Busy";
inline constexpr const char* FAILED = "Failed";
}  // namespace error

/// The most URLs that one call may carry, and the largest call that carries some, in bytes.
inline constexpr std::size_t MAX_URLS = 10'000;
inline constexpr std::size_t MAX_CALL_BYTES = std::size_t{4} << 20;

/// How many items a client best asks for at a time.
inline constexpr std::size_t BATCH = 500;

/// The most folders that all clients together observe, and the most observations of one client.
inline constexpr std::size_t MAX_FOLDERS = 50;
inline constexpr std::size_t MAX_OBSERVATIONS = 1'000;

/// What one client may have unanswered of each kind of call.
inline constexpr std::size_t MAX_UNANSWERED_OBSERVING = 2'000;
inline constexpr std::size_t MAX_UNANSWERED_BADGES = 256;
inline constexpr std::size_t MAX_UNANSWERED_MENUS = 64;
inline constexpr std::size_t MAX_UNANSWERED_OTHERS = 256;

}  // namespace vornet::dbus
