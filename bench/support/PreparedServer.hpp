#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace vornet::bench {

/// The sync application's side of the loopback port, as fast as such a server can be: one thread answers each request
/// with a prepared reply.
class PreparedServer {
 public:
  using Reply = std::shared_ptr<const std::string>;
  /// The reply's body for the body of a request; called on the server's thread.
  using Answer = std::function<Reply(const std::string& request)>;

  static constexpr int PORT = 8806;

  /// Listens on PORT; waits up to a minute, and says so, while another program holds it. Throws std::runtime_error when
  /// that does not help.
  explicit PreparedServer(Answer answer);
  ~PreparedServer();
  PreparedServer(const PreparedServer&) = delete;
  PreparedServer& operator=(const PreparedServer&) = delete;

 private:
  struct Connection {
    int socket;
    std::string received;
  };

  void run();
  bool serve(Connection& connection);

  Answer answer_;
  int listener_ = -1;
  int stop_ = -1;  // an event descriptor: readable once the server is to end
  std::vector<Connection> connections_;
  std::thread thread_;
};

}  // namespace vornet::bench
