#pragma once

#include "Thunarx.hpp"
#include "client/Menu.hpp"

namespace vornet::thunar {

/// The paths of `files`, a list of ThunarxFileInfo; empty when any has none on this machine (the trash, a share). Of
/// more than Plugin::LARGEST_SELECTION only one more is read.
client::Selection selectionOf(const GList* files);

}  // namespace vornet::thunar
