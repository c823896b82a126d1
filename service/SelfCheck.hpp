#pragma once

#include <string>

namespace vornet::service {

/// What the extension would find if it started now, as one line of JSON: its version, and path and state of the
/// preferences, the synced folder, the status database and the log; the version alone where no group container can be
/// named. Reads only what the extension reads, and leaves nothing behind. Needs no bus.
std::string selfCheck();

}  // namespace vornet::service
