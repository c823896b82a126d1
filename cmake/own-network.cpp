// own-network PROGRAM [ARGUMENT…]: runs a program in a private network, which has only a loopback interface, so that
// every port is free. Without a program it only tries. Exit status 1 where the system does not allow it; needs no root
// where ordinary users may make namespaces.
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

bool write(const char* path, const std::string& text) {
  const int file = ::open(path, O_WRONLY | O_CLOEXEC);
  const bool done = file >= 0 && ::write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (file >= 0) ::close(file);
  return done;
}

/// Maps this user and group; all others are unknown inside.
bool leaveNetworkAsOrdinaryUser() {
  const auto same = [](auto id) { return std::to_string(id) + " " + std::to_string(id) + " 1"; };
  const std::string user = same(::geteuid());
  const std::string group = same(::getegid());
  return ::unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 && write("/proc/self/setgroups", "deny") &&
         write("/proc/self/uid_map", user) && write("/proc/self/gid_map", group);
}

bool bringUpLoopback() {
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  const int handle = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  bool done = handle >= 0 && ::ioctl(handle, SIOCGIFFLAGS, &request) == 0;
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  done = done && ::ioctl(handle, SIOCSIFFLAGS, &request) == 0;
  if (handle >= 0) ::close(handle);
  return done;
}

}  // namespace

int main(int count, char** arguments) {
  // Root stays as it is: in a user namespace it could not become another user, as some tests do.
  const bool apart = ::unshare(CLONE_NEWNET) == 0 || (::geteuid() != 0 && leaveNetworkAsOrdinaryUser());
  if (!apart || !bringUpLoopback()) {
    std::perror("own-network: the system does not allow a network namespace");
    return 1;
  }
  if (count < 2) return 0;
  ::execvp(arguments[1], arguments + 1);
  std::perror(arguments[1]);
  return 127;
}
