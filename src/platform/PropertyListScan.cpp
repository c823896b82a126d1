// Checks property lists before a reader takes them: readers recurse into nested objects and copy shared ones, so
// that few bytes can overflow the stack or fill the memory.
#include "platform/PropertyListScan.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/Foundation.hpp"

namespace vornet::platform {
namespace {

constexpr std::string_view BINARY_HEADER = "bplist00";

/// Counts down the objects and bytes that a list may still hold.
class Budget {
 public:
  bool takeObject() { return take(objects_, 1); }
  bool takeBytes(std::uint64_t count) { return take(bytes_, count); }

 private:
  static bool take(std::uint64_t& left, std::uint64_t count) {
    if (count > left) return false;
    left -= count;
    return true;
  }
  std::uint64_t objects_ = MAX_PROPERTY_LIST_OBJECTS;
  std::uint64_t bytes_ = MAX_PROPERTY_LIST_EXPANSION;
};

// --- Binary ---------------------------------------------------------------------------------------------------------

/// Walks the objects of a binary list from its top, as a reader does: along every reference.
class BinaryScan {
 public:
  explicit BinaryScan(std::string_view bytes) : bytes_(bytes) {}

  bool passes() {
    if (!readTrailer() || !visit(top_, false)) return false;
    while (!open_.empty()) {
      Container& container = open_.back();
      if (container.references == 0) {
        open_.pop_back();
        continue;
      }
      const std::uint64_t index = integer(container.next, referenceSize_);
      container.next += referenceSize_;
      --container.references;
      const bool key = container.keys > 0;
      if (key) --container.keys;
      if (!visit(index, key)) return false;  // `container` may be gone
    }
    return true;
  }

 private:
  struct Container {
    std::uint64_t next;        // where the next reference is
    std::uint64_t references;  // left
    std::uint64_t keys;        // how many of these are a dictionary's keys
  };

  static constexpr std::uint64_t TRAILER = 32;

  /// The big-endian integer of `size` bytes at `at`, all within the list; `size` is 8 at most.
  std::uint64_t integer(std::uint64_t at, std::uint64_t size) const {
    std::uint64_t value = 0;
    for (std::uint64_t i = 0; i < size; ++i) value = value << 8 | byte(at + i);
    return value;
  }
  std::uint8_t byte(std::uint64_t at) const { return static_cast<std::uint8_t>(bytes_[at]); }

  /// True if `count` units of `size` bytes fit at `at`, before the table of offsets.
  bool fits(std::uint64_t at, std::uint64_t count, std::uint64_t size) const {
    return at <= table_ && count <= (table_ - at) / size;
  }

  bool readTrailer() {
    if (bytes_.size() < BINARY_HEADER.size() + TRAILER) return false;
    const std::uint64_t trailer = bytes_.size() - TRAILER;
    offsetSize_ = byte(trailer + 6);
    referenceSize_ = byte(trailer + 7);
    count_ = integer(trailer + 8, 8);
    top_ = integer(trailer + 16, 8);
    table_ = integer(trailer + 24, 8);
    return offsetSize_ >= 1 && offsetSize_ <= 8 && referenceSize_ >= 1 && referenceSize_ <= 8 &&
           count_ <= MAX_PROPERTY_LIST_OBJECTS && table_ >= BINARY_HEADER.size() && table_ <= trailer &&
           count_ <= (trailer - table_) / offsetSize_;
  }

  /// Takes the object `index`: checks it, and opens it when it is a container.
  bool visit(std::uint64_t index, bool asKey) {
    if (index >= count_ || !budget_.takeObject()) return false;
    std::uint64_t at = integer(table_ + index * offsetSize_, offsetSize_);
    if (at < BINARY_HEADER.size() || !fits(at, 1, 1)) return false;
    const unsigned kind = byte(at) >> 4;
    const unsigned low = byte(at) & 0xF;
    ++at;
    if (asKey && kind != 0x5 && kind != 0x6) return false;
    switch (kind) {
      case 0x0:  // null, booleans
        return true;
      case 0x1:  // integer, 16 bytes at most
        return low <= 4 && fits(at, 1, std::uint64_t{1} << low);
      case 0x2:  // real
        return low <= 3 && fits(at, 1, std::uint64_t{1} << low);
      case 0x3:  // date
        return fits(at, 1, 8);
      case 0x8:  // identifier
        return fits(at, 1, low + std::uint64_t{1});
      default:
        break;
    }
    const auto count = countAt(at, low);
    if (!count) return false;
    switch (kind) {
      case 0x4:  // data
        return fits(at, *count, 1) && budget_.takeBytes(*count);
      case 0x5:  // text in ASCII
        return fits(at, *count, 1) && budget_.takeBytes(*count) && isASCII(bytes_.substr(at, *count));
      case 0x6:  // text in UTF-16
        return fits(at, *count, 2) && budget_.takeBytes(2 * *count) && isUTF16(at, *count);
      case 0xA:  // array
      case 0xC:  // set
        return open(at, *count, 0);
      case 0xD:  // dictionary: the keys, then the values
        return fits(at, *count, 2 * referenceSize_) && open(at, 2 * *count, *count);
      default:
        return false;
    }
  }

