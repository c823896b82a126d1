#include "cache/StatusTable.hpp"

#include <limits>
#include <stdexcept>

namespace vornet {
namespace {

// In a folder's table, what a key begins with that is a whole path and not a name in the folder.
constexpr std::string_view WHOLE{"\0", 1};

// Numbers are written in groups of seven bits, the lowest first; the eighth bit says that another group follows.
void append(std::string& bytes, std::uint64_t number) {
  for (; number >= 0x80; number >>= 7) bytes += static_cast<char>(number | 0x80);
  bytes += static_cast<char>(number);
}

std::uint64_t numberAt(const char*& at) {
  std::uint64_t number = 0;
  for (unsigned shift = 0;; shift += 7) {
    const auto group = static_cast<unsigned char>(*at++);
    number |= std::uint64_t{group & 0x7FU} << shift;
    if (group < 0x80) return number;
  }
}

// Codes near zero, of either sign, become small numbers.
std::uint64_t folded(StatusCode code) {
  return (static_cast<std::uint64_t>(code) << 1) ^ (code < 0 ? ~std::uint64_t{0} : 0);
}

StatusCode unfolded(std::uint64_t number) {
  return static_cast<StatusCode>((number >> 1) ^ (number & 1 ? ~std::uint64_t{0} : 0));
}

}  // namespace

StatusTable::Entry StatusTable::entryAt(const Entries& entries, Offset offset) {
  const char* at = entries.data() + offset;
  const auto size = numberAt(at);
  const auto code = unfolded(numberAt(at));
  return {{at, static_cast<std::size_t>(size)}, code};
}

StatusTable::StatusTable(std::initializer_list<std::pair<std::string_view, StatusCode>> entries) {
  for (const auto& [path, code] : entries) set(path, code);
}

void StatusTable::reserve(std::size_t entries, std::size_t pathBytes) {
  makeEntries();
  offsets_.reserve(entries);
  if (pathBytes > entries_->capacity()) entries_->reserve(pathBytes);
}

void StatusTable::makeEntries() {
  if (entries_) return;
  entries_ = std::make_unique<Entries>();
  offsets_ = Offsets(0, Hash{entries_.get()}, Equal{entries_.get()});
}

/// Whether the key of `path` is its rest after the folder. Always so where there is no folder.
bool StatusTable::isRelative(std::string_view path) const noexcept {
  return folder_.empty() || (path.starts_with(folder_) && !path.substr(folder_.size()).starts_with(WHOLE));
}

void StatusTable::set(std::string_view path, StatusCode code) {
  makeEntries();
  isRelative(path) ? setKey({}, path.substr(folder_.size()), code) : setKey(WHOLE, path, code);
}

void StatusTable::setKey(std::string_view marker, std::string_view key, StatusCode code) {
  if (entries_->size() > std::numeric_limits<Offset>::max()) throw std::length_error("a table of statuses is full");
  // Written before it is known to be new: that spares nearly every path a second look-up, and few come twice.
  const auto offset = static_cast<Offset>(entries_->size());
  append(*entries_, marker.size() + key.size());
  append(*entries_, folded(code));
  entries_->append(marker).append(key);
  const auto [found, isNew] = offsets_.insert(offset);
  if (!isNew) const_cast<Offset&>(*found) = offset;  // an equal key: the place in the set stays right
}

std::optional<StatusCode> StatusTable::find(std::string_view path) const {
  if (empty()) return std::nullopt;
  const auto found =
      isRelative(path) ? offsets_.find(path.substr(folder_.size())) : offsets_.find(std::string(WHOLE).append(path));
  if (found == offsets_.end()) return std::nullopt;
  return entryAt(*entries_, *found).code;
}

StatusTable::const_iterator StatusTable::begin() const {
  return {*this, offsets_.begin()};
}

StatusTable::const_iterator StatusTable::end() const {
  return {*this, offsets_.end()};
}

StatusTable::const_iterator::reference StatusTable::const_iterator::operator*() const {
  const auto& [key, code] = entryAt(*table_->entries_, *at_);
  if (table_->folder_.empty()) return {key, code};
  if (key.starts_with(WHOLE)) return {key.substr(WHOLE.size()), code};
  path_.assign(table_->folder_).append(key);
  return {path_, code};
}

bool operator==(const StatusTable& a, const StatusTable& b) {
  if (a.size() != b.size()) return false;
  for (const auto& [path, code] : a) {
    if (b.find(path) != code) return false;
  }
  return true;
}

}  // namespace vornet
