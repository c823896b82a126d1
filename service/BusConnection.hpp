#pragma once

#include <gio/gio.h>

namespace vornet::service {

/// Connects to the session bus. What comes in passes a CallGate, so calls are bounded and ordered before GDBus copies
/// them; the gate answers those that it refuses. The caller owns the connection. Null, with `error` set, when there is
/// no bus. Blocks until the bus has answered.
GDBusConnection* connectToSessionBus(GError** error);

/// Whether clients await answers to calls that `connection`, made as above, has taken in. False once it is closed. Any
/// thread.
bool hasUnansweredCalls(GDBusConnection* connection);

}  // namespace vornet::service
