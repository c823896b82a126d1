#pragma once

#include <exception>
#include <utility>

#include <glib.h>

namespace vornet::client {

/// Calls `function`. An exception ends here, where C code of the file manager is the caller: it becomes a line in the
/// file manager's log, and `otherwise` the result.
template <typename Result, typename Function>
Result guarded(Result otherwise, Function&& function) noexcept {
  try {
    return std::forward<Function>(function)();
  } catch (const std::exception& error) {
    g_warning("vornet-vi: %s", error.what());
  } catch (...) {
    g_warning("vornet-vi: unknown failure");
  }
  return otherwise;
}

/// The same without a result.
template <typename Function>
void guarded(Function&& function) noexcept {
  guarded(0, [&function] {
    std::forward<Function>(function)();
    return 0;
  });
}

}  // namespace vornet::client
