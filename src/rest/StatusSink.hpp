#pragma once

#include <cstdint>
#include <set>

#include "platform/Foundation.hpp"

namespace vornet {

/// What the polling manager reports, and to whom. Called from any thread.
class StatusSink {
 public:
  virtual ~StatusSink() = default;

  /// The status of `url` is now `status`.
  virtual void setFileSyncStatus(const platform::FileURL& url, std::int64_t status) = 0;

  /// The statuses of `folder` were stored for the first time since it was entered. None of them was reported by
  /// setFileSyncStatus: items that were answered before from the database may carry another status now.
  virtual void folderFilled(const platform::FileURL& folder) = 0;

  /// Makes `dirs` the folders that are observed.
  virtual void enableVI(const std::set<platform::FileURL>& dirs) = 0;
};

}  // namespace vornet
