#pragma once

#include <glib-object.h>

namespace vornet::gtk {

/// Registers the type of the object that the file manager makes, and asks for emblems and menus. The type; 0 if it
/// cannot be registered.
GType registerProvider(GTypeModule* types);

}  // namespace vornet::gtk
