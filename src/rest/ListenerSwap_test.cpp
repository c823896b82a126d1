// A server that another user's replaces between the first look at it and the connection. The test replaces connect(),
// which libcurl calls, to hit that moment.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <optional>

#include "rest/RESTClient.hpp"
#include "support/ChildProcess.hpp"
#include "support/LoopbackServer.hpp"
#include "support/Threads.hpp"

namespace {

/// Called before each connection that is made, when set.
std::function<void()>& beforeConnect() {
  static std::function<void()> hook;
  return hook;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int connect(int descriptor, const sockaddr* address, socklen_t size) {
  static const auto real = reinterpret_cast<int (*)(int, const sockaddr*, socklen_t)>(::dlsym(RTLD_NEXT, "connect"));
  if (beforeConnect()) beforeConnect()();
  return real(descriptor, address, size);
}

namespace vornet::test {
namespace {

constexpr uid_t STRANGER = 65534;

/// Becomes another user, listens where the sync application would, takes one connection and answers it. The number of
/// bytes that it was sent, at most 100; 101 when that was impossible.
int listenAsStranger(Gate& listening) {
  const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  const int on = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in name{.sin_family = AF_INET,
                         .sin_port = htons(LoopbackServer::SYNC_APPLICATION_PORT),
                         .sin_addr = {htonl(INADDR_LOOPBACK)},
                         .sin_zero = {}};
  const bool ready =
      ::bind(listener, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0 && ::listen(listener, 8) == 0;
  listening.open();
  if (!ready) return 101;
  const int connection = ::accept(listener, nullptr, nullptr);
  char buffer[100];
  const auto count = ::recv(connection, buffer, sizeof buffer, 0);
  const std::string_view reply = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}";
  ::send(connection, reply.data(), reply.size(), MSG_NOSIGNAL);
  return count < 0 ? 0 : static_cast<int>(count);
}

TEST(ReplacedServer, IsSentNothing) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root, to be another user for a while";
  Gate free;
  Gate listening;
  ChildProcess stranger([&] {
    if (!becomeUser(STRANGER)) return 101;
    free.pass();
    return listenAsStranger(listening);
  });
  std::optional<LoopbackServer> own(std::in_place, [](const WireRequest&) { return WireReply{.body = "own"}; });
  ASSERT_EQ(RESTClient::postAtPath("command", "{}"), "own");
  bool replaced = false;
  beforeConnect() = [&] {
    replaced = true;
    own.reset();
    free.open();
    listening.pass();
  };
  EXPECT_THROW(RESTClient::postAtPath("command", "{}"), HTTPError);
  beforeConnect() = {};
  ASSERT_TRUE(replaced) << "the library's connections do not pass here";
  EXPECT_EQ(stranger.wait(), 0) << "bytes sent";
}

}  // namespace
}  // namespace vornet::test
