#pragma once

namespace vornet::sim {

/// Status codes as the sync application gives them out, the worst first.
inline constexpr int CODE_NOT_SYNCED = 0;
inline constexpr int CODE_PENDING = 1;
inline constexpr int CODE_SYNCED = 2;

}  // namespace vornet::sim
