#pragma once

#include <gio/gio.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace vornet::test {

/// A client of a bus at the level of bytes, for sending faster than any library does. Reads and counts what it is sent
/// on another thread; sends from one thread at a time.
class Flood {
 public:
  /// Joins the bus at `address`, which is "unix:path=…". Throws std::runtime_error when that fails.
  explicit Flood(const std::string& address);
  /// Leaves the bus, whatever is still to be answered.
  ~Flood();
  Flood(const Flood&) = delete;
  Flood& operator=(const Flood&) = delete;

  /// A call as bytes. `interface` may be empty, `arguments` null. `replies`: whether an answer is awaited.
  static std::string callTo(const std::string& name, const std::string& path, const std::string& interface,
                            const std::string& member, GVariant* arguments, bool replies = true);
  /// A call of the extension's interface.
  static std::string call(const std::string& member, GVariant* arguments, bool replies = true);

  /// Sends `message` so many times, each with a different serial. False when the bus hung up.
  bool send(std::string message, std::size_t times);

  /// How many answers have come: all, and the errors with the name that ends in `error`.
  std::size_t answers() const { return answers_; }
  std::size_t errors(const std::string& error) const;

  /// Reads nothing from now on.
  void becomeDeaf() { deaf_ = true; }

  /// Waits until so many answers have come; false when no new one comes in the test's patience.
  bool waitForAnswers(std::size_t count) const;

  /// The same for each of `clients`, where a new answer to any of them counts: they take turns, and one alone may wait
  /// for long.
  static bool waitForAnswers(const std::list<Flood>& clients, std::size_t count);

 private:
  std::size_t missing(std::size_t count) const;
  void read();

  int socket_ = -1;
  std::uint32_t serial_ = 1;
  std::atomic<std::size_t> answers_{0};
  std::atomic<bool> deaf_{false};
  std::atomic<bool> ending_{false};
  mutable std::mutex lock_;
  std::map<std::string, std::size_t> errors_;  // by the name's last part
  std::thread reader_;
};

}  // namespace vornet::test
