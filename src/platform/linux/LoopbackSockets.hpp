#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>

/// The two ways in which Linux tells whose a socket on 127.0.0.1 is. Both answer for the socket that has the local port
/// `port` and, at its other end, `otherPort`; 0 asks for the one that listens. None: there is no such socket, or the
/// system does not tell. A connection that no process has accepted yet counts as root's.
namespace vornet::platform::linux_sockets {

/// Whether the system has socket diagnosis, found out once. Where it has not, or forbids it, ownerByDiagnosis()
/// finds nothing.
bool hasDiagnosis();

/// By socket diagnosis: the socket that the kernel itself would hand a packet to. A few microseconds.
std::optional<uid_t> ownerByDiagnosis(std::uint16_t port, std::uint16_t otherPort);

/// By the tables in /proc/net, which takes milliseconds; for systems without the former.
std::optional<uid_t> ownerByTables(std::uint16_t port, std::uint16_t otherPort);

}  // namespace vornet::platform::linux_sockets
