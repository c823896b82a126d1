#include "SyncApplication.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>
#include <thread>

namespace vornet::vi {
namespace {

/// A listening socket of the loopback interface on a free port.
class Listener {
 public:
  Listener() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof name;
    EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&name), size), 0);
    EXPECT_EQ(listen(socket_, 4), 0);
    EXPECT_EQ(getsockname(socket_, reinterpret_cast<sockaddr*>(&name), &size), 0);
    address_ = "127.0.0.1:" + std::to_string(ntohs(name.sin_port));
  }
  ~Listener() { close(socket_); }
  const std::string& address() const { return address_; }
  /// Has a serve() that waits for its connection give up.
  void interrupt() const { shutdown(socket_, SHUT_RDWR); }

  /// Takes one connection and its request, up to the end of the expected body, answers, and returns the request.
  std::string serve(const std::string& answer) const {
    const int connection = accept(socket_, nullptr, nullptr);
    if (connection < 0) {
      return {};
    }
    std::string request;
    std::array<char, 1024> buffer{};
    while (!request.ends_with("}")) {
      const ssize_t size = recv(connection, buffer.data(), buffer.size(), 0);
      if (size <= 0) {
        break;
      }
      request.append(buffer.data(), static_cast<std::size_t>(size));
    }
    EXPECT_EQ(send(connection, answer.data(), answer.size(), MSG_NOSIGNAL), static_cast<ssize_t>(answer.size()));
    close(connection);
    return request;
  }

 private:
  int socket_;
  std::string address_;
};

TEST(SyncApplicationTest, postsTheQuestionThatTheExtensionPosts) {
  const Listener listener;
  std::string request;
  std::thread server{[&] { request = listener.serve("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}"); }};
  const SyncApplicationState state = askSyncApplication(listener.address());
  server.join();
  EXPECT_EQ(state.outcome, SyncApplicationState::Outcome::answers);
  EXPECT_EQ(state.httpStatus, 200);
  EXPECT_EQ(request.substr(0, request.find("\r\n")), "POST /get_icons_for_folder HTTP/1.1");
  EXPECT_NE(request.find("\r\nContent-Type: application/json\r\n"), std::string::npos);
  EXPECT_EQ(request.substr(request.find("\r\n\r\n") + 4), R"({"dir_name":"/"})");
}

TEST(SyncApplicationTest, anyStatusIsAnAnswer) {
  const Listener listener;
  std::thread server{[&] { listener.serve("HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\n\r\n"); }};
  const SyncApplicationState state = askSyncApplication(listener.address());
  server.join();
  EXPECT_EQ(state.outcome, SyncApplicationState::Outcome::answers);
  EXPECT_EQ(state.httpStatus, 500);
}

TEST(SyncApplicationTest, proxiesOfTheEnvironmentAreIgnored) {
  setenv("http_proxy", "http://127.0.0.1:1", 1);
  setenv("ALL_PROXY", "http://127.0.0.1:1", 1);
  const Listener listener;
  std::thread server{[&] { listener.serve("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"); }};
  const SyncApplicationState state = askSyncApplication(listener.address());
  if (state.outcome != SyncApplicationState::Outcome::answers) {
    listener.interrupt();
  }
  EXPECT_EQ(state.outcome, SyncApplicationState::Outcome::answers);
  server.join();
}

TEST(SyncApplicationTest, aClosedPortIsARefusal) {
  std::string address;
  {
    const Listener listener;
    address = listener.address();
  }
  EXPECT_EQ(askSyncApplication(address).outcome, SyncApplicationState::Outcome::refused);
}

TEST(SyncApplicationTest, silenceIsATimeOut) {
  const Listener listener;  // the system takes the connection; nobody answers
  EXPECT_EQ(askSyncApplication(listener.address()).outcome, SyncApplicationState::Outcome::timedOut);
}

TEST(SyncApplicationTest, whatIsNotHTTPIsAFailure) {
  const Listener listener;
  std::thread server{[&] { listener.serve("SSH-2.0-x\r\n"); }};
  const SyncApplicationState state = askSyncApplication(listener.address());
  server.join();
  EXPECT_EQ(state.outcome, SyncApplicationState::Outcome::failed);
  EXPECT_FALSE(state.problem.empty());
}

}  // namespace
}  // namespace vornet::vi
