#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <memory_resource>
#include <optional>
#include <string>
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
  class const_iterator;

  StatusTable() = default;
  StatusTable(std::initializer_list<std::pair<std::string_view, StatusCode>> entries);

  /// An empty table meant for items of the folder `folder` (cloud path ending in "/"): their paths are kept without it,
  /// which saves memory and work. Takes any other path all the same.
  explicit StatusTable(std::string folder) : folder_(std::move(folder)) {}

  /// Stores `code` under `path`, in place of what stood there. `path` is copied.
  void set(std::string_view path, StatusCode code);

  /// The code under exactly `path`; none when absent.
  std::optional<StatusCode> find(std::string_view path) const;

  std::size_t size() const noexcept { return map_.size(); }
  bool empty() const noexcept { return map_.empty(); }

  /// Makes room for `entries` paths of about `pathBytes` bytes in all. More, or longer ones, find room later.
  void reserve(std::size_t entries, std::size_t pathBytes = 0);

  /// Pairs of path and code, in no particular order. A path is valid until its iterator moves on; in a table that is
  /// not meant for a folder, as long as the table.
  const_iterator begin() const;
  const_iterator end() const;

  friend bool operator==(const StatusTable& a, const StatusTable& b);

 private:
  using Map = boost::unordered_flat_map<std::string_view, StatusCode, TextHash, std::equal_to<>>;

  bool isRelative(std::string_view path) const noexcept;
  std::string_view keep(std::string_view marker, std::string_view text);

  std::string folder_;
  std::unique_ptr<std::pmr::monotonic_buffer_resource> arena_;
  Map map_;
};

class StatusTable::const_iterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = std::pair<std::string_view, StatusCode>;
  using difference_type = std::ptrdiff_t;
  using reference = value_type;
  struct pointer {
    value_type value;
    const value_type* operator->() const noexcept { return &value; }
  };

  reference operator*() const;
  pointer operator->() const { return {**this}; }
  const_iterator& operator++() {
    ++at_;
    return *this;
  }
  friend bool operator==(const const_iterator& a, const const_iterator& b) { return a.at_ == b.at_; }

 private:
  friend class StatusTable;
  const_iterator(const std::string& folder, Map::const_iterator at) : folder_(&folder), at_(at) {}

  const std::string* folder_;
  Map::const_iterator at_;
  mutable std::string path_;  // put together when asked for
};

}  // namespace vornet
