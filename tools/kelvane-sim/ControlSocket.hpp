#pragma once

#include <functional>
#include <string>
#include <thread>

#include "kelvane-sim/FileDescriptor.hpp"

namespace vornet::sim {

/// How a running program is spoken to: the socket `control.sock` in its state folder, which only its user can reach. It
/// stays reachable while the HTTP port refuses connections. One line in ("fault stall:10"), one line out ("ok", or
/// "error: …").
class ControlSocket {
 public:
  static constexpr const char* FILE_NAME = "control.sock";
  /// Takes a line, returns the answer. Called on the socket's thread.
  using Handler = std::function<std::string(const std::string& line)>;

  /// Listens in the folder `state`, in place of a socket left behind there. Throws std::runtime_error.
  ControlSocket(const std::string& state, Handler handler);
  /// Ends the thread and removes the socket.
  ~ControlSocket();

  /// Sends `line` to the program whose state folder is `state` and returns its answer. Throws std::runtime_error when
  /// none is running there, and for more than one line or 4,000 bytes.
  static std::string ask(const std::string& state, const std::string& line);

 private:
  void serve();

  const std::string path_;
  const Handler handler_;
  FileDescriptor socket_;
  FileDescriptor stopEvent_;
  std::thread thread_;
};

}  // namespace vornet::sim
