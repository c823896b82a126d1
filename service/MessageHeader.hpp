#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

/// The framing of D-Bus messages: how long a message is, who sent it and what it asks for, read from its first bytes
/// before anything is copied. Pure functions over bytes of any content; any thread.
namespace vornet::service {

/// The bytes that every message begins with. They give its length.
inline constexpr std::size_t MESSAGE_START = 16;

struct MessageLength {
  std::uint64_t header = 0;  ///< bytes up to the body, padding included
  std::uint64_t total = 0;   ///< bytes of the whole message
};

/// The length of the message that begins with `start`, of MESSAGE_START bytes or more; none when it is no D-Bus
/// message.
std::optional<MessageLength> messageLength(std::string_view start);

enum class MessageType : std::uint8_t { call = 1, reply = 2, error = 3, signal = 4 };

/// The contents of a message's header. The texts are views into the bytes that it was read from; absent ones are empty.
struct MessageHeader {
  MessageType type = MessageType::call;
  bool bigEndian = false;
  bool replyExpected = false;
  std::uint32_t serial = 0;
  std::string_view member;
  std::string_view sender;
  std::string_view signature;
};

/// Reads `header`, the bytes of a message up to its body. None when it is malformed, of an unknown type, or holds a
/// known field of another type than that field's, or a field of a type that no known field has.
std::optional<MessageHeader> readMessageHeader(std::string_view header);

/// How many texts the list in `body` has; `body` belongs to a message of the signature "as" or, with a text before the
/// list, "sas". None for other signatures, and when `body` is malformed. Counts no further than `most` + 1.
std::optional<std::size_t> countListedTexts(std::string_view body, const MessageHeader& header, std::size_t most);

}  // namespace vornet::service
