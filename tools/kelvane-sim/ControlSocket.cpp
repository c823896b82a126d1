#include "kelvane-sim/ControlSocket.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

namespace vornet::sim {

namespace {

constexpr std::size_t LONGEST_LINE = 4096;

// The socket's address by way of the open folder: a state folder's own path may be longer than a socket address can be.
struct Address {
  explicit Address(const std::string& state) : folder(::open(state.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    value.sun_family = AF_UNIX;
    std::snprintf(value.sun_path, sizeof value.sun_path, "/proc/self/fd/%d/%s", folder.get(), ControlSocket::FILE_NAME);
  }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&value); }

  FileDescriptor folder;
  sockaddr_un value{};
};

std::string readLine(int socket) {
  std::string line;
  std::array<char, 512> chunk{};
  while (line.find('\n') == std::string::npos && line.size() < LONGEST_LINE) {
    const ssize_t length = ::recv(socket, chunk.data(), chunk.size(), 0);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) break;
    line.append(chunk.data(), static_cast<std::size_t>(length));
  }
  return line.substr(0, line.find('\n'));
}

void limitWaits(int socket) {
  const timeval limit{5, 0};
  ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

void sendLine(int socket, const std::string& line) {
  const std::string text = line + "\n";
  ::send(socket, text.data(), text.size(), MSG_NOSIGNAL);
}

}  // namespace

ControlSocket::ControlSocket(const std::string& state, Handler handler)
    : path_(state + "/" + FILE_NAME),
      handler_(std::move(handler)),
      socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      stopEvent_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  const Address address(state);
  struct stat info{};
  if (::lstat(path_.c_str(), &info) == 0 && S_ISSOCK(info.st_mode)) ::unlink(path_.c_str());
  if (::bind(socket_.get(), address.get(), sizeof address.value) != 0 || ::listen(socket_.get(), 8) != 0)
    throw std::runtime_error("cannot listen on " + path_ + ": " + std::generic_category().message(errno));
  ::chmod(path_.c_str(), 0600);
  thread_ = std::thread([this] { serve(); });
}

ControlSocket::~ControlSocket() {
  ::eventfd_write(stopEvent_.get(), 1);
  thread_.join();
  ::unlink(path_.c_str());
}

void ControlSocket::serve() {
  for (;;) {
    std::array<pollfd, 2> waits{{{stopEvent_.get(), POLLIN, 0}, {socket_.get(), POLLIN, 0}}};
    ::poll(waits.data(), waits.size(), -1);
    if (waits[0].revents != 0) return;
    const FileDescriptor client(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client) continue;
    // A client that says nothing must not hold up the end of the program.
    std::array<pollfd, 2> line{{{stopEvent_.get(), POLLIN, 0}, {client.get(), POLLIN, 0}}};
    ::poll(line.data(), line.size(), 5000);
    if (line[0].revents != 0) return;
    if (line[1].revents == 0) continue;
    limitWaits(client.get());
    sendLine(client.get(), handler_(readLine(client.get())));
  }
}

std::string ControlSocket::ask(const std::string& state, const std::string& line) {
  if (line.size() >= LONGEST_LINE || line.find('\n') != std::string::npos)
    throw std::runtime_error("what is to be sent is too long, or has more than one line");
  const Address address(state);
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::connect(socket.get(), address.get(), sizeof address.value) != 0)
    throw std::runtime_error("no kelvane-sim is running with the state folder " + state);
  limitWaits(socket.get());
  sendLine(socket.get(), line);
  std::string answer = readLine(socket.get());
  if (answer.empty()) throw std::runtime_error("no answer from kelvane-sim");
  return answer;
}

}  // namespace vornet::sim
