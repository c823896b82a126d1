#include "MessageHeader.hpp"

namespace vornet::service {
namespace {

constexpr std::size_t FIELDS = 16;  // where the header's fields begin
constexpr std::size_t STRUCT_ALIGNMENT = 8;
constexpr unsigned char NO_REPLY_EXPECTED = 1;

// The longest message, and the longest array, that D-Bus allows.
constexpr std::uint64_t LONGEST_MESSAGE = 128ULL * 1024 * 1024;
constexpr std::uint32_t LONGEST_ARRAY = 64U * 1024 * 1024;

enum Field : unsigned char { MEMBER = 3, SENDER = 7, SIGNATURE = 8 };

// The type of each known field, at the place of its number, as D-Bus defines them under "Header Fields".
constexpr std::string_view TYPES_OF_FIELDS = " osssussgu";

constexpr std::uint64_t aligned(std::uint64_t position, std::uint64_t to) {
  return (position + to - 1) / to * to;
}

/// Reads D-Bus values one after another. After the first malformed one every read gives none.
class Reader {
 public:
  Reader(std::string_view bytes, bool bigEndian) : bytes_(bytes), bigEndian_(bigEndian) {}

  std::size_t position() const { return position_; }

  bool align(std::size_t to) { return skipTo(aligned(position_, to)); }

  std::optional<unsigned char> byte() {
    if (position_ >= bytes_.size()) return std::nullopt;
    return static_cast<unsigned char>(bytes_[position_++]);
  }

  std::optional<std::uint32_t> number() {
    if (!align(4) || bytes_.size() - position_ < 4) return std::nullopt;
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) {
      const std::size_t shift = 8 * (bigEndian_ ? 3 - i : i);
      value |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes_[position_ + i])) << shift;
    }
    position_ += 4;
    return value;
  }

  std::optional<std::string_view> text() {
    const auto length = number();
    return length ? terminated(*length) : std::nullopt;
  }

  std::optional<std::string_view> signature() {
    const auto length = byte();
    return length ? terminated(*length) : std::nullopt;
  }

  bool skip(std::size_t count) { return skipTo(static_cast<std::uint64_t>(position_) + count); }

 private:
  bool skipTo(std::uint64_t position) {
    if (position > bytes_.size()) return false;
    position_ = static_cast<std::size_t>(position);
    return true;
  }

  std::optional<std::string_view> terminated(std::size_t length) {
    if (bytes_.size() - position_ <= length || bytes_[position_ + length] != '\0') return std::nullopt;
    const auto result = bytes_.substr(position_, length);
    if (result.find('\0') != std::string_view::npos) return std::nullopt;  // another reader would take it for the end
    position_ += length + 1;
    return result;
  }

  std::string_view bytes_;
  bool bigEndian_;
  std::size_t position_ = 0;
};

/// The value of the header's field `field`, where it is a text; otherwise empty. None when it is of a type that no
/// field has, or not of the known field's.
std::optional<std::string_view> readFieldValue(Reader& reader, unsigned char field) {
  const auto type = reader.signature();
  if (!type || type->size() != 1) return std::nullopt;
  const bool isKnown = field > 0 && field < TYPES_OF_FIELDS.size();
  if (isKnown && type->front() != TYPES_OF_FIELDS[field]) return std::nullopt;
  switch (type->front()) {
    case 's':
    case 'o':
      return reader.text();
    case 'g':
      return reader.signature();
    case 'u':
    case 'i':
    case 'b':
      if (!reader.number()) return std::nullopt;
      return std::string_view();
    case 'y':
      if (!reader.byte()) return std::nullopt;
      return std::string_view();
    case 'x':
    case 't':
    case 'd':
      if (!reader.align(8) || !reader.skip(8)) return std::nullopt;
      return std::string_view();
    default:
      return std::nullopt;
  }
}

}  // namespace

std::optional<MessageLength> messageLength(std::string_view start) {
  if (start.size() < MESSAGE_START) return std::nullopt;
  const bool bigEndian = start[0] == 'B';
  if (!bigEndian && start[0] != 'l') return std::nullopt;
  if (start[3] != 1) return std::nullopt;  // the protocol's version
  Reader reader(start, bigEndian);
  reader.skip(4);
  const auto body = reader.number();
  reader.number();  // serial
  const auto fields = reader.number();
  if (!body || !fields || *fields > LONGEST_ARRAY) return std::nullopt;
  MessageLength length;
  length.header = aligned(FIELDS + static_cast<std::uint64_t>(*fields), STRUCT_ALIGNMENT);
  length.total = length.header + *body;
  if (length.total > LONGEST_MESSAGE) return std::nullopt;
  return length;
}

std::optional<MessageHeader> readMessageHeader(std::string_view header) {
  const auto length = messageLength(header);
  if (!length || header.size() < length->header) return std::nullopt;
  MessageHeader result;
  result.bigEndian = header[0] == 'B';
  const auto type = static_cast<unsigned char>(header[1]);
  if (type < 1 || type > 4) return std::nullopt;
  result.type = static_cast<MessageType>(type);
  result.replyExpected = (static_cast<unsigned char>(header[2]) & NO_REPLY_EXPECTED) == 0;

  Reader start(header, result.bigEndian);
  start.skip(8);
  result.serial = start.number().value_or(0);
  const std::size_t end = FIELDS + start.number().value_or(0);

  Reader reader(header.substr(0, end), result.bigEndian);
  reader.skip(FIELDS);
  while (reader.position() < end) {
    if (!reader.align(STRUCT_ALIGNMENT)) return std::nullopt;
    const auto field = reader.byte();
    const auto value = field ? readFieldValue(reader, *field) : std::nullopt;
    if (!value) return std::nullopt;
    if (*field == MEMBER) result.member = *value;
    if (*field == SENDER) result.sender = *value;
    if (*field == SIGNATURE) result.signature = *value;
  }
  return result;
}

std::optional<std::size_t> countListedTexts(std::string_view body, const MessageHeader& header, std::size_t most) {
  if (header.signature != "as" && header.signature != "sas") return std::nullopt;
  Reader reader(body, header.bigEndian);
  if (header.signature == "sas" && !reader.text()) return std::nullopt;
  const auto length = reader.number();
  if (!length || body.size() - reader.position() < *length) return std::nullopt;
  const std::size_t end = reader.position() + *length;
  std::size_t count = 0;
  for (; reader.position() < end && count <= most; ++count)
    if (!reader.text()) return std::nullopt;
  return count;
}

}  // namespace vornet::service
