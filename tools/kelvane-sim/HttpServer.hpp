#pragma once

#include <functional>
#include <memory>
#include <string>

namespace vornet::sim {

struct HttpRequest {
  std::string method;  ///< "POST"
  std::string target;  ///< "/get_icons_for_folder"
  std::string body;
};

/// How a reply goes out.
enum class Delivery {
  whole,
  stall,        ///< not at all; held until the client leaves
  drip,         ///< headers, then blanks without end, one each 100 ms
  dripHeaders,  ///< status line, then a header without end, one byte each 100 ms
  reset,        ///< headers and half of the body, then RST
};

struct HttpReply {
  int status = 200;
  std::string body;  ///< JSON; sent as application/json
  Delivery delivery = Delivery::whole;
};

/// An HTTP/1.1 server on 127.0.0.1:8806 that can also misbehave. It has one thread; on it `handler` is called.
/// Operations belong to one other thread at a time.
class HttpServer {
 public:
  using Handler = std::function<HttpReply(const HttpRequest&)>;

  explicit HttpServer(Handler handler);
  ~HttpServer();

  /// Takes the port; clients can connect, and wait. Throws std::runtime_error, for example when the port is in use.
  void listen();

  /// Begins to answer. REQUIRES: `listen`.
  void serve();

  /// Frees the port and drops every connection at once, whatever the clients do. Stopped: nothing.
  void stop();

 private:
  struct Impl;

  const Handler handler_;
  std::unique_ptr<Impl> impl_;  // while it listens
};

}  // namespace vornet::sim
