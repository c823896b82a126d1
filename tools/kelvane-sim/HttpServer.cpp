#include "kelvane-sim/HttpServer.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/asio/buffer.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace vornet::sim {

namespace beast = boost::beast;
namespace http = boost::beast::http;

namespace {

constexpr int IDLE_MILLISECONDS = 60'000;
constexpr int DRIP_MILLISECONDS = 100;

std::runtime_error systemFailure(const std::string& what) {
  return std::runtime_error(what + ": " + std::generic_category().message(errno));
}

std::string headText(const HttpReply& reply, std::size_t length, bool keepAlive) {
  const beast::string_view reason = http::obsolete_reason(static_cast<http::status>(reply.status));
  std::string text = "HTTP/1.1 " + std::to_string(reply.status) + " ";
  text.append(reason.data(), reason.size());
  text += "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(length) + "\r\n";
  text += keepAlive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n";
  return text;
}

}  // namespace

std::string HttpRequest::header(std::string_view name) const {
  const auto found = std::find_if(headers.begin(), headers.end(), [&](const auto& field) {
    return beast::iequals(beast::string_view(field.first.data(), field.first.size()),
                          beast::string_view(name.data(), name.size()));
  });
  return found == headers.end() ? std::string() : found->second;
}

// One client: its socket and the thread that serves it. Every wait ends when the server stops.
struct HttpServer::Connection {
  Connection(FileDescriptor socket, int stopEvent, const Handler& handler)
      : socket_(std::move(socket)), stopEvent_(stopEvent), handler_(handler), thread_([this] {
          serve();
          socket_.reset();
          done = true;
        }) {}
  ~Connection() { thread_.join(); }

  std::atomic<bool> done = false;

 private:
  enum class Wait { ready, timeout, stopped };

  Wait wait(short events, int milliseconds) const {
    std::array<pollfd, 2> waits{{{socket_.get(), events, 0}, {stopEvent_, POLLIN, 0}}};
    int result = 0;
    do {
      result = ::poll(waits.data(), waits.size(), milliseconds);
    } while (result < 0 && errno == EINTR);
    if (result < 0 || waits[1].revents != 0) return Wait::stopped;
    return result == 0 ? Wait::timeout : Wait::ready;
  }

  // Appends what has come in to `input_`; false when there will be no more.
  bool receive() {
    std::array<char, 16384> chunk;
    for (;;) {
      if (wait(POLLIN, IDLE_MILLISECONDS) != Wait::ready) return false;
      const ssize_t length = ::recv(socket_.get(), chunk.data(), chunk.size(), 0);
      if (length < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      if (length <= 0) return false;
      input_.append(chunk.data(), static_cast<std::size_t>(length));
      return true;
    }
  }

  bool send(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t length = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (length >= 0) {
        bytes.remove_prefix(static_cast<std::size_t>(length));
      } else if (errno == EAGAIN) {
        if (wait(POLLOUT, IDLE_MILLISECONDS) != Wait::ready) return false;
      } else if (errno != EINTR) {
        return false;
      }
    }
    return true;
  }

  void dripForEver(char byte) const {
    while (wait(POLLRDHUP, DRIP_MILLISECONDS) == Wait::timeout && send({&byte, 1})) {
    }
  }

  void resetConnection() {
    const linger hard{1, 0};
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    socket_.reset();
  }

  // Sends `reply`; false when the connection is to end.
  bool answer(const HttpReply& reply, bool keepAlive) {
    constexpr std::size_t ENDLESS = 1'000'000'000;
    switch (reply.delivery) {
      case Delivery::STALL:
        while (wait(POLLRDHUP, -1) == Wait::timeout) {
        }
        return false;
      case Delivery::DRIP:
        if (send(headText(reply, ENDLESS, keepAlive))) dripForEver(' ');
        return false;
      case Delivery::DRIP_HEADERS:
        if (send("HTTP/1.1 200 OK\r\nX-Drip: ")) dripForEver('x');
        return false;
      case Delivery::RESET: {
        // A body of nothing has no middle: promise more than comes.
        const std::size_t half = reply.body.size() / 2;
        if (send(headText(reply, std::max<std::size_t>(reply.body.size(), 1), keepAlive) + reply.body.substr(0, half)))
          resetConnection();
        return false;
      }
      case Delivery::WHOLE:
        break;
    }
    return send(headText(reply, reply.body.size(), keepAlive) + reply.body) && keepAlive;
  }

