#include "support/LoopbackServer.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "support/Threads.hpp"

namespace vornet::test {
namespace {

using Manner = WireReply::Manner;

constexpr std::chrono::milliseconds DRIP{100};

void resetWhenClosed(int connection) {
  const linger hard{1, 0};
  ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
}

/// Reads the head of a request; false when `text` is not one.
bool parseHead(const std::string& text, WireRequest& request) {
  std::istringstream lines(text);
  std::string line;
  lines >> request.method >> request.target;
  if (!std::getline(lines, line) || !line.starts_with(" HTTP/")) return false;
  while (std::getline(lines, line)) {
    if (line.ends_with('\r')) line.pop_back();
    const auto colon = line.find(':');
    if (colon == std::string::npos) continue;
    const auto value = line.find_first_not_of(' ', colon + 1);
    request.headers.emplace_back(line.substr(0, colon), value == std::string::npos ? "" : line.substr(value));
  }
  return true;
}

}  // namespace

std::vector<std::string> WireRequest::header(const std::string& name) const {
  std::vector<std::string> values;
  for (const auto& [given, value] : headers)
    if (::strcasecmp(given.c_str(), name.c_str()) == 0) values.push_back(value);
  return values;
}

LoopbackServer::LoopbackServer(Answer answer, int port, Serving serving)
    : serving_(serving), answer_(std::move(answer)) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int reuse = 1;
  ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  socklen_t length = sizeof address;
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(listener_, 64) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ::close(listener_);
    throw std::runtime_error("cannot listen on port " + std::to_string(port));
  }
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { acceptConnections(); });
}

LoopbackServer::~LoopbackServer() {
  {
    const std::lock_guard guard(lock_);
    stopping_ = true;
    changed_.notify_all();
    ::shutdown(listener_, SHUT_RDWR);
    for (const int connection : connections_) ::shutdown(connection, SHUT_RDWR);
  }
  acceptor_.join();
  served_.clear();
  ::close(listener_);
}

std::string LoopbackServer::url(const std::string& target) const {
  return "http://127.0.0.1:" + std::to_string(port_) + target;
}

std::vector<WireRequest> LoopbackServer::requests() const {
  const std::lock_guard guard(lock_);
  return requests_;
}

std::size_t LoopbackServer::connections() const {
  const std::lock_guard guard(lock_);
  return taken_;
}

bool LoopbackServer::waitForRequests(std::size_t count) const {
  std::unique_lock guard(lock_);
  return changed_.wait_for(guard, PATIENCE, [&] { return requests_.size() >= count; });
}

void LoopbackServer::setAnswer(Answer answer) {
  const std::lock_guard guard(lock_);
  answer_ = std::move(answer);
}

void LoopbackServer::acceptConnections() {
  while (true) {
    const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    {
      const std::lock_guard guard(lock_);
      if (connection < 0 || stopping_) {
        if (connection >= 0) ::close(connection);
        return;
      }
      ++taken_;
      connections_.push_back(connection);
    }
    std::erase_if(served_, isDone<void>);
    served_.push_back(std::async(std::launch::async, [this, connection] { serveAndClose(connection); }));
    if (serving_ == Serving::oneByOne) served_.back().wait();
  }
}

void LoopbackServer::serveAndClose(int connection) noexcept {
  serve(connection);
  const std::lock_guard guard(lock_);
  std::erase(connections_, connection);
  ::close(connection);
}

void LoopbackServer::serve(int connection) {
  std::string received;
  char buffer[65536];
  const auto receive = [&] {
    const auto count = ::recv(connection, buffer, sizeof buffer, 0);
    if (count <= 0) return false;
    received.append(buffer, static_cast<std::size_t>(count));
    return true;
  };
  while (true) {
    std::size_t headEnd;
    while ((headEnd = received.find("\r\n\r\n")) == std::string::npos)
      if (!receive()) return;
    WireRequest request;
    if (!parseHead(received.substr(0, headEnd), request)) return;
    const auto lengths = request.header("Content-Length");
    const std::size_t length = lengths.empty() ? 0 : std::stoul(lengths[0]);
    while (received.size() < headEnd + 4 + length)
      if (!receive()) return;
    request.body = received.substr(headEnd + 4, length);
    received.erase(0, headEnd + 4 + length);

    Answer answer;
    {
      const std::lock_guard guard(lock_);
      requests_.push_back(request);
      answer = answer_;
      changed_.notify_all();
    }
    const WireReply reply = answer(request);
    if (reply.silence.count() > 0) {
      std::unique_lock guard(lock_);
      if (changed_.wait_for(guard, reply.silence, [this] { return stopping_; })) return;
    }
    if (!reply.raw.empty()) {
      if (send(connection, reply.raw) && reply.manner == Manner::stall) waitUntilStopped();
      return;
    }
    sendReply(connection, reply);
    if (reply.manner != Manner::whole) return;
  }
}

bool LoopbackServer::send(int connection, const std::string& bytes) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const auto count = ::send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return false;
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

void LoopbackServer::waitUntilStopped() {
  std::unique_lock guard(lock_);
  changed_.wait(guard, [this] { return stopping_; });
}

void LoopbackServer::sendReply(int connection, const WireReply& reply) {
  std::string head = "HTTP/1.1 " + std::to_string(reply.status) + " Status\r\nContent-Length: ";
  const bool drips = reply.manner == Manner::drip || reply.manner == Manner::dripBody;
  head += std::to_string(drips ? 1'000'000 : reply.body.size()) + "\r\n";
  for (const auto& [name, value] : reply.headers) head += name + ": " + value + "\r\n";
  head += "\r\n";
  const std::string half = reply.body.substr(0, reply.body.size() / 2);
  switch (reply.manner) {
    case Manner::whole:
      send(connection, head + reply.body);
      break;
    case Manner::stall:
      waitUntilStopped();
      break;
    case Manner::drip:
    case Manner::dripBody: {
      if (reply.manner == Manner::dripBody) send(connection, std::exchange(head, {}));
      std::unique_lock guard(lock_);
      for (const char c : head + std::string(1'000'000, ' ')) {
        if (changed_.wait_for(guard, DRIP, [this] { return stopping_; })) return;
        guard.unlock();
        const bool sent = send(connection, std::string(1, c));
        guard.lock();
        if (!sent) return;
      }
      break;
    }
    case Manner::stallMidBody:
      send(connection, head + half);
      waitUntilStopped();
      break;
    case Manner::resetMidBody:
      send(connection, head + half);
      resetWhenClosed(connection);
      break;
    case Manner::reset:
      resetWhenClosed(connection);
      break;
    case Manner::close:
      break;
  }
}

}  // namespace vornet::test
