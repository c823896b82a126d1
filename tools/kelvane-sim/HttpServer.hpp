#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kelvane-sim/FileDescriptor.hpp"

namespace vornet::sim {

/// A request as it came.
struct HttpRequest {
  std::string method;                                        ///< "POST"
  std::string target;                                        ///< "/get_icons_for_folder"
  std::vector<std::pair<std::string, std::string>> headers;  ///< in the order and spelling of the wire
  std::string body;

  /// The value of the first header called `name`, whatever its case; empty when there is none.
  std::string header(std::string_view name) const;
};

/// How a reply goes out.
enum class Delivery {
  WHOLE,
  STALL,         ///< not at all; held until the client leaves
  DRIP,          ///< headers, then blanks without end, one each 100 ms
  DRIP_HEADERS,  ///< status line, then a header without end, one byte each 100 ms
  RESET,         ///< headers and half of the body, then RST
};

struct HttpReply {
  int status = 200;
  std::string body;  ///< JSON; sent as application/json
  Delivery delivery = Delivery::WHOLE;
};

/// A small HTTP/1.1 server on 127.0.0.1 that can also misbehave, down to the byte: that is why the sockets are its own.
/// The protocol is read by Boost.Beast. One thread a connection, at most MAX_CONNECTIONS; further clients wait.
/// Connections are kept alive. `stop` is prompt whatever the clients do. `listen`, `serve` and `stop` belong to one
/// thread at a time; the handler is called from several at once.
class HttpServer {
 public:
  using Handler = std::function<HttpReply(const HttpRequest&)>;
  static constexpr std::size_t MAX_CONNECTIONS = 64;
  static constexpr std::size_t MAX_BODY_BYTES = 8U << 20U;

  explicit HttpServer(Handler handler);
  ~HttpServer();

  /// Takes `port` (0: any free one); clients can connect and wait. Throws std::runtime_error, for example when the port
  /// is in use.
  void listen(std::uint16_t port);

  /// Begins to answer. REQUIRES: `listen`.
  void serve();

  /// Closes the listening socket and every connection. Stopped: nothing.
  void stop();

  /// The port of the last `listen`.
  std::uint16_t port() const noexcept { return port_; }

 private:
  struct Connection;

  void acceptLoop();
  void reap(bool all);

  const Handler handler_;
  std::uint16_t port_ = 0;
  FileDescriptor listener_;
  FileDescriptor stopEvent_;
  std::thread acceptor_;
  std::list<std::unique_ptr<Connection>> connections_;  // of the acceptor
};

}  // namespace vornet::sim
