#include "platform/Loopback.hpp"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
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

/// A question to the kernel about TCP sockets. It also finds those of IPv6 that take IPv4.
struct Question {
  explicit Question(std::uint16_t flags) {
    header.nlmsg_len = sizeof *this;
    header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    header.nlmsg_flags = flags;
    request.sdiag_family = AF_INET;
    request.sdiag_protocol = IPPROTO_TCP;
    request.idiag_states = ~0U;
  }
  nlmsghdr header{};
  inet_diag_req_v2 request{};
};

/// The first message of the kernel's answer.
class Answer {
 public:
  explicit Answer(const Question& question) {
    const int socket = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (socket < 0) return;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    const auto sent =
        ::sendto(socket, &question, sizeof question, 0, reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel);
    if (sent == static_cast<ssize_t>(sizeof question))  // the kernel answers within the call
      size_ = std::max<ssize_t>(::recv(socket, bytes_, sizeof bytes_, MSG_DONTWAIT), 0);
    ::close(socket);
  }

  /// The message's type; NLMSG_NOOP without an answer.
  std::uint16_t type() const {
    nlmsghdr header{};
    header.nlmsg_type = NLMSG_NOOP;
    if (size_ >= NLMSG_HDRLEN) std::memcpy(&header, bytes_, sizeof header);
    return header.nlmsg_type;
  }
  template <class Content>
  std::optional<Content> content() const {
    Content content{};
    if (size_ < static_cast<ssize_t>(NLMSG_HDRLEN + sizeof content)) return std::nullopt;
    std::memcpy(&content, bytes_ + NLMSG_HDRLEN, sizeof content);
    return content;
  }

 private:
  char bytes_[4096];
  ssize_t size_ = 0;
};

/// The rank of a table's line among the sockets that could take a connection to 127.0.0.1: the kernel prefers an
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

bool hasDiagnosis() {
  static const bool has = [] {
    Question question(NLM_F_REQUEST | NLM_F_DUMP);
    question.request.idiag_states = 1U << TCP_LISTEN;
    const Answer answer(question);
    if (answer.type() == SOCK_DIAG_BY_FAMILY) return true;
    // An empty list may end with an error.
    const auto error = answer.type() == NLMSG_DONE ? answer.content<std::int32_t>() : std::nullopt;
    return error && *error >= 0;
  }();
  return has;
}

std::optional<uid_t> ownerByDiagnosis(std::uint16_t port, std::uint16_t otherPort) {
  Question question(NLM_F_REQUEST);
  auto& id = question.request.id;
  id.idiag_sport = htons(port);
  id.idiag_dport = htons(otherPort);
  id.idiag_src[0] = htonl(INADDR_LOOPBACK);
  id.idiag_dst[0] = htonl(INADDR_LOOPBACK);
  id.idiag_if = LOOPBACK_INTERFACE;
  id.idiag_cookie[0] = id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  const Answer answer(question);
  if (answer.type() != SOCK_DIAG_BY_FAMILY) return std::nullopt;
  const auto found = answer.content<inet_diag_msg>();
  // For a closed connection, the kernel names the listener.
  if (!found || (otherPort == 0) != (found->idiag_state == TCP_LISTEN)) return std::nullopt;
  return found->idiag_uid;
}

std::optional<uid_t> ownerByTables(std::uint16_t port, std::uint16_t otherPort) {
  TableOwner best;
  for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) search(table, port, otherPort, best);
  if (best.rank == 0) return std::nullopt;
  return best.owner;
}

}  // namespace linux_sockets

namespace {

std::optional<uid_t> ownerOf(std::uint16_t port, std::uint16_t otherPort) {
  return linux_sockets::hasDiagnosis() ? linux_sockets::ownerByDiagnosis(port, otherPort)
                                       : linux_sockets::ownerByTables(port, otherPort);
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
