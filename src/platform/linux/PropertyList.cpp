#include <plist/plist.h>

#include <cstdint>
#include <fstream>
#include <iterator>

#include "platform/Foundation.hpp"

namespace vornet::platform {
namespace {

constexpr std::size_t MAX_BYTES = std::size_t{1} << 20;

/// The file's bytes; none when it cannot be read or is larger than the limit.
std::optional<std::string> bytesOfFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::string bytes(MAX_BYTES + 1, '\0');
  file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  if (file.bad() || bytes.size() > MAX_BYTES) return std::nullopt;
  return bytes;
}

}  // namespace

struct PropertyList::Impl {
  explicit Impl(plist_t parsed) : root(parsed) {}
  ~Impl() { plist_free(root); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  plist_t const root;
};

PropertyList::PropertyList(std::shared_ptr<const Impl> impl) : impl_(std::move(impl)) {}

std::optional<PropertyList> PropertyList::dictionaryAtPath(const std::string& path) {
  const auto bytes = bytesOfFile(path);
  if (!bytes || bytes->empty()) return std::nullopt;
  plist_t root = nullptr;
  plist_from_memory(bytes->data(), static_cast<std::uint32_t>(bytes->size()), &root);
  if (!root) return std::nullopt;
  auto impl = std::make_shared<const Impl>(root);
  if (plist_get_node_type(root) != PLIST_DICT) return std::nullopt;
  return PropertyList(std::move(impl));
}

std::optional<std::string> PropertyList::textForKey(const std::string& key) const {
  const plist_t item = plist_dict_get_item(impl_->root, key.c_str());
  if (!item || plist_get_node_type(item) != PLIST_STRING) return std::nullopt;
  // Not the copying call, which stops the process at text that a damaged file gave a NUL.
  std::uint64_t length = 0;
  const char* value = plist_get_string_ptr(item, &length);
  if (!value) return std::nullopt;
  std::string text(value, length);
  if (text.find('\0') != std::string::npos) return std::nullopt;
  return text;
}

}  // namespace vornet::platform
