#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Foundation.hpp"
#include "rest/RESTClient.hpp"
#include "rest/StatusSink.hpp"

namespace vornet {

/// The context menu's service: asks the sync application which actions apply to a selection, and sends it the user's
/// choice. `paths` are cloud paths; their order and duplicates are kept. Any thread; each call makes at most one
/// request and blocks for at most 3 seconds. Failures are logged and answered with nothing.
class Menu {
 public:
  /// The synced folder, once known.
  /// Kept ready; nothing calls it yet.
  std::optional<platform::FileURL> rootDir() const;
  void setRootDir(const platform::FileURL& rootDir);

  /// `sink`, if any, learns whether the sync application answered. Set before the first request.
  void setSink(StatusSink* sink) noexcept { sink_ = sink; }

  // Each sends one "select_context_menu" with its own identifier.
  void viewInCloud(const std::vector<std::string>& paths) const;   ///< MENU_CFS
  void viewNotes(const std::vector<std::string>& paths) const;     ///< MENU_VIEW_NOTES
  void viewVersions(const std::vector<std::string>& paths) const;  ///< MENU_VIEW_VERSIONS
  void shareAsLink(const std::vector<std::string>& paths) const;   ///< MENU_SHARE_AS_LINK
  void copyLink(const std::vector<std::string>& paths) const;      ///< MENU_COPY_LINK

  /// The actions that are enabled for `paths`, by identifier; empty on a failure, for a reply of more than 1,000
  /// entries, and without a request for none or more than 15 paths. A reply that is not an object of booleans stops the
  /// process.
  std::map<std::string, bool> menuEnabledDict(const std::vector<std::string>& paths) const;

 private:
  std::optional<std::string> selectContextMenu(std::string_view identifier,
                                               const std::vector<std::string>& paths) const;

  /// As RESTClient::postAtPath.
  std::optional<std::string> post(const char* command, const std::string& body,
                                  const std::optional<RESTClient::Headers>& headers) const;

  StatusSink* sink_ = nullptr;
  mutable std::mutex lock_;
  std::optional<platform::FileURL> rootDir_;
};

}  // namespace vornet
