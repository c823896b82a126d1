#pragma once

#include <atomic>
#include <boost/unordered/unordered_flat_set.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/AppConst.hpp"

namespace vornet {

/// Hashes texts without making a std::string of them.
struct TextHash {
  using is_transparent = void;
  using is_avalanching = void;  // the standard library's hash of texts mixes well enough by itself
  std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>{}(text); }
};

/// A map from cloud path to status code. Its entries are stored one after another in one block of bytes. So filling
/// a table of ten thousand entries, and dropping it, is cheap and takes about 12 bytes an entry beside its path. A
/// movable value. Not thread-safe, but a table and its selections may be read by different threads.
class StatusTable {
 public:
  class const_iterator;

  StatusTable() = default;
  StatusTable(StatusTable&&) = default;
  StatusTable& operator=(StatusTable&&) = default;
  StatusTable(std::initializer_list<std::pair<std::string_view, StatusCode>> entries);

  /// An empty table meant for items of the folder `folder` (cloud path ending in "/"): their paths are kept without it,
  /// which saves memory and work. Takes any other path all the same.
  explicit StatusTable(std::string folder) : folder_(std::move(folder)) {}

  /// Stores `code` under `path`, in place of an earlier code. `path` is copied. Throws std::length_error when the
  /// paths would take more than 4 GiB.
  void set(std::string_view path, StatusCode code);

  /// The code under exactly `path`; none when absent.
  std::optional<StatusCode> find(std::string_view path) const;

  /// The entry of exactly `path`; end() when absent.
  const_iterator locate(std::string_view path) const;

  /// An empty table that add() fills with entries of this one. Both share them, so that a selection of all entries
  /// takes about 7 bytes for each, whatever their paths are. The selection remains valid when this table goes or
  /// changes.
  StatusTable selection() const;

  /// In a selection: adds `entry` of the table that it was made from.
  void add(const const_iterator& entry);

  /// About how many bytes the table takes. What it shares with others counts in full.
  std::size_t memory() const noexcept;

  std::size_t size() const noexcept { return offsets_.size(); }
  bool empty() const noexcept { return offsets_.empty(); }

  /// Makes room for `entries` paths of about `pathBytes` bytes in all. More, or longer ones, find room later.
  void reserve(std::size_t entries, std::size_t pathBytes = 0);

  /// Pairs of path and code, in no particular order. A path is valid until its iterator moves on or the table changes.
  const_iterator begin() const;
  const_iterator end() const;

  friend bool operator==(const StatusTable& a, const StatusTable& b);

 private:
  struct Entry {
    std::string_view key;
    StatusCode code;
  };
  using Offset = std::uint32_t;
  struct Entries {
    std::string bytes;                   // each: its key's size and its code, as short as they can be written; its key
    std::atomic<bool> isShared = false;  // a selection was made: changed no more, whoever still has it
  };

  static Entry entryAt(const Entries& entries, Offset at);

  struct Hash {
    using is_transparent = void;
    using is_avalanching = void;
    std::size_t operator()(std::string_view key) const noexcept { return TextHash{}(key); }
    std::size_t operator()(Offset at) const noexcept { return TextHash{}(entryAt(*entries, at).key); }
    const Entries* entries = nullptr;
  };
  struct Equal {
    using is_transparent = void;
    bool operator()(Offset a, Offset b) const noexcept { return entryAt(*entries, a).key == entryAt(*entries, b).key; }
    bool operator()(std::string_view key, Offset at) const noexcept { return key == entryAt(*entries, at).key; }
    bool operator()(Offset at, std::string_view key) const noexcept { return key == entryAt(*entries, at).key; }
    const Entries* entries = nullptr;
  };
  using Offsets = boost::unordered_flat_set<Offset, Hash, Equal>;

  bool isRelative(std::string_view path) const noexcept;
  void ownEntries();
  void setKey(std::string_view marker, std::string_view key, StatusCode code);

  std::string folder_;
  // On the heap, so that its address stays when the table moves.
  std::shared_ptr<Entries> entries_;
  Offsets offsets_;  // where they begin
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

  /// The code alone: cheaper than the pair.
  StatusCode code() const;

  const_iterator& operator++() {
    ++at_;
    return *this;
  }
  friend bool operator==(const const_iterator& a, const const_iterator& b) { return a.at_ == b.at_; }

 private:
  friend class StatusTable;
  const_iterator(const StatusTable& table, Offsets::const_iterator at) : table_(&table), at_(at) {}

  const StatusTable* table_;
  Offsets::const_iterator at_;
  mutable std::string path_;  // put together when asked for
};

}  // namespace vornet
