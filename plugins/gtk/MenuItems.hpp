#pragma once

#include <glib.h>

namespace vornet::gtk {

class Menus;

/// The entries for the selected files: new MenuItems of the file manager, which owns them and the list; null for none.
/// `files`: a list of FileInfos. A choice performs its action on these files, whatever is selected by then.
GList* menuItems(Menus& menus, const GList* files);

}  // namespace vornet::gtk
