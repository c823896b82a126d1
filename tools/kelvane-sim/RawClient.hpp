#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "kelvane-sim/FileDescriptor.hpp"
#include "kelvane-sim/TestFolder.hpp"

namespace vornet::sim::testing {

/// A client that sees the bytes of the wire.
class RawClient {
 public:
  enum class End { open, closed, reset };

  explicit RawClient(std::uint16_t port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connectError_ =
        ::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
  }

  /// 0, or why there is no connection.
  int connectError() const { return connectError_; }

  void send(std::string_view bytes) const {
    EXPECT_EQ(::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }

  void post(const std::string& command, const std::string& body) const {
    send("POST /" + command + " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body);
  }

  /// Reads until `enough` is true of what has come since the client was made, or the connection ends, or nothing comes
  /// for `quiet` milliseconds.
  End readUntil(const std::function<bool(const std::string&)>& enough, int quiet = 30'000) {
    while (!enough(received)) {
      pollfd wait{socket_.get(), POLLIN, 0};
      if (::poll(&wait, 1, quiet) <= 0) return End::open;
      std::array<char, 65536> chunk{};
      const ssize_t length = ::recv(socket_.get(), chunk.data(), chunk.size(), 0);
      if (length < 0) return errno == ECONNRESET ? End::reset : End::closed;
      if (length == 0) return End::closed;
      received.append(chunk.data(), static_cast<std::size_t>(length));
    }
    return End::open;
  }

  /// Reads to the connection's end.
  End readAll() {
    return readUntil([](const std::string&) { return false; });
  }

  /// Reads one whole reply, as its Content-Length has it, and returns the body.
  std::string readReply() {
    constexpr std::string_view LENGTH = "Content-Length: ";
    std::size_t begin = 0;
    std::size_t size = 0;
    readUntil([&](const std::string& text) {
      const auto end = text.find("\r\n\r\n");
      if (end == std::string::npos) return false;
      begin = end + 4;
      size = std::stoul(text.substr(text.find(LENGTH) + LENGTH.size()));
      return text.size() >= begin + size;
    });
    std::string body = received.substr(begin, size);
    received.erase(0, begin + size);
    return body;
  }

  std::string received;

 private:
  FileDescriptor socket_;
  int connectError_ = 0;
};

}  // namespace vornet::sim::testing
