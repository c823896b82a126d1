#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

namespace vornet::vi::test {

/// For tests: a listening socket of the loopback interface, answering by hand.
class Listener {
 public:
  /// `port` 0: any free one. A port that another program holds is waited for, a minute at most.
  explicit Listener(std::uint16_t port = 0) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    name.sin_port = htons(port);
    socklen_t size = sizeof name;
    const int reuse = 1;
    EXPECT_EQ(setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse), 0);
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes{1};
    while (bind(socket_, reinterpret_cast<const sockaddr*>(&name), size) != 0) {
      if (errno != EADDRINUSE || std::chrono::steady_clock::now() > end) {
        ADD_FAILURE() << "cannot bind port " << port;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds{20});
    }
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
    if (connection < 0) return {};
    std::string request;
    std::array<char, 1024> buffer{};
    while (!request.ends_with("}")) {
      const ssize_t size = recv(connection, buffer.data(), buffer.size(), 0);
      if (size <= 0) break;
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

}  // namespace vornet::vi::test
