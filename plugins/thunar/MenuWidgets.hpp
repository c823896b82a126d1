#pragma once

#include <functional>

#include "Thunarx.hpp"

namespace vornet::thunar {

/// Calls `visit` for each GtkMenuItem of the menus that are on screen. None without a display.
void forEachMenuItemOnScreen(const std::function<void(GtkWidget*)>& visit);

/// Whether choosing `widget` activates `item`.
bool isMadeFor(GtkWidget* widget, ThunarxMenuItem* item);

}  // namespace vornet::thunar
