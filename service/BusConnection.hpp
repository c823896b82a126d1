#pragma once

#include <gio/gio.h>

#include <cstdint>
#include <optional>
#include <string>

#include "dbus/GLibPtr.hpp"

namespace vornet::service {

/// Connects to the session bus. What comes in passes a CallGate, so calls are bounded and ordered before GDBus copies
/// them; the gate answers those that it refuses. Null, with `error` set, when there is no bus. Blocks until the bus has
/// answered.
GObjectPtr<GDBusConnection> connectToSessionBus(GError** error);

/// True if clients await answers to calls that `connection`, made as above, has taken in. False once it is closed. Any
/// thread.
bool hasUnansweredCalls(GDBusConnection* connection);

/// The owner of a bus name.
struct BusNameOwner {
  bool isThisProcess = false;
  std::int64_t process = 0;  ///< its identifier; 0 where the bus does not know it
};

/// Claims the bus name `name` for `connection`. The owner afterwards: this process, or the one that had the name
/// before. None, with `error` set, when the bus does not answer or does not allow it. Blocks until the bus has
/// answered.
std::optional<BusNameOwner> claimBusName(GDBusConnection* connection, const std::string& name, std::string& error);

/// Releases `name`. When this returns, the bus sends no more calls for it to `connection`, and all that it sent have
/// arrived. Blocks until the bus has answered.
void releaseBusName(GDBusConnection* connection, const std::string& name);

}  // namespace vornet::service
