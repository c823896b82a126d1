#include "platform/Loopback.hpp"

#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/LoopbackSockets.hpp"
#include "support/ChildProcess.hpp"
#include "support/Threads.hpp"

namespace vornet::platform {
namespace {

using linux_sockets::ownerByDiagnosis;
using linux_sockets::ownerByTables;
using test::ChildProcess;
using test::Gate;

constexpr uid_t STRANGER = 65534;

/// The socket name of `port` at `address`, which is in the numeric form of IPv4 or IPv6.
std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> nameOf(const std::string& address, std::uint16_t port) {
  addrinfo numeric{};
  numeric.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  ::getaddrinfo(address.c_str(), std::to_string(port).c_str(), &numeric, &found);
  return {found, &::freeaddrinfo};
}

/// A socket on some address of this machine.
class Socket {
 public:
  /// `port` 0: any free one.
  explicit Socket(const std::string& address, std::uint16_t port = 0, bool onlyIPv6 = false) {
    const auto name = nameOf(address, port);
    descriptor_ = ::socket(name->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    const int only = onlyIPv6 ? 1 : 0;
    ::setsockopt(descriptor_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (name->ai_family == AF_INET6) ::setsockopt(descriptor_, IPPROTO_IPV6, IPV6_V6ONLY, &only, sizeof only);
    bound_ = ::bind(descriptor_, name->ai_addr, name->ai_addrlen) == 0;
    sockaddr_in6 own{};
    socklen_t size = sizeof own;
    ::getsockname(descriptor_, reinterpret_cast<sockaddr*>(&own), &size);
    port_ = ntohs(own.sin6_port);  // in the same place in both families
  }
  explicit Socket(int descriptor) : descriptor_(descriptor), bound_(descriptor >= 0) {}
  ~Socket() { ::close(descriptor_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  bool isBound() const { return bound_; }
  std::uint16_t port() const { return port_; }
  bool listen() const { return ::listen(descriptor_, 8) == 0; }
  int accept() const { return ::accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC); }
  bool connect(std::uint16_t port) const {
    const auto name = nameOf("127.0.0.1", port);
    return ::connect(descriptor_, name->ai_addr, name->ai_addrlen) == 0;
  }

 private:
  int descriptor_ = -1;
  bool bound_ = false;
  std::uint16_t port_ = 0;
};

/// A port on which nobody listens.
std::uint16_t freePort() {
  return Socket("127.0.0.1").port();
}

TEST(Loopback, AnOwnListenerOnEveryAddressThatTakesTheConnectionIsOwn) {
  for (const char* address : {"127.0.0.1", "0.0.0.0", "::", "::ffff:127.0.0.1", "::ffff:0.0.0.0"}) {
    const Socket listener(address);
    if (!listener.isBound()) {
      std::printf("no IPv6 here: %s is left out\n", address);
      continue;
    }
    ASSERT_TRUE(listener.listen()) << address;
    EXPECT_TRUE(isOwnLoopbackListener(listener.port())) << address;
    EXPECT_EQ(ownerByDiagnosis(listener.port(), 0), ::geteuid()) << address;
    EXPECT_EQ(ownerByTables(listener.port(), 0), ::geteuid()) << address;
  }
}

TEST(Loopback, TheSystemHasSocketDiagnosis) {
  EXPECT_TRUE(linux_sockets::hasDiagnosis()) << "the tables serve as well, but take a thousand times as long";
}

TEST(Loopback, WithoutAListenerOnTheAddressThereIsNoOwner) {
  const Socket bound("127.0.0.1");  // but it does not listen
  const Socket other("127.0.0.2");
  ASSERT_TRUE(other.listen());
  for (const auto& [port, kind] : {std::pair(freePort(), "free"), std::pair(bound.port(), "bound, but not listening"),
                                   std::pair(other.port(), "of a listener on another address")}) {
    EXPECT_FALSE(isOwnLoopbackListener(port)) << kind;
    EXPECT_EQ(ownerByDiagnosis(port, 0), std::nullopt) << kind;
    EXPECT_EQ(ownerByTables(port, 0), std::nullopt) << kind;
  }
}

TEST(Loopback, AnOwnConnectionIsOwnBeforeAndAfterItIsAccepted) {
  const Socket listener("127.0.0.1");
  ASSERT_TRUE(listener.listen());
  const Socket client("127.0.0.1");
  ASSERT_TRUE(client.connect(listener.port()));
  EXPECT_TRUE(isOwnLoopbackPeer(listener.port(), client.port()));
  const Socket accepted(listener.accept());
  EXPECT_TRUE(isOwnLoopbackPeer(listener.port(), client.port()));
  EXPECT_EQ(ownerByDiagnosis(listener.port(), client.port()), ::geteuid());
  EXPECT_EQ(ownerByTables(listener.port(), client.port()), ::geteuid());
}

/// Tests with processes of two users, which only root can start.
class LoopbackOfTwoUsers : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to be another user for a while";
  }

  /// Runs `test` as an ordinary user.
  static void asUser(uid_t user, const std::function<bool()>& test) {
    ChildProcess child([&] { return test::becomeUser(user) && test() ? 0 : 1; });
    EXPECT_EQ(child.wait(), 0);
  }

  /// Starts a stranger's process that listens on `port` at each of `addresses`, and waits until it does.
  static std::unique_ptr<ChildProcess> startStrangersListeners(std::uint16_t port,
                                                               const std::vector<const char*>& addresses,
                                                               bool onlyIPv6 = false) {
    Gate listening;
    auto stranger = std::make_unique<ChildProcess>([&] {
      if (!test::becomeUser(STRANGER)) return 1;
      std::list<Socket> listeners;
      for (const char* address : addresses)
        if (!listeners.emplace_back(address, port, onlyIPv6).listen()) return 1;
      listening.open();
      return ::pause();
    });
    listening.pass();
    return stranger;
  }
};

TEST_F(LoopbackOfTwoUsers, AStrangersListenerIsNotOwn) {
  for (const char* address : {"127.0.0.1", "0.0.0.0", "::", "::ffff:127.0.0.1"}) {
    const auto port = freePort();
    const auto stranger = startStrangersListeners(port, {address});
    EXPECT_FALSE(isOwnLoopbackListener(port)) << address;
    EXPECT_EQ(ownerByDiagnosis(port, 0), STRANGER) << address;
    EXPECT_EQ(ownerByTables(port, 0), STRANGER) << address;
    asUser(STRANGER, [&] { return isOwnLoopbackListener(port); });
    asUser(STRANGER - 1, [&] { return !isOwnLoopbackListener(port); });
  }
}

TEST_F(LoopbackOfTwoUsers, RootsListenerIsTrustedByEveryUser) {
  const Socket listener("127.0.0.1");
  ASSERT_TRUE(listener.listen());
  asUser(STRANGER, [&] { return isOwnLoopbackListener(listener.port()); });
}

TEST_F(LoopbackOfTwoUsers, AStrangersListenerOnAnAddressThatTakesNoConnectionHidesNoOwnOne) {
  const auto port = freePort();
  const auto stranger = startStrangersListeners(port, {"127.0.0.2", "::"}, /*onlyIPv6=*/true);
  const Socket listener("127.0.0.1", port);
  ASSERT_TRUE(listener.listen());
  EXPECT_TRUE(isOwnLoopbackListener(port));
  EXPECT_EQ(ownerByTables(port, 0), 0u);
}

TEST_F(LoopbackOfTwoUsers, AConnectionThatAStrangerTookIsNotOwnAlthoughTheListenerNowIs) {
  const auto port = freePort();
  Gate listening;
  Gate accepted;
  ChildProcess stranger([&] {
    if (!test::becomeUser(STRANGER)) return 1;
    int connection = -1;
    {
      const Socket listener("127.0.0.1", port);
      if (!listener.listen()) return 1;
      listening.open();
      connection = listener.accept();
    }
    accepted.open();  // the connection stays, the listener has gone
    ::pause();
    return connection;
  });
  listening.pass();
  const Socket client("127.0.0.1");
  ASSERT_TRUE(client.connect(port));
  accepted.pass();
  const Socket listener("127.0.0.1", port);
  ASSERT_TRUE(listener.listen());
  ASSERT_TRUE(isOwnLoopbackListener(port));
  EXPECT_FALSE(isOwnLoopbackPeer(port, client.port()));
  EXPECT_EQ(ownerByDiagnosis(port, client.port()), STRANGER);
  EXPECT_EQ(ownerByTables(port, client.port()), STRANGER);
}

TEST_F(LoopbackOfTwoUsers, AConnectionThatNobodyHasAcceptedIsJudgedByItsListener) {
  const auto port = freePort();
  const auto stranger = startStrangersListeners(port, {"127.0.0.1"});
  const Socket client("127.0.0.1");
  ASSERT_TRUE(client.connect(port));
  EXPECT_FALSE(isOwnLoopbackPeer(port, client.port()));
}

}  // namespace
}  // namespace vornet::platform