  // Reads one request and answers it; false when the connection is to end.
  bool exchange() {
    http::request_parser<http::string_body> parser;
    parser.eager(true);
    parser.body_limit(MAX_BODY_BYTES);
    bool continued = false;
    while (!parser.is_done()) {
      if (input_.empty() && !receive()) return false;
      beast::error_code error;
      const std::size_t used = parser.put(boost::asio::buffer(input_), error);
      input_.erase(0, used);
      if (error == http::error::body_limit) return answer({413, R"({"error":"request too large"})"}, false);
      if (error && error != http::error::need_more) return answer({400, R"({"error":"not an HTTP request"})"}, false);
      if (parser.is_done()) break;
      if (parser.is_header_done() && !continued && beast::iequals(parser.get()[http::field::expect], "100-continue")) {
        continued = true;
        if (!send("HTTP/1.1 100 Continue\r\n\r\n")) return false;
      }
      if (!receive()) return false;
    }
    const auto& message = parser.get();
    HttpRequest request{std::string(message.method_string()), std::string(message.target()), {}, message.body()};
    for (const auto& field : message)
      request.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
    return answer(handler_(request), message.keep_alive());
  }

  void serve() {
    try {
      while (exchange()) {
      }
    } catch (const std::exception&) {
      // Out of memory: this client is dropped, the others are served.
    }
  }

  FileDescriptor socket_;
  const int stopEvent_;
  const Handler& handler_;
  std::string input_;
  std::thread thread_;
};

HttpServer::HttpServer(Handler handler) : handler_(std::move(handler)) {}

HttpServer::~HttpServer() {
  stop();
}

void HttpServer::listen(std::uint16_t port) {
  stop();
  FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) throw systemFailure("cannot make a socket");
  const int on = 1;
  ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(socket.get(), SOMAXCONN) != 0) {
    throw systemFailure("cannot listen on 127.0.0.1:" + std::to_string(port));
  }
  socklen_t length = sizeof address;
  ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length);
  FileDescriptor stopEvent(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!stopEvent) throw systemFailure("cannot make an event descriptor");
  port_ = ntohs(address.sin_port);
  listener_ = std::move(socket);
  stopEvent_ = std::move(stopEvent);
}

void HttpServer::serve() {
  acceptor_ = std::thread([this] { acceptLoop(); });
}

void HttpServer::stop() {
  if (stopEvent_) ::eventfd_write(stopEvent_.get(), 1);
  if (acceptor_.joinable()) acceptor_.join();
  listener_.reset();
  stopEvent_.reset();
}

void HttpServer::reap(bool all) {
  connections_.remove_if([all](const std::unique_ptr<Connection>& c) { return all || c->done; });
}

void HttpServer::acceptLoop() {
  constexpr int FULL_MILLISECONDS = 20;
  for (;;) {
    const bool full = connections_.size() >= MAX_CONNECTIONS;
    std::array<pollfd, 2> waits{{{stopEvent_.get(), POLLIN, 0}, {full ? -1 : listener_.get(), POLLIN, 0}}};
    ::poll(waits.data(), waits.size(), full ? FULL_MILLISECONDS : -1);
    if (waits[0].revents != 0) break;
    reap(false);
    if (waits[1].revents == 0) continue;
    FileDescriptor client(::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!client) {
      // Out of descriptors, it may be: the client stays in the queue for better times.
      ::poll(waits.data(), 1, FULL_MILLISECONDS);
      continue;
    }
    const int on = 1;
    ::setsockopt(client.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    try {
      connections_.push_back(std::make_unique<Connection>(std::move(client), stopEvent_.get(), handler_));
    } catch (const std::system_error&) {
      // No thread to be had: this client is turned away.
    }
  }
  // No further client may get into the backlog while the connections end.
  listener_.reset();
  reap(true);
}

}  // namespace vornet::sim
