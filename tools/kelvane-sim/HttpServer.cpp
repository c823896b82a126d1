#include "kelvane-sim/HttpServer.hpp"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace vornet::sim {

namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using asio::ip::tcp;
using boost::system::error_code;

constexpr std::uint16_t PORT = 8806;
constexpr std::chrono::milliseconds DRIP_INTERVAL(100);
constexpr std::size_t ENDLESS = 1'000'000'000;

std::string headText(const HttpReply& reply, std::size_t length, bool keepAlive) {
  http::response_header<> header;
  header.version(11);
  header.result(static_cast<unsigned>(reply.status));
  header.set(http::field::content_type, "application/json");
  header.set(http::field::content_length, std::to_string(length));
  header.set(http::field::connection, keepAlive ? "keep-alive" : "close");
  std::ostringstream text;
  text << header;
  return text.str();
}

/// One client. It lives as long as it waits for something.
class Session : public std::enable_shared_from_this<Session> {
 public:
  Session(tcp::socket socket, const HttpServer::Handler& handler) : socket_(std::move(socket)), handler_(handler) {}

  void read() {
    request_ = {};
    http::async_read(socket_, buffer_, request_, [self = shared_from_this()](const error_code& error, std::size_t) {
      if (!error) self->answer();
    });
  }

 private:
  void answer() {
    const bool keepAlive = request_.keep_alive();
    const HttpReply reply =
        handler_({std::string(request_.method_string()), std::string(request_.target()), request_.body()});
    switch (reply.delivery) {
      case Delivery::whole:
        return send(headText(reply, reply.body.size(), keepAlive) + reply.body, [this, keepAlive] {
          if (keepAlive) read();
        });
      case Delivery::stall:
        return socket_.async_wait(tcp::socket::wait_read, [self = shared_from_this()](const error_code&) {});
      case Delivery::drip:
        return send(headText(reply, ENDLESS, keepAlive), [this] { drip(); });
      case Delivery::dripHeaders:
        return send("HTTP/1.1 200 OK\r\nX-Drip: ", [this] { drip(); });
      case Delivery::reset: {
        // An empty body has no middle: promise more than comes.
        const std::size_t size = std::max<std::size_t>(reply.body.size(), 1);
        return send(headText(reply, size, keepAlive) + reply.body.substr(0, size / 2), [this] {
          error_code ignored;
          socket_.set_option(asio::socket_base::linger(true, 0), ignored);
          socket_.close(ignored);
        });
      }
    }
  }

  template <typename Next>
  void send(std::string text, Next next) {
    text_ = std::move(text);
    asio::async_write(socket_, asio::buffer(text_),
                      [self = shared_from_this(), next](const error_code& error, std::size_t) {
                        if (!error) next();
                      });
  }

  void drip() {
    timer_.expires_after(DRIP_INTERVAL);
    timer_.async_wait([self = shared_from_this()](const error_code&) { self->send(" ", [self] { self->drip(); }); });
  }

  tcp::socket socket_;
  const HttpServer::Handler& handler_;
  boost::beast::flat_buffer buffer_;
  http::request<http::string_body> request_;
  std::string text_;
  asio::steady_timer timer_{socket_.get_executor()};
};

}  // namespace

struct HttpServer::Impl {
  // No program that this one starts may inherit a socket: it would hold the port, or a client.
  void listen() {
    acceptor.open(tcp::v4());
    ::fcntl(acceptor.native_handle(), F_SETFD, FD_CLOEXEC);
    acceptor.set_option(tcp::acceptor::reuse_address(true));
    acceptor.bind({asio::ip::address_v4::loopback(), PORT});
    acceptor.listen();
  }

  void accept(const Handler& handler) {
    acceptor.async_wait(tcp::acceptor::wait_read, [this, &handler](const error_code&) {
      const int client = ::accept4(acceptor.native_handle(), nullptr, nullptr, SOCK_CLOEXEC);
      if (client >= 0) std::make_shared<Session>(tcp::socket(context, tcp::v4(), client), handler)->read();
      accept(handler);
    });
  }

  asio::io_context context{1};
  tcp::acceptor acceptor{context};
  std::thread thread;
};

HttpServer::HttpServer(Handler handler) : handler_(std::move(handler)) {}

HttpServer::~HttpServer() {
  stop();
}

void HttpServer::listen() {
  stop();
  auto impl = std::make_unique<Impl>();
  try {
    impl->listen();
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(PORT) + ": " + error.code().message());
  }
  impl_ = std::move(impl);
}

void HttpServer::serve() {
  impl_->accept(handler_);
  impl_->thread = std::thread([&context = impl_->context] {
    while (!context.stopped()) try {
        context.run();
      } catch (const std::exception&) {
        // Out of memory: this client is dropped, the others are served.
      }
  });
}

void HttpServer::stop() {
  if (!impl_) return;
  impl_->context.stop();
  if (impl_->thread.joinable()) impl_->thread.join();
  impl_.reset();
}

}  // namespace vornet::sim
