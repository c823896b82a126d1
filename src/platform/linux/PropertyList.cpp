#include <fcntl.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "platform/Foundation.hpp"
#include "platform/PropertyListScan.hpp"

namespace vornet::platform {
namespace {

/// All bytes of `file`; none when reading fails or there are more than the limit.
std::optional<std::string> bytesOf(int file) {
  std::string bytes(MAX_PROPERTY_LIST_BYTES + 1, '\0');
  std::size_t length = 0;
  while (length < bytes.size()) {
    const auto count = ::read(file, bytes.data() + length, bytes.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  if (length > MAX_PROPERTY_LIST_BYTES) return std::nullopt;
  bytes.resize(length);
  return bytes;
}

/// The bytes of the regular file at `path`; none when it cannot be read or is larger than the limit.
std::optional<std::string> bytesOfFile(const std::string& path) {
  const int file = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);  // a FIFO would make it wait
  if (file < 0) return std::nullopt;
  struct stat kind;
  std::optional<std::string> bytes;
  if (::fstat(file, &kind) == 0 && S_ISREG(kind.st_mode)) bytes = bytesOf(file);
  ::close(file);
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
  if (!bytes) return std::nullopt;
  const auto size = static_cast<std::uint32_t>(bytes->size());
  plist_t root = nullptr;
  switch (scanPropertyList(*bytes)) {
    case PropertyListFormat::xml:
      plist_from_xml(bytes->data(), size, &root);
      break;
    case PropertyListFormat::binary:
      plist_from_bin(bytes->data(), size, &root);
      break;
    case PropertyListFormat::none:
      break;
  }
  if (!root) return std::nullopt;
  auto impl = std::make_shared<const Impl>(root);
  if (plist_get_node_type(root) != PLIST_DICT) return std::nullopt;
  return PropertyList(std::move(impl));
}

std::optional<std::string> PropertyList::textForKey(const std::string& key) const {
  const plist_t item = plist_dict_get_item(impl_->root, key.c_str());
  if (!item || plist_get_node_type(item) != PLIST_STRING) return std::nullopt;
  std::uint64_t length = 0;
  const char* value = plist_get_string_ptr(item, &length);
  if (!value) return std::nullopt;
  return std::string(value, length);
}

}  // namespace vornet::platform
