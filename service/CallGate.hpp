#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "FairQueue.hpp"
#include "MessageHeader.hpp"

namespace vornet::service {

/// Takes the bytes that the bus sends and passes them on message by message, so that no client keeps the others waiting
/// or fills the memory. Calls wait here, as the bytes they came in, until the service has room for them; clients take
/// turns. Calls beyond a client's limits are refused, not stored.
///
/// The bus's own messages pass at once. Any thread.
class CallGate {
 public:
  /// Bytes of all calls that wait. A client may have as many as are free; beyond that, each has RESERVED bytes of a
  /// separate store, so that a client that asks for little is served while others fill the rest.
  static constexpr std::size_t MAX_BYTES = 12 * 1024 * 1024;
  static constexpr std::size_t RESERVED = 64 * 1024;
  static constexpr std::size_t MAX_RESERVED_BYTES = 4 * 1024 * 1024;

  enum class Reason : std::uint8_t {
    busy,         ///< too many calls of this client wait: to be retried
    tooManyURLs,  ///< more than any call may have, or longer ones
    tooLarge,     ///< larger than any call of its kind may be
  };
  struct Refusal {
    std::string client;
    std::uint32_t serial = 0;
    Reason reason = Reason::busy;
  };

  /// Clients' messages wait until open() is called.
  void open();

  /// Takes `bytes` from the bus, a piece of the stream of messages that follows the authentication.
  /// False when they are no D-Bus messages; the stream cannot be used then.
  bool take(std::string_view bytes);

  /// Moves at most `size` bytes of the messages that may pass to `buffer`. How many; 0 when none may pass now.
  std::size_t give(char* buffer, std::size_t size);

  /// True if give() would move any bytes.
  bool hasSomething() const;

  /// `client`'s call was answered, which makes room for others. Unknown calls are ignored.
  void answered(const std::string& client, std::uint32_t serial) { finished({client, serial, true}); }

  /// The same for a call that awaited no answer and is done with. The gate numbers such calls itself: the clients' own
  /// serials need not differ.
  void doneWith(const std::string& client, std::uint32_t serial) { finished({client, serial, false}); }

  /// True if calls wait or are in flight.
  bool hasUnansweredCalls() const;

  /// The next refusal to be sent; clients take turns here too.
  std::optional<Refusal> nextRefusal();
  bool hasRefusals() const;

 private:
  enum Lane : std::uint8_t { OBSERVING, BADGES, MENUS, OTHERS, LANES };

  struct Message {
    std::string bytes;
    std::string client;
    std::uint32_t serial = 0;
    Lane lane = OTHERS;
    bool isCall = true;
    bool isAwaited = true;
    bool isLong = false;
    std::size_t items = 0;   // that its list has
    std::size_t memory = 0;  // what it takes once it is unpacked, roughly
  };
  /// Calls of one lane that were passed on and are not finished.
  struct InFlight {
    std::size_t shortCalls = 0;
    std::size_t longCalls = 0;
    std::size_t longMemory = 0;
  };
  struct Client {
    std::array<std::size_t, LANES> calls{};  // waiting and in flight
    std::array<InFlight, LANES> inFlight{};
    std::size_t bytes = 0;  // waiting
  };
  struct Given {
    Lane lane;
    bool isLong;
    std::size_t memory;
  };

  using CallKey = std::tuple<std::string, std::uint32_t, bool>;  // client, serial, whether an answer is awaited

  enum class Stage : std::uint8_t { start, header, body };

  bool advance();
  bool readStart();
  void readHeader();
  void readBody();
  bool isAdmitted(const MessageHeader& header);
  void giveSerial(Message& message);
  void refuse(Reason reason);
  void skipRest();
  void expect(Stage stage, std::size_t bytes);

  bool hasRoom(const Client& client, std::size_t bytes) const;
  bool mayGo(const std::string& client, const Message& message) const;
  bool choose();
  void goes(Message message);
  void finished(const CallKey& call);
  void forgetIfIdle(const std::string& client);

  mutable std::mutex lock_;  // guards what follows
  bool isOpen_ = false;

  // The message that is coming in.
  Stage stage_ = Stage::start;
  std::string incoming_;
  std::size_t wanted_ = MESSAGE_START;  // how long `incoming_` is to become
  std::uint64_t skipping_ = 0;          // bytes to throw away
  MessageLength length_;
  Message message_;
  bool fromBus_ = false;

  // Waiting messages, and the one that is being passed on.
  std::deque<std::string> passing_;  // from the bus itself
  std::array<FairQueue<Message>, LANES> waiting_;
  std::size_t nextLane_ = 0;
  std::string outgoing_;
  std::size_t given_ = 0;  // bytes of `outgoing_`

  std::map<std::string, Client> clients_;
  std::array<InFlight, LANES> inFlight_{};
  std::multimap<CallKey, Given> calls_;  // in flight
  std::uint32_t lastUnawaited_ = 0;
  std::size_t bytes_ = 0;
  FairQueue<Refusal> refusals_;
};

}  // namespace vornet::service
