#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "Extension.hpp"
#include "Printer.hpp"

namespace vornet::vi {

/// Shows `folder` (absolute), then every change of its badges and entries. An extension that ends is started again, the
/// folder observed again, and all badges asked for again. Where the extension observes as many folders as it takes,
/// badges are asked for now and then instead; where it is too busy, again a second later.
///
/// Returns when `duration` is over or SIGINT or SIGTERM came, having ended the observation. Throws Failure when the
/// folder cannot be observed, or the extension stops answering, std::runtime_error when the folder vanishes, BrokenPipe
/// when nobody reads `outputDescriptor` any more, and what Output throws. One thread, the extension's; takes SIGINT and
/// SIGTERM.
void watchFolder(Extension& extension, Printer& printer, const std::string& folder, int outputDescriptor,
                 std::optional<std::chrono::milliseconds> duration);

}  // namespace vornet::vi
