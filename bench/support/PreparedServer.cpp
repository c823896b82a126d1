#include "support/PreparedServer.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string_view>

namespace vornet::bench {
namespace {

using namespace std::chrono_literals;
constexpr auto PATIENCE = 60s;
constexpr auto GLANCE = 200ms;
constexpr std::string_view END_OF_HEAD = "\r\n\r\n";

int listenOnPort() {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(PreparedServer::PORT);
  if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 && ::listen(listener, 64) == 0)
    return listener;
  ::close(listener);
  return -1;
}

int waitForPort() {
  const auto until = std::chrono::steady_clock::now() + PATIENCE;
  int listener = listenOnPort();
  if (listener < 0) std::fprintf(stderr, "waiting for port %d, which another program holds\n", PreparedServer::PORT);
  while (listener < 0 && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(GLANCE);
    listener = listenOnPort();
  }
  if (listener < 0) {
    throw std::runtime_error("port " + std::to_string(PreparedServer::PORT) +
                             " stayed taken for a minute: end the program that listens on it");
  }
  return listener;
}

std::size_t contentLength(std::string_view head) {
  constexpr std::string_view NAME = "Content-Length: ";
  const auto at = head.find(NAME);
  return at == std::string_view::npos ? 0 : std::stoul(std::string(head.substr(at + NAME.size(), 12)));
}

bool sendReply(int socket, const std::string& body) {
  std::string head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: ";
  head.append(std::to_string(body.size())).append(END_OF_HEAD);
  iovec parts[] = {{head.data(), head.size()}, {const_cast<char*>(body.data()), body.size()}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  const auto first = ::sendmsg(socket, &message, MSG_NOSIGNAL);
  if (first < 0) return false;
  for (std::size_t sent = static_cast<std::size_t>(first); sent < head.size() + body.size();) {
    const std::size_t from = sent - head.size();  // the head is far smaller than any send buffer
    const auto count = ::send(socket, body.data() + from, body.size() - from, MSG_NOSIGNAL);
    if (count <= 0) return false;
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace

PreparedServer::PreparedServer(Answer answer)
    : answer_(std::move(answer)), listener_(waitForPort()), stop_(::eventfd(0, EFD_CLOEXEC)) {
  thread_ = std::thread([this] { run(); });
}

PreparedServer::~PreparedServer() {
  ::eventfd_write(stop_, 1);
  thread_.join();
  for (const auto& connection : connections_) ::close(connection.socket);
  ::close(listener_);
  ::close(stop_);
}

void PreparedServer::run() {
  while (true) {
    std::vector<pollfd> waited = {{stop_, POLLIN, 0}, {listener_, POLLIN, 0}};
    for (const auto& connection : connections_) waited.push_back({connection.socket, POLLIN, 0});
    ::poll(waited.data(), waited.size(), -1);
    if (waited[0].revents) return;
    for (std::size_t i = connections_.size(); i-- > 0;) {
      if (!waited[i + 2].revents || serve(connections_[i])) continue;
      ::close(connections_[i].socket);
      connections_.erase(connections_.begin() + static_cast<std::ptrdiff_t>(i));
    }
    if (!waited[1].revents) continue;
    const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) continue;
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    connections_.push_back({socket, ""});
  }
}

/// Takes what has come; false when the connection is at its end.
bool PreparedServer::serve(Connection& connection) {
  char buffer[4096];
  const auto count = ::recv(connection.socket, buffer, sizeof buffer, 0);
  if (count <= 0) return false;
  auto& received = connection.received.append(buffer, static_cast<std::size_t>(count));
  while (true) {
    const auto headEnd = received.find(END_OF_HEAD);
    if (headEnd == std::string::npos) return true;
    const auto body = headEnd + END_OF_HEAD.size();
    const auto length = contentLength(std::string_view(received).substr(0, headEnd));
    if (received.size() < body + length) return true;
    const Reply reply = answer_(received.substr(body, length));
    received.erase(0, body + length);
    if (!sendReply(connection.socket, *reply)) return false;
  }
}

}  // namespace vornet::bench
