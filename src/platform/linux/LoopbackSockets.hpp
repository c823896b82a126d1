#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>

/// Two ways to learn the owner of a socket on 127.0.0.1. Both answer for the socket that has the local
/// port `port` and, at its other end, `otherPort`; 0 asks for the listening one. None: there is no such socket, or the
/// system does not report it. A connection that no process has accepted yet counts as root's.
namespace vornet::platform::linux_sockets {

/// True if the system has socket diagnosis, found out once. Where it has not, or forbids it, ownerByDiagnosis()
/// finds nothing.
bool hasDiagnosis();

/// By socket diagnosis: the socket that the kernel itself would hand a packet to. A few microseconds.
std::optional<uid_t> ownerByDiagnosis(std::uint16_t port, std::uint16_t otherPort);

/// By the tables in /proc/net, which takes milliseconds; for systems without socket diagnosis.
std::optional<uid_t> ownerByTables(std::uint16_t port, std::uint16_t otherPort);

}  // namespace vornet::platform::linux_sockets
