#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vornet::test {

/// Builds binary property lists object by object, also such as no writer makes. The first object added is the top.
class BinaryList {
 public:
  static constexpr int REFERENCE_BYTES = 4;

  /// Adds an object with its bytes in the file; its index.
  std::size_t add(std::string bytes) {
    objects_.push_back(std::move(bytes));
    return objects_.size() - 1;
  }
  std::size_t array(const std::vector<std::size_t>& items) {
    return add(object(0xA, items.size()) + references(items));
  }
  std::size_t dictionary(const std::vector<std::size_t>& keys, const std::vector<std::size_t>& values) {
    return add(object(0xD, keys.size()) + references(keys) + references(values));
  }
  std::size_t text(std::string_view ascii) { return add(object(0x5, ascii.size()).append(ascii)); }

  /// Where an object's bytes begin: marker and count.
  static std::string object(unsigned kind, std::size_t count) {
    if (count < 15) return std::string(1, static_cast<char>(kind << 4 | count));
    return std::string(1, static_cast<char>(kind << 4 | 0xF)) + '\x12' + bigEndian(count, 4);
  }
  static std::string references(const std::vector<std::size_t>& indexes) {
    std::string out;
    for (const auto index : indexes) out += bigEndian(index, REFERENCE_BYTES);
    return out;
  }
  static std::string bigEndian(std::uint64_t value, int size) {
    std::string out;
    for (int i = size - 1; i >= 0; --i) out += static_cast<char>(i < 8 ? value >> 8 * i & 0xFF : 0);
    return out;
  }

  /// The file. `count`, `top` and `table` override the true values.
  struct Trailer {
    int offsetSize = 4;
    int referenceSize = REFERENCE_BYTES;
    std::int64_t count = -1;
    std::int64_t top = 0;
    std::int64_t table = -1;
  };
  std::string bytes() const { return bytes(Trailer()); }
  std::string bytes(const Trailer& trailer) const {
    std::string out = "bplist00";
    std::string offsets;
    for (const auto& object : objects_) {
      offsets += bigEndian(out.size(), trailer.offsetSize);
      out += object;
    }
    const auto table = trailer.table < 0 ? out.size() : static_cast<std::size_t>(trailer.table);
    out += offsets + std::string(6, '\0') + static_cast<char>(trailer.offsetSize) +
           static_cast<char>(trailer.referenceSize);
    out += bigEndian(trailer.count < 0 ? objects_.size() : static_cast<std::size_t>(trailer.count), 8);
    out += bigEndian(static_cast<std::uint64_t>(trailer.top), 8) + bigEndian(table, 8);
    return out;
  }

  /// A list of `depth` containers within each other: a dictionary, and below it arrays.
  static std::string nested(std::size_t depth) {
    BinaryList list;
    list.dictionary({depth}, {1});
    for (std::size_t i = 1; i < depth; ++i) list.array(i + 1 < depth ? std::vector{i + 1} : std::vector<std::size_t>());
    list.text("root_dir");
    return list.bytes();
  }

  /// A list in which each of `levels` arrays holds the next one twice: 2^levels texts for a reader that follows every
  /// reference.
  static std::string doubling(std::size_t levels) {
    BinaryList list;
    list.dictionary({levels + 1}, {1});
    for (std::size_t i = 1; i <= levels; ++i) list.array({i + 1, i + 1});
    list.text("root_dir");
    return list.bytes();
  }

 private:
  std::vector<std::string> objects_;
};

}  // namespace vornet::test
