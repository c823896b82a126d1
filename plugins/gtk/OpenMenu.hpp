#pragma once

#include "client/Menu.hpp"

namespace vornet::gtk {

/// The beginning of the names of our entries; their action follows.
inline constexpr const char* ENTRY_NAME = "Vornet::";

/// Enables and greys our entries in a menu that is open as `menu` says. Only where the file manager does not ask for
/// them again by itself. The main thread's.
#if defined(VORNET_FOR_NEMO)
void refreshOpenMenu(const client::Menu& menu);
#else
inline void refreshOpenMenu(const client::Menu&) {}
#endif

}  // namespace vornet::gtk
