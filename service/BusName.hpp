#pragma once

#include <gio/gio.h>

#include <cstdint>
#include <optional>
#include <string>

namespace vornet::service {

/// Who has a bus name.
struct BusNameOwner {
  bool isThisProcess = false;
  std::int64_t process = 0;  ///< its identifier; 0 where the bus does not know it
};

/// Claims the bus name `name` for `connection`. The owner afterwards: this process, or the one that had the name
/// before. None, with `error` set, when the bus does not answer or does not allow it. Blocks until the bus has
/// answered.
std::optional<BusNameOwner> claimBusName(GDBusConnection* connection, const std::string& name, std::string& error);

/// Gives `name` back: the bus sends no more calls for it to `connection`, and all that it sent have come in. Blocks
/// until the bus has answered.
void releaseBusName(GDBusConnection* connection, const std::string& name);

}  // namespace vornet::service
