#include "platform/Loopback.hpp"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "platform/linux/LoopbackSockets.hpp"

namespace vornet::platform {
namespace linux_sockets {
namespace {

constexpr std::uint32_t LOOPBACK_INTERFACE = 1;  // in every network namespace

class NetlinkSocket {
 public:
  NetlinkSocket() : descriptor_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {}
  ~NetlinkSocket() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;

  template <class Question>
  bool send(const Question& question) const {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    return ::sendto(descriptor_, &question, sizeof question, 0, reinterpret_cast<const sockaddr*>(&kernel),
                    sizeof kernel) == static_cast<ssize_t>(sizeof question);
  }
  /// The kernel has answered before send() returns.
  std::size_t receive(void* buffer, std::size_t size) const {
    const auto count = ::recv(descriptor_, buffer, size, MSG_DONTWAIT);
    return count < 0 ? 0 : static_cast<std::size_t>(count);
  }

 private:
  int descriptor_;
};

/// How a table's line for a socket ranks among those that could take a connection to 127.0.0.1: the kernel prefers an
/// address to none, and IPv4 to IPv6. 0: not at all.
int rankOfAddress(std::string_view address) {
  char loopback[9];
  std::snprintf(loopback, sizeof loopback, "%08X", htonl(INADDR_LOOPBACK));
  char mapped[9];
  std::snprintf(mapped, sizeof mapped, "%08X", htonl(0xFFFF));
  const std::string none(8, '0');
  if (address == loopback) return 4;
  if (address == none + none + mapped + loopback) return 3;
  if (address == none) return 2;
  return address == none + none + none + none || address == none + none + mapped + none ? 1 : 0;
}

struct TableOwner {
  int rank = 0;
  uid_t owner = 0;
};

void search(const char* table, std::uint16_t port, std::uint16_t otherPort, TableOwner& best) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(table, "re"), &std::fclose);
  if (!file) return;
  char line[512];
  while (std::fgets(line, sizeof line, file.get())) {
    char local[33];
    char other[33];
    unsigned localPort = 0;
    unsigned remotePort = 0;
    unsigned state = 0;
    unsigned owner = 0;
    if (std::sscanf(line, "%*u: %32[0-9A-F]:%x %32[0-9A-F]:%x %x %*x:%*x %*x:%*x %*x %u", local, &localPort, other,
                    &remotePort, &state, &owner) != 6) {
      continue;
    }
    if (localPort != port || remotePort != otherPort || (otherPort == 0) != (state == TCP_LISTEN)) continue;
    if (otherPort != 0 && rankOfAddress(other) < 3) continue;
    if (const int rank = rankOfAddress(local); rank > best.rank) best = {rank, owner};
  }
}

}  // namespace

std::optional<uid_t> ownerByDiagnosis(std::uint16_t port, std::uint16_t otherPort) {
  struct {
    nlmsghdr header;
    inet_diag_req_v2 question;
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  auto& question = request.question;
  question.sdiag_family = AF_INET;  // finds sockets of IPv6 that take IPv4, too
  question.sdiag_protocol = IPPROTO_TCP;
  question.idiag_states = ~0U;
  question.id.idiag_sport = htons(port);
  question.id.idiag_dport = htons(otherPort);
  question.id.idiag_src[0] = htonl(INADDR_LOOPBACK);
  question.id.idiag_dst[0] = htonl(INADDR_LOOPBACK);
  question.id.idiag_if = LOOPBACK_INTERFACE;
  question.id.idiag_cookie[0] = question.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;

  const NetlinkSocket socket;
  alignas(nlmsghdr) char answer[1024];
  if (!socket.send(request)) return std::nullopt;
  const auto size = socket.receive(answer, sizeof answer);
  nlmsghdr header;
  inet_diag_msg found;
  if (size < NLMSG_HDRLEN + sizeof found) return std::nullopt;
  std::memcpy(&header, answer, sizeof header);
  if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY) return std::nullopt;  // an error: most often there is no such socket
  std::memcpy(&found, answer + NLMSG_HDRLEN, sizeof found);
  // Asked for a connection that is gone, the kernel names the listener.
  if ((otherPort == 0) != (found.idiag_state == TCP_LISTEN)) return std::nullopt;
  return found.idiag_uid;
}

std::optional<uid_t> ownerByTables(std::uint16_t port, std::uint16_t otherPort) {
  TableOwner best;
  for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) search(table, port, otherPort, best);
  if (best.rank == 0) return std::nullopt;
  return best.owner;
}

}  // namespace linux_sockets

namespace {

/// The kernel gives the same answer for "no such socket" and "no socket diagnosis"; the tables tell these apart.
std::optional<uid_t> ownerOf(std::uint16_t port, std::uint16_t otherPort) {
  const auto owner = linux_sockets::ownerByDiagnosis(port, otherPort);
  return owner ? owner : linux_sockets::ownerByTables(port, otherPort);
}

bool isTrusted(uid_t owner) {
  return owner == 0 || owner == ::geteuid();
}

}  // namespace

bool isOwnLoopbackListener(std::uint16_t port) {
  const auto owner = ownerOf(port, 0);
  return owner && isTrusted(*owner);
}

bool isOwnLoopbackPeer(std::uint16_t port, std::uint16_t localPort) {
  // In this order: a connection that nobody had accepted when its listener went is gone with it.
  if (!isOwnLoopbackListener(port)) return false;
  const auto owner = ownerOf(port, localPort);
  return !owner || isTrusted(*owner);
}

}  // namespace vornet::platform
