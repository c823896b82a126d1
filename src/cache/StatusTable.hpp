#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <memory_resource>
#include <optional>
#include <string_view>
#include <utility>

#include "extension/AppConst.hpp"

namespace vornet {

/// Hashes texts without a std::string being made of them.
struct TextHash {
  using is_transparent = void;
  using is_avalanching = void;  // the standard library's hash of texts mixes well enough by itself
  std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>{}(text); }
};

/// A map from cloud path to status code. Its keys share one arena, which makes filling a table of ten thousand entries,
/// and dropping it, cheap. A movable value. Not thread-safe.
class StatusTable {
 public:
  using Map = boost::unordered_flat_map<std::string_view, StatusCode, TextHash, std::equal_to<>>;
  using const_iterator = Map::const_iterator;

  StatusTable() = default;
  StatusTable(std::initializer_list<std::pair<std::string_view, StatusCode>> entries);

  /// Stores `code` under `path`, in place of what stood there. `path` is copied.
  void set(std::string_view path, StatusCode code);

  /// The code under exactly `path`; none when absent.
  std::optional<StatusCode> find(std::string_view path) const;

  std::size_t size() const noexcept { return map_.size(); }
  bool empty() const noexcept { return map_.empty(); }

  /// Makes room for `entries` paths of about `pathBytes` bytes in all. More, or longer ones, find room later.
  void reserve(std::size_t entries, std::size_t pathBytes = 0);

  /// Pairs of path (valid as long as the table) and code, in no particular order.
  const_iterator begin() const noexcept { return map_.begin(); }
  const_iterator end() const noexcept { return map_.end(); }

  friend bool operator==(const StatusTable& a, const StatusTable& b) { return a.map_ == b.map_; }

 private:
  std::string_view keep(std::string_view path);

  std::unique_ptr<std::pmr::monotonic_buffer_resource> arena_;
  Map map_;
};

}  // namespace vornet
