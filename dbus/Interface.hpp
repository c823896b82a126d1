#pragma once

#include <cstddef>

/// The names and limits of the D-Bus interface, for the service and for every client. docs/dbus.md explains them;
/// com.vornet.FinderSync1.xml, beside this file, has the types.
namespace vornet::dbus {

inline constexpr char BUS_NAME[] = "com.vornet.KelvaneSync.FinderBadgeExtension";
inline constexpr char OBJECT_PATH[] = "/com/vornet/FinderSync1";
inline constexpr char INTERFACE[] = "com.vornet.FinderSync1";

/// The names of errors begin with it.
inline constexpr char ERROR_PREFIX[] = "com.vornet.FinderSync1.Error.";

// Errors, as they follow the prefix.
namespace error {
inline constexpr char INVALID_URL[] = "InvalidURL";
inline constexpr char TOO_MANY_URLS[] = "TooManyURLs";
inline constexpr char OUTSIDE_OBSERVED_FOLDERS[] = "OutsideObservedFolders";
inline constexpr char NOT_A_FOLDER[] = "NotAFolder";
inline constexpr char TOO_MANY_FOLDERS[] = "TooManyFolders";
inline constexpr char NOT_OBSERVING[] = "NotObserving";
inline constexpr char UNKNOWN_ACTION[] = "UnknownAction";
inline constexpr char BUSY[] = "Busy";
inline constexpr char FAILED[] = "Failed";
}  // namespace error

/// Values of SyncApplicationSilentSince that are no time.
inline constexpr long long ANSWERS = 0;
inline constexpr long long NOT_ASKED = -1;

/// The property InterfaceVersion. 2: RequestSnapshot and FolderBadges. Absent before.
inline constexpr unsigned INTERFACE_VERSION = 2;

/// Flags of a FolderBadges: a snapshot begins, ends; there is none, and the items are to be asked for.
inline constexpr unsigned char SNAPSHOT_BEGINS = 1;
inline constexpr unsigned char SNAPSHOT_ENDS = 2;
inline constexpr unsigned char NO_SNAPSHOT = 4;

/// Items in one FolderBadges; items and bytes of a snapshot.
inline constexpr std::size_t MAX_ITEMS_A_SIGNAL = 5'000;
inline constexpr std::size_t MAX_ITEMS_A_SNAPSHOT = 50'000;
inline constexpr std::size_t MAX_BYTES_A_SNAPSHOT = 4 * 1024 * 1024;

/// The most URLs in one call; the largest call with a list of URLs, and of any other kind, in bytes.
inline constexpr std::size_t MAX_URLS = 10'000;
inline constexpr std::size_t MAX_BYTES_OF_LIST = 4 * 1024 * 1024;
inline constexpr std::size_t MAX_BYTES_OF_OTHERS = 64 * 1024;

/// Items in one RequestBadges that a client should ask for; the service interrupts larger requests for smaller ones.
inline constexpr std::size_t BATCH = 500;

/// Folders observed at the same time, all clients together.
inline constexpr std::size_t MAX_OBSERVED_FOLDERS = 50;

/// Observations of one client, each window on a folder counted.
inline constexpr std::size_t MAX_OBSERVATIONS_OF_A_CLIENT = 1'000;

/// Unanswered calls of one client: BeginObserving, EndObserving and RequestSnapshot; RequestBadges; GetMenu and
/// PerformAction; all others.
inline constexpr std::size_t MAX_OBSERVING_CALLS = 2'000;
inline constexpr std::size_t MAX_BADGE_CALLS = 256;
inline constexpr std::size_t MAX_MENU_CALLS = 64;
inline constexpr std::size_t MAX_OTHER_CALLS = 256;

/// Changes in one BadgesChanged.
inline constexpr std::size_t MAX_CHANGES_A_SIGNAL = 2'000;

}  // namespace vornet::dbus
