#pragma once

#include <cstdint>
#include <set>

#include "platform/Foundation.hpp"

namespace vornet {

/// What the polling manager calls of the extension's controller, from any thread.
class FinderSyncController {
 public:
  virtual ~FinderSyncController() = default;

  /// Shows the badge of `status` on `url`; a status without a badge removes it.
  virtual void setFileSyncStatus(const platform::FileURL& url, std::int64_t status) = 0;

  /// Makes `dirs` the folders that are observed.
  virtual void enableVI(const std::set<platform::FileURL>& dirs) = 0;
};

}  // namespace vornet
