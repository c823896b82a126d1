#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

/// The names, codes and identifiers that all folders share. They never change and are never destroyed: the file
/// manager's threads and the worker may still use them when the process ends. Any thread.
namespace vornet {

/// Names of files, bundles and the link to the sync application. Names only: each user forms its own paths.
struct AppConst {
  std::string APP_GROUP = "com.vornet.KelvaneSync";  ///< the sync application, and the container shared with it
  std::string APP_CODENAME = "com.vornet.KelvaneSync.FinderBadgeExtension";  ///< the extension's own bundle
  std::string UNIX_SOCKET = "vi.sock";
  std::string SYNC_DB_NAME = "sync.db";
  std::string CONFIG_DB_NAME = "config.db";
  std::string KELVANE_PLIST = "VornetKelvane.plist";  ///< the sync application's preferences
  std::string PLC_REST_HOST =
      "http://127.0.0.1:8806";  ///< base address of the sync application, without trailing slash
  std::string LOG_FILE = "vi.log";
  std::string DEFAULT_LOG_LEVEL = "INFO";
};

inline const AppConst& App() {
  static const auto& app = *new AppConst;
  return app;
}

inline constexpr std::int64_t DIR_CACHE_SIZE = 2;
inline constexpr std::int64_t HTTP_TIMEOUT = 3;  ///< seconds

/// The context menu's actions, as they are named to the sync application. Texts, not numbers.
inline constexpr std::string_view MENU_SHARE_AS_LINK = "1";
inline constexpr std::string_view MENU_COPY_LINK = "2";
inline constexpr std::string_view MENU_CFS = "3";
inline constexpr std::string_view MENU_VIEW_NOTES = "4";
inline constexpr std::string_view MENU_VIEW_VERSIONS = "5";

/// A path's sync status: -1 unknown or no badge, 0 not synced, 1 sync in progress, 2 synced. Others may arrive.
using StatusCode = std::int64_t;

/// Badge identifiers. The empty one removes a badge.
inline constexpr std::string_view statusNone = "";
inline constexpr std::string_view statusFailure = "SKIPPED";
inline constexpr std::string_view statusInProgress = "PENDING";
inline constexpr std::string_view statusSynced = "SYNCED";

/// Status code -> badge identifier; exactly the codes -1 to 2. What a missing entry means is the caller's decision.
inline const std::map<StatusCode, std::string_view>& statusMap() {
  static const auto& map = *new std::map<StatusCode, std::string_view>{
      {-1, statusNone}, {0, statusFailure}, {1, statusInProgress}, {2, statusSynced}};
  return map;
}

}  // namespace vornet
