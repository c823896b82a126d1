#pragma once

#include <functional>

#include "Thunarx.hpp"

namespace vornet::thunar {

/// The entries for files, a list of ThunarxFileInfo.
using EntriesFor = std::function<GList*(const GList* files)>;

/// Registers the type that Thunar makes its provider of menu entries of. The main thread's only.
GType registerProvider(ThunarxProviderPlugin* plugin);

/// Where providers get their entries from now on; null for from nowhere. Must not throw.
void setEntries(EntriesFor entries);

}  // namespace vornet::thunar
