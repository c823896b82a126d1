#pragma once

#include <cstdint>
#include <set>

#include "platform/Foundation.hpp"

namespace vornet {

/// Receives what the polling manager finds out. Called from any thread.
class StatusSink {
 public:
  virtual ~StatusSink() = default;

  /// The status of `url` is now `status`.
  virtual void setFileSyncStatus(const platform::FileURL& url, std::int64_t status) = 0;

  /// The statuses of `folder` were fetched and stored. `first`: for the first time since it was entered; then none of
  /// them was reported by setFileSyncStatus, and items answered before from the database may have another status now.
  /// Otherwise it was refreshed, and every status that changed was reported before this call.
  virtual void folderFilled(const platform::FileURL& folder, bool first) = 0;

  /// The sync application answered a request, with whatever content or HTTP status, or did not. Called after each
  /// request, not only when this changes.
  virtual void syncApplicationAnswered(bool answered) = 0;

  /// Makes `dirs` the folders that are observed.
  virtual void enableVI(const std::set<platform::FileURL>& dirs) = 0;
};

}  // namespace vornet
