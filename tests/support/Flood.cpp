#include "support/Flood.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "dbus/Interface.hpp"
#include "support/BusClient.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

constexpr std::size_t SERIAL = 8;  // where a message has it

bool sendAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const auto sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

std::string receiveLine(int socket) {
  std::string line;
  for (char letter = 0; letter != '\n' && ::recv(socket, &letter, 1, 0) == 1;) line += letter;
  return line;
}

}  // namespace

std::string Flood::callTo(const std::string& name, const std::string& path, const std::string& interface,
                          const std::string& member, GVariant* arguments, bool replies) {
  const GObjectPtr<GDBusMessage> message(g_dbus_message_new_method_call(
      name.c_str(), path.c_str(), interface.empty() ? nullptr : interface.c_str(), member.c_str()));
  g_dbus_message_set_serial(message.get(), 1);
  g_dbus_message_set_byte_order(message.get(), G_DBUS_MESSAGE_BYTE_ORDER_LITTLE_ENDIAN);
  if (!replies) g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
  if (arguments) g_dbus_message_set_body(message.get(), arguments);
  return bytesOf(message);
}

std::string Flood::call(const std::string& member, GVariant* arguments, bool replies) {
  return callTo(dbus::BUS_NAME, dbus::OBJECT_PATH, dbus::INTERFACE, member, arguments, replies);
}

Flood::Flood(const std::string& address) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un place{};
  place.sun_family = AF_UNIX;
  const std::string path = address.substr(address.find('=') + 1);
  path.copy(place.sun_path, sizeof place.sun_path - 1);
  std::string id;  // digits in hexadecimal
  for (const char digit : std::to_string(::getuid())) id.append("3") += digit;
  const bool joined = ::connect(socket_, reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0 &&
                      sendAll(socket_, std::string_view("\0", 1)) && sendAll(socket_, "AUTH EXTERNAL " + id + "\r\n") &&
                      receiveLine(socket_).starts_with("OK") &&
                      sendAll(socket_, "BEGIN\r\n" + callTo("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                            "org.freedesktop.DBus", "Hello", nullptr));
  if (!joined) throw std::runtime_error("cannot join the bus at " + address);
  reader_ = std::thread([this] { read(); });
  if (!waitForAnswers(1)) throw std::runtime_error("the bus does not answer");
  answers_ = 0;
}

Flood::~Flood() {
  ending_ = true;
  ::shutdown(socket_, SHUT_RDWR);
  if (reader_.joinable()) reader_.join();
  ::close(socket_);
}

bool Flood::send(std::string message, std::size_t times) {
  constexpr std::size_t SMALL = 64 * 1024;
  std::string batch;
  for (std::size_t i = 0; i < times; ++i) {
    ++serial_;
    std::memcpy(message.data() + SERIAL, &serial_, sizeof serial_);
    batch += message;
    if (batch.size() < SMALL && i + 1 < times) continue;
    if (!sendAll(socket_, batch)) return false;
    batch.clear();
  }
  return true;
}

std::size_t Flood::errors(const std::string& error) const {
  const std::lock_guard guard(lock_);
  return errors_.contains(error) ? errors_.at(error) : 0;
}

std::size_t Flood::missing(std::size_t count) const {
  return count - std::min<std::size_t>(count, answers_);
}

bool Flood::waitForAnswers(std::size_t count) const {
  return becomesZero([&] { return missing(count); });
}

bool Flood::waitForAnswers(const std::list<Flood>& clients, std::size_t count) {
  return becomesZero([&] {
    std::size_t sum = 0;
    for (const auto& client : clients) sum += client.missing(count);
    return sum;
  });
}

void Flood::read() {
  constexpr std::size_t START = 16;
  std::string bytes;
  std::array<char, 64 * 1024> piece{};
  for (;;) {
    while (deaf_ && !ending_) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    const auto count = ::recv(socket_, piece.data(), piece.size(), 0);
    if (count <= 0) return;
    bytes.append(piece.data(), static_cast<std::size_t>(count));
    std::size_t from = 0;
    while (bytes.size() - from >= START) {
      auto* start = reinterpret_cast<guchar*>(bytes.data() + from);
      const auto size = g_dbus_message_bytes_needed(start, START, nullptr);
      if (size < 0) return;
      if (bytes.size() - from < static_cast<std::size_t>(size)) break;
      constexpr guchar ERROR_TYPE = 3;
      constexpr guchar SIGNAL_TYPE = 4;
      if (start[1] == ERROR_TYPE) {
        const GObjectPtr<GDBusMessage> message(
            g_dbus_message_new_from_blob(start, static_cast<gsize>(size), G_DBUS_CAPABILITY_FLAGS_NONE, nullptr));
        const std::string name = message ? g_dbus_message_get_error_name(message.get()) : "malformed";
        const std::lock_guard guard(lock_);
        ++errors_[name.substr(name.rfind('.') + 1)];
      }
      if (start[1] != SIGNAL_TYPE) ++answers_;
      from += static_cast<std::size_t>(size);
    }
    bytes.erase(0, from);
  }
}

}  // namespace vornet::test
