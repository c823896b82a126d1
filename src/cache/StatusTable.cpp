#include "cache/StatusTable.hpp"

#include <limits>
#include <stdexcept>

namespace vornet {
namespace {

// Begins a key that is a whole path and not a name in the folder of the table.
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
  const char* at = entries.bytes.data() + offset;
  const auto size = numberAt(at);
  const auto code = unfolded(numberAt(at));
  return {{at, static_cast<std::size_t>(size)}, code};
}

StatusTable::StatusTable(std::initializer_list<std::pair<std::string_view, StatusCode>> entries) {
  for (const auto& [path, code] : entries) set(path, code);
}

void StatusTable::reserve(std::size_t entries, std::size_t pathBytes) {
  ownEntries();
  offsets_.reserve(entries);
  if (pathBytes > entries_->bytes.capacity()) entries_->bytes.reserve(pathBytes);
}

/// Makes the entries this table's alone, so that they may be changed.
void StatusTable::ownEntries() {
  if (entries_ && !entries_->isShared) return;
  StatusTable own(folder_);
  own.entries_ = std::make_shared<Entries>();
  own.offsets_ = Offsets(size(), Hash{own.entries_.get()}, Equal{own.entries_.get()});
  for (const auto& [path, code] : *this) own.set(path, code);
  *this = std::move(own);
}

StatusTable StatusTable::selection() const {
  StatusTable part(folder_);
  if (entries_) entries_->isShared = true;
  part.entries_ = entries_;
  // With room for all: entries come in the order of their hashes, which would crowd the beginning of a smaller set.
  part.offsets_ = Offsets(size(), Hash{entries_.get()}, Equal{entries_.get()});
  return part;
}

void StatusTable::add(const const_iterator& entry) {
  offsets_.insert(*entry.at_);
}

std::size_t StatusTable::memory() const noexcept {
  constexpr std::size_t BYTES_A_PLACE = sizeof(Offset) + 1;  // the set notes one byte of the hash beside it
  return folder_.capacity() + (entries_ ? entries_->bytes.capacity() : 0) + offsets_.bucket_count() * BYTES_A_PLACE;
}

/// True if the key of `path` is its rest after the folder. Always so where there is no folder.
bool StatusTable::isRelative(std::string_view path) const noexcept {
  return folder_.empty() || (path.starts_with(folder_) && !path.substr(folder_.size()).starts_with(WHOLE));
}

void StatusTable::set(std::string_view path, StatusCode code) {
  ownEntries();
  isRelative(path) ? setKey({}, path.substr(folder_.size()), code) : setKey(WHOLE, path, code);
}

void StatusTable::setKey(std::string_view marker, std::string_view key, StatusCode code) {
  if (entries_->bytes.size() > std::numeric_limits<Offset>::max())
    throw std::length_error("a table of statuses is full");
  // Written before it is known to be new: that spares nearly every path a second look-up, and few come twice.
  const auto offset = static_cast<Offset>(entries_->bytes.size());
  append(entries_->bytes, marker.size() + key.size());
  append(entries_->bytes, folded(code));
  entries_->bytes.append(marker).append(key);
  const auto [found, isNew] = offsets_.insert(offset);
  if (!isNew) const_cast<Offset&>(*found) = offset;  // an equal key: the place in the set stays right
}

StatusTable::const_iterator StatusTable::locate(std::string_view path) const {
  if (empty()) return end();
  return {*this, isRelative(path) ? offsets_.find(path.substr(folder_.size()))
                                  : offsets_.find(std::string(WHOLE).append(path))};
}

std::optional<StatusCode> StatusTable::find(std::string_view path) const {
  const auto found = locate(path);
  if (found == end()) return std::nullopt;
  return found.code();
}

StatusTable::const_iterator StatusTable::begin() const {
  return {*this, offsets_.begin()};
}

StatusTable::const_iterator StatusTable::end() const {
  return {*this, offsets_.end()};
}

StatusCode StatusTable::const_iterator::code() const {
  return entryAt(*table_->entries_, *at_).code;
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
  for (const auto& [path, code] : a)
    if (b.find(path) != code) return false;
  return true;
}

}  // namespace vornet
