#include "support/MainContext.hpp"

#include <glib.h>

#include <chrono>

namespace vornet::test {

bool runUntil(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  // Conditions also change without an event of this context.
  const guint ticks = g_timeout_add(5, +[](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  bool holds = condition();
  while (!holds && std::chrono::steady_clock::now() < deadline) {
    g_main_context_iteration(nullptr, TRUE);
    holds = condition();
  }
  g_source_remove(ticks);
  return holds;
}

void settle() {
  while (g_main_context_iteration(nullptr, FALSE)) continue;
}

}  // namespace vornet::test
