#pragma once

#include <cstdint>

/// The owners of the processes at the other end of the loopback interface: any user of the machine may listen on a
/// port.
namespace vornet::platform {

/// True if a connection to 127.0.0.1:`port` would reach a process of this process's effective user, or of root. False
/// also when nobody listens, and when the system does not report the listener's owner: a stranger who gets a request
/// learns the user's paths, and a sync application that is not believed can only cost badges. Seen from this process's
/// network namespace and user namespace. Any thread; takes some microseconds and never waits for the network.
///
/// macOS: always true. The system hides other users' sockets from a sandboxed process.
bool isOwnLoopbackListener(std::uint16_t port);

/// The same for a connection that is open, from the local port `localPort`: neither who listens now nor who took the
/// connection may be another user's process. So a listener that was replaced while the connection was made is found
/// out.
bool isOwnLoopbackPeer(std::uint16_t port, std::uint16_t localPort);

}  // namespace vornet::platform
