#include "CallGate.hpp"

#include <algorithm>
#include <cstring>

#include "dbus/Interface.hpp"

namespace vornet::service {
namespace {

constexpr std::string_view BUS = "org.freedesktop.DBus";

// No header of a call that the service knows comes near: the bus bounds names, and the object's path is short.
constexpr std::size_t LARGEST_HEADER = 16 * 1024;

// What the bus itself sends is small.
constexpr std::size_t LARGEST_FROM_BUS = 1024 * 1024;

// Memory of a waiting message beside its bytes.
constexpr std::size_t OVERHEAD = 256;

// No more than this are kept, so that refusing needs little memory; a bus lets a client await 50,000 answers.
constexpr std::size_t MAX_REFUSALS = 200'000;

// Calls with more bytes, or more items than a batch, are long: few of them are in flight at a time.
constexpr std::size_t MOST_SHORT_BYTES = 128 * 1024;

/// How much may be in flight at a time. Short calls: as many as keep the threads busy, and few enough that a new one
/// need not wait for long. Long ones are bounded by what they take in memory too.
struct Window {
  std::size_t shortCalls;
  std::size_t longCalls;
  std::size_t longMemory;
};
constexpr std::array<Window, 4> WINDOWS{{{64, 0, 0}, {8, 2, 24 * 1024 * 1024}, {8, 1, 0}, {16, 0, 0}}};

constexpr std::array<std::size_t, 4> MOST_CALLS{dbus::MAX_OBSERVING_CALLS, dbus::MAX_BADGE_CALLS, dbus::MAX_MENU_CALLS,
                                                dbus::MAX_OTHER_CALLS};

/// Unpacked, a call is held as its bytes, values, texts, URLs and answers.
std::size_t memoryOf(std::size_t bytes, std::size_t items) {
  return 4 * bytes + 600 * items;
}

}  // namespace

void CallGate::open() {
  const std::lock_guard guard(lock_);
  isOpen_ = true;
}

// --- In -------------------------------------------------------------------------------------------------------------

bool CallGate::take(std::string_view bytes) {
  const std::lock_guard guard(lock_);
  while (!bytes.empty()) {
    if (skipping_ > 0) {
      const auto count = std::min<std::uint64_t>(skipping_, bytes.size());
      bytes.remove_prefix(static_cast<std::size_t>(count));
      skipping_ -= count;
      continue;
    }
    const std::size_t count = std::min(wanted_ - incoming_.size(), bytes.size());
    incoming_.append(bytes.substr(0, count));
    bytes.remove_prefix(count);
    while (incoming_.size() == wanted_ && skipping_ == 0)
      if (!advance()) return false;
  }
  return true;
}

/// Reads the part of the message that has come in. False when it is no message.
bool CallGate::advance() {
  switch (stage_) {
    case Stage::start:
      return readStart();
    case Stage::header:
      readHeader();
      return true;
    case Stage::body:
      readBody();
      return true;
  }
  return false;
}

void CallGate::expect(Stage stage, std::size_t bytes) {
  stage_ = stage;
  wanted_ = bytes;
}

bool CallGate::readStart() {
  const auto length = messageLength(incoming_);
  if (!length) return false;
  length_ = *length;
  if (length_.header > LARGEST_HEADER)
    skipRest();  // there is nobody to answer
  else
    expect(Stage::header, static_cast<std::size_t>(length_.header));
  return true;
}

void CallGate::readHeader() {
  const auto header = readMessageHeader(incoming_);
  if (!header) return skipRest();
  message_ = {};
  message_.client = header->sender;
  message_.serial = header->serial;
  message_.isCall = header->type == MessageType::call;
  message_.isAwaited = message_.isCall && header->replyExpected;
  fromBus_ = header->sender == BUS || header->sender.empty();
  if (!isAdmitted(*header)) return skipRest();
  const auto total = static_cast<std::size_t>(length_.total);
  if (!fromBus_) {
    Client& client = clients_[message_.client];
    ++client.calls[message_.lane];
    client.bytes += total + OVERHEAD;
    bytes_ += total + OVERHEAD;
  }
  incoming_.reserve(total);
  expect(Stage::body, total);
}

bool CallGate::isAdmitted(const MessageHeader& header) {
  if (fromBus_) return length_.total <= LARGEST_FROM_BUS;
  if (header.member == "BeginObserving" || header.member == "EndObserving" || header.member == "RequestSnapshot")
    message_.lane = OBSERVING;
  if (header.member == "RequestBadges") message_.lane = BADGES;
  if (header.member == "GetMenu" || header.member == "PerformAction") message_.lane = MENUS;
  if (!message_.isCall) message_.lane = OTHERS;
  const bool isList =
      (message_.lane == BADGES || message_.lane == MENUS) && (header.signature == "as" || header.signature == "sas");
  if (length_.total > (isList ? dbus::MAX_BYTES_OF_LIST : dbus::MAX_BYTES_OF_OTHERS)) {
    refuse(isList ? Reason::tooManyURLs : Reason::tooLarge);
    return false;
  }
  const auto found = clients_.find(message_.client);
  const Client client = found == clients_.end() ? Client() : found->second;
  if (client.calls[message_.lane] >= MOST_CALLS[message_.lane] ||
      !hasRoom(client, static_cast<std::size_t>(length_.total) + OVERHEAD)) {
    refuse(Reason::busy);
    return false;
  }
  return true;
}

bool CallGate::hasRoom(const Client& client, std::size_t bytes) const {
  if (client.bytes + bytes <= RESERVED) return bytes_ + bytes <= MAX_BYTES + MAX_RESERVED_BYTES;
  return bytes_ <= MAX_BYTES && client.bytes + bytes <= MAX_BYTES - bytes_;
}

void CallGate::readBody() {
  message_.bytes = std::move(incoming_);
  incoming_.clear();
  expect(Stage::start, MESSAGE_START);
  if (fromBus_) {
    passing_.push_back(std::move(message_.bytes));
    return;
  }
  const std::string_view bytes = message_.bytes;
  const auto header = readMessageHeader(bytes);
  const auto items = countListedTexts(bytes.substr(static_cast<std::size_t>(length_.header)),
                                      header.value_or(MessageHeader()), dbus::MAX_URLS);
  message_.items = items.value_or(0);
  const bool tooMany = message_.items > dbus::MAX_URLS;
  const bool malformed = !items && bytes.size() > dbus::MAX_BYTES_OF_OTHERS;  // the bus lets none through
  if (tooMany || malformed) {
    Client& client = clients_[message_.client];
    --client.calls[message_.lane];
    client.bytes -= bytes.size() + OVERHEAD;
    bytes_ -= bytes.size() + OVERHEAD;
    refuse(tooMany ? Reason::tooManyURLs : Reason::tooLarge);
    return forgetIfIdle(message_.client);
  }
  message_.isLong = (message_.lane == BADGES || message_.lane == MENUS) &&
                    (message_.items > dbus::BATCH || bytes.size() > MOST_SHORT_BYTES);
  message_.memory = memoryOf(bytes.size(), message_.items);
  if (message_.isCall && !message_.isAwaited) giveSerial(message_);
  const std::string client = message_.client;
  const Lane lane = message_.lane;
  waiting_[lane].add(client, 1 + message_.items + bytes.size() / 256, std::move(message_));
}

/// Gives a serial that no client has reached, in case an answer is sent all the same.
void CallGate::giveSerial(Message& message) {
  constexpr std::uint32_t FIRST = 0x8000'0000;
  constexpr std::size_t PLACE = 8;
  lastUnawaited_ = std::max(FIRST, lastUnawaited_ + 1);
  message.serial = lastUnawaited_;
  const bool bigEndian = message.bytes.front() == 'B';
  for (std::size_t i = 0; i < sizeof message.serial; ++i) {
    const std::size_t shift = 8 * (bigEndian ? 3 - i : i);
    message.bytes[PLACE + i] = static_cast<char>(message.serial >> shift & 0xFF);
  }
}

void CallGate::refuse(Reason reason) {
  if (!message_.isAwaited || refusals_.size() >= MAX_REFUSALS) return;
  refusals_.add(message_.client, 1, {message_.client, message_.serial, reason});
}

void CallGate::skipRest() {
  skipping_ = length_.total - incoming_.size();
  incoming_.clear();
  expect(Stage::start, MESSAGE_START);
}

// --- Out ------------------------------------------------------------------------------------------------------------

std::size_t CallGate::give(char* buffer, std::size_t size) {
  const std::lock_guard guard(lock_);
  if (given_ == outgoing_.size() && !choose()) return 0;
  const std::size_t count = std::min(size, outgoing_.size() - given_);
  std::memcpy(buffer, outgoing_.data() + given_, count);
  given_ += count;
  if (given_ == outgoing_.size()) outgoing_ = {};
  if (outgoing_.empty()) given_ = 0;
  return count;
}

bool CallGate::hasSomething() const {
  const std::lock_guard guard(lock_);
  if (given_ < outgoing_.size() || !passing_.empty()) return true;
  const auto may = [this](const std::string& client, const Message& message) { return mayGo(client, message); };
  return isOpen_ && std::any_of(waiting_.begin(), waiting_.end(), [&](const auto& lane) { return lane.has(may); });
}

bool CallGate::hasUnansweredCalls() const {
  const std::lock_guard guard(lock_);
  return !clients_.empty();
}

/// A client may have as many calls in flight as there are free places: one alone gets half of them, and a client
/// without any always gets one.
bool CallGate::mayGo(const std::string& name, const Message& message) const {
  if (!message.isCall) return true;
  const Client& client = clients_.find(name)->second;
  const Window& window = WINDOWS[message.lane];
  const InFlight& all = inFlight_[message.lane];
  if (!message.isLong) return client.inFlight[message.lane].shortCalls < window.shortCalls - all.shortCalls;
  if (all.longCalls == 0) return true;
  return all.longCalls < window.longCalls && client.inFlight[message.lane].longCalls == 0 &&
         all.longMemory + message.memory <= window.longMemory;
}

/// Chooses the message to pass on next.
bool CallGate::choose() {
  if (!passing_.empty()) {
    outgoing_ = std::move(passing_.front());
    passing_.pop_front();
    return true;
  }
  if (!isOpen_) return false;
  for (std::size_t i = 0; i < LANES; ++i) {
    auto& lane = waiting_[(nextLane_ + i) % LANES];
    auto next = lane.take([this](const std::string& client, const Message& message) { return mayGo(client, message); });
    if (!next) continue;
    nextLane_ = (nextLane_ + i + 1) % LANES;
    goes(*std::move(next));
    return true;
  }
  return false;
}

void CallGate::goes(Message message) {
  Client& client = clients_[message.client];
  client.bytes -= message.bytes.size() + OVERHEAD;
  bytes_ -= message.bytes.size() + OVERHEAD;
  if (message.isCall) {
    for (InFlight* inFlight : {&client.inFlight[message.lane], &inFlight_[message.lane]}) {
      ++(message.isLong ? inFlight->longCalls : inFlight->shortCalls);
      if (message.isLong) inFlight->longMemory += message.memory;
    }
    calls_.emplace(CallKey(message.client, message.serial, message.isAwaited),
                   Given{message.lane, message.isLong, message.memory});
  } else {
    --client.calls[message.lane];
    forgetIfIdle(message.client);
  }
  outgoing_ = std::move(message.bytes);
}

void CallGate::finished(const CallKey& key) {
  const std::lock_guard guard(lock_);
  const auto call = calls_.find(key);
  if (call == calls_.end()) return;
  const std::string name = std::get<std::string>(key);
  const Given given = call->second;
  calls_.erase(call);
  Client& client = clients_[name];
  --client.calls[given.lane];
  for (InFlight* inFlight : {&client.inFlight[given.lane], &inFlight_[given.lane]}) {
    --(given.isLong ? inFlight->longCalls : inFlight->shortCalls);
    if (given.isLong) inFlight->longMemory -= given.memory;
  }
  forgetIfIdle(name);
}

void CallGate::forgetIfIdle(const std::string& client) {
  const auto found = clients_.find(client);
  if (found == clients_.end()) return;
  const auto& calls = found->second.calls;
  if (std::all_of(calls.begin(), calls.end(), [](std::size_t count) { return count == 0; })) clients_.erase(found);
}

// --- Refusals -------------------------------------------------------------------------------------------------------

std::optional<CallGate::Refusal> CallGate::nextRefusal() {
  const std::lock_guard guard(lock_);
  return refusals_.take([](const std::string&, const Refusal&) { return true; });
}

bool CallGate::hasRefusals() const {
  const std::lock_guard guard(lock_);
  return refusals_.size() > 0;
}

}  // namespace vornet::service