  bool open(std::uint64_t at, std::uint64_t references, std::uint64_t keys) {
    if (open_.size() >= MAX_PROPERTY_LIST_DEPTH || !fits(at, references, referenceSize_)) return false;
    open_.push_back({at, references, keys});
    return true;
  }

  /// The count of an object whose marker ends in `low`; moves `at` behind it. 15: an integer object follows.
  std::optional<std::uint64_t> countAt(std::uint64_t& at, unsigned low) const {
    if (low != 0xF) return low;
    if (!fits(at, 1, 1) || byte(at) >> 4 != 0x1 || (byte(at) & 0xF) > 3) return std::nullopt;
    const std::uint64_t size = std::uint64_t{1} << (byte(at) & 0xF);
    ++at;
    if (!fits(at, 1, size)) return std::nullopt;
    const std::uint64_t count = integer(at, size);
    at += size;
    return count;
  }

  // No text may hold a NUL: a reader with C strings takes the text before it for the whole, a folder's path too.

  static bool isASCII(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c != 0 && static_cast<unsigned char>(c) < 0x80; });
  }

  /// True if every surrogate among the `count` units at `at` has its other half.
  bool isUTF16(std::uint64_t at, std::uint64_t count) const {
    for (std::uint64_t i = 0; i < count; ++i) {
      const auto unit = integer(at + 2 * i, 2);
      if (unit == 0) return false;
      if (unit < 0xD800 || unit > 0xDFFF) continue;
      if (unit > 0xDBFF || ++i == count) return false;
      const auto second = integer(at + 2 * i, 2);
      if (second < 0xDC00 || second > 0xDFFF) return false;
    }
    return true;
  }

  const std::string_view bytes_;
  std::uint64_t offsetSize_ = 0;
  std::uint64_t referenceSize_ = 0;
  std::uint64_t count_ = 0;
  std::uint64_t top_ = 0;
  std::uint64_t table_ = 0;
  std::vector<Container> open_;
  Budget budget_;
};

// --- XML ------------------------------------------------------------------------------------------------------------

/// Reads the little XML that property lists are made of: known elements, no declarations, nothing after the end.
class XMLScan {
 public:
  explicit XMLScan(std::string_view bytes) : rest_(bytes) {}

  bool passes() {
    take("\xEF\xBB\xBF");
    if (!skipMisc(true)) return false;
    const auto top = tag();
    if (!top || top->name != "plist" || top->end || top->empty) return false;
    if (!value()) return false;
    while (!open_.empty()) {
      if (!skipMisc(false)) return false;
      if (rest_.starts_with("</")) {
        const auto closing = tag();
        if (!closing || closing->name != open_.back()) return false;
        open_.pop_back();
      } else if (!value()) {
        return false;
      }
    }
    if (!skipMisc(false)) return false;
    const auto closing = tag();
    return closing && closing->end && closing->name == "plist" && skipMisc(false) && rest_.empty();
  }

 private:
  struct Tag {
    std::string_view name;
    bool end = false;    // </name>
    bool empty = false;  // <name/>
  };

  static constexpr std::array<std::string_view, 2> CONTAINERS = {"dict", "array"};
  static constexpr std::array<std::string_view, 8> LEAVES = {"key",  "string", "integer", "real",
                                                             "true", "false",  "date",    "data"};

