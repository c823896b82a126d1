#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vornet::test {

/// A request as it came over the wire.
struct WireRequest {
  std::string method;
  std::string target;
  std::vector<std::pair<std::string, std::string>> headers;  ///< in order, names as written
  std::string body;

  /// The values of the header `name`, whatever its case.
  std::vector<std::string> header(const std::string& name) const;
};

/// A server's behaviour for a request.
struct WireReply {
  enum class Manner {
    whole,         ///< send it and keep the connection
    stall,         ///< send nothing, for ever
    drip,          ///< send it byte by byte, slowly, for ever: no end of the headers is ever reached in time
    dripBody,      ///< send the headers, then the body like that
    stallMidBody,  ///< announce the body, send half of it, then nothing
    resetMidBody,  ///< announce the body, send half of it, then reset the connection
    close,         ///< close the connection without a byte
    reset,         ///< reset it without a byte
  };
  int status = 200;
  std::string body{};
  std::vector<std::pair<std::string, std::string>> headers{};
  Manner manner = Manner::whole;
  std::string raw{};  ///< sent as it is instead of all the above; then the connection is closed, or kept on `stall`
  std::chrono::milliseconds silence{0};  ///< how long nothing at all happens first
};

/// A private server on 127.0.0.1, written at the level of bytes so that it can misbehave. Requests may be read from any
/// thread. Stops at once, whatever its connections are doing.
class LoopbackServer {
 public:
  using Answer = std::function<WireReply(const WireRequest&)>;

  static constexpr int SYNC_APPLICATION_PORT = 8806;

  /// Connections are served at the same time, or each only when the one before has ended.
  enum class Serving { together, oneByOne };

  /// Listens on `port` (0: any free one) and answers each request with `answer`, called on the server's threads. Throws
  /// std::runtime_error when the port is taken.
  explicit LoopbackServer(Answer answer, int port = SYNC_APPLICATION_PORT, Serving serving = Serving::together);
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  int port() const { return port_; }
  std::string url(const std::string& target) const;

  std::vector<WireRequest> requests() const;

  /// How many connections have been taken.
  std::size_t connections() const;

  /// Waits until at least `count` requests have come; false after half a minute without.
  bool waitForRequests(std::size_t count) const;

  /// Answers with `answer` from now on.
  void setAnswer(Answer answer);

 private:
  void acceptConnections();
  void serveAndClose(int connection) noexcept;
  void serve(int connection);
  bool send(int connection, const std::string& bytes);
  void sendReply(int connection, const WireReply& reply);
  void waitUntilStopped();

  const Serving serving_;
  int listener_ = -1;
  int port_ = 0;
  mutable std::mutex lock_;
  mutable std::condition_variable changed_;
  bool stopping_ = false;
  Answer answer_;
  std::vector<WireRequest> requests_;
  std::size_t taken_ = 0;
  std::vector<int> connections_;           // the open ones
  std::vector<std::future<void>> served_;  // a thread for each connection
  std::thread acceptor_;
};

}  // namespace vornet::test