  static bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
  static bool isNameCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == ':' || c == '-' ||
           c == '_' || c == '.';
  }

  bool take(std::string_view text) {
    if (!rest_.starts_with(text)) return false;
    rest_.remove_prefix(text.size());
    return true;
  }
  bool takeThrough(std::string_view text) {
    const auto at = rest_.find(text);
    if (at == std::string_view::npos) return false;
    rest_.remove_prefix(at + text.size());
    return true;
  }
  void skipSpace() {
    while (!rest_.empty() && isSpace(rest_.front())) rest_.remove_prefix(1);
  }
  std::string_view takeName() {
    const auto end = std::find_if_not(rest_.begin(), rest_.end(), &isNameCharacter);
    const auto name = rest_.substr(0, static_cast<std::size_t>(end - rest_.begin()));
    rest_.remove_prefix(name.size());
    return name;
  }

  /// Skips blanks and comments; with `prolog`, also what may precede a list.
  bool skipMisc(bool prolog) {
    while (true) {
      skipSpace();
      if (take("<!--")) {
        if (!takeThrough("-->")) return false;
      } else if (prolog && take("<?")) {
        if (!takeThrough("?>")) return false;
      } else if (prolog && take("<!DOCTYPE")) {
        const auto declaration = rest_;
        if (!takeThrough(">")) return false;
        // No internal declarations: they can define entities.
        if (declaration.substr(0, declaration.size() - rest_.size()).find_first_of("[<") != std::string_view::npos)
          return false;
      } else {
        return true;
      }
    }
  }

  /// Takes a tag with its attributes; none when there is no whole one.
  std::optional<Tag> tag() {
    if (!take("<")) return std::nullopt;
    Tag tag;
    tag.end = take("/");
    tag.name = takeName();
    while (true) {
      skipSpace();
      if (take(">")) return tag;
      if (take("/>")) {
        tag.empty = true;
        return tag.end ? std::nullopt : std::optional(tag);
      }
      if (tag.end || takeName().empty() || !take("=") || !attributeValue()) return std::nullopt;
    }
  }
  bool attributeValue() {
    const std::string_view quote = rest_.substr(0, 1);
    if (quote != "\"" && quote != "'") return false;
    rest_.remove_prefix(1);
    const auto value = rest_;
    if (!takeThrough(quote)) return false;
    return value.substr(0, value.size() - rest_.size()).find_first_of("<>&") == std::string_view::npos;
  }

  /// Takes a leaf, or opens a container.
  bool value() {
    if (!skipMisc(false)) return false;
    const auto start = tag();
    if (!start || start->end || !budget_.takeObject()) return false;
    if (std::find(CONTAINERS.begin(), CONTAINERS.end(), start->name) != CONTAINERS.end()) {
      if (start->empty) return true;
      if (open_.size() >= MAX_PROPERTY_LIST_DEPTH) return false;
      open_.push_back(start->name);
      return true;
    }
    if (std::find(LEAVES.begin(), LEAVES.end(), start->name) == LEAVES.end()) return false;
    return start->empty || text(start->name);
  }

  /// Takes the text of the element `name` and its end.
  bool text(std::string_view name) {
    while (true) {
      const auto at = rest_.find_first_of("<&");
      if (at == std::string_view::npos) return false;
      rest_.remove_prefix(at);
      if (take("<![CDATA[")) {
        if (!takeThrough("]]>")) return false;
      } else if (take("<!--")) {
        if (!takeThrough("-->")) return false;
      } else if (take("&")) {
        if (!characterReference() || !budget_.takeObject()) return false;
      } else {
        const auto closing = tag();
        return closing && closing->end && closing->name == name;
      }
    }
  }

  bool characterReference() {
    for (const std::string_view name : {"amp;", "lt;", "gt;", "quot;", "apos;"})
      if (take(name)) return true;
    if (!take("#")) return false;
    const int base = take("x") ? 16 : 10;
    std::uint32_t code = 0;
    const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), code, base);
    if (error != std::errc()) return false;
    rest_.remove_prefix(static_cast<std::size_t>(end - rest_.data()));
    const bool character = code > 0 && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
    return take(";") && character;
  }

  std::string_view rest_;
  std::vector<std::string_view> open_;
  Budget budget_;
};

}  // namespace

PropertyListFormat scanPropertyList(std::string_view bytes) {
  if (bytes.size() > MAX_PROPERTY_LIST_BYTES) return PropertyListFormat::none;
  if (bytes.starts_with(BINARY_HEADER))
    return BinaryScan(bytes).passes() ? PropertyListFormat::binary : PropertyListFormat::none;
  if (bytes.find('\0') != std::string_view::npos || !isValidUTF8(bytes)) return PropertyListFormat::none;
  return XMLScan(bytes).passes() ? PropertyListFormat::xml : PropertyListFormat::none;
}

}  // namespace vornet::platform
