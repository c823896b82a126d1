// Property lists of any bytes are read or refused within the fuzzer's bounds for time and memory. Lists that libplist
// wrote are read as they were meant.
#include <fuzzer/FuzzedDataProvider.h>
#include <plist/plist.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/Foundation.hpp"
#include "support/Require.hpp"

namespace vornet::fuzz {
namespace {

using platform::PropertyList;

/// A file in memory.
class MemoryFile {
 public:
  MemoryFile() : file_(::memfd_create("property-list", MFD_CLOEXEC)) {
    require(file_ >= 0, "there is memory for a file");
  }
  ~MemoryFile() { ::close(file_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  void set(std::string_view bytes) const {
    require(::ftruncate(file_, 0) == 0, "the file can be emptied");
    require(::pwrite(file_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()), "it can be written");
  }
  std::string path() const { return "/proc/self/fd/" + std::to_string(file_); }

 private:
  const int file_;
};

std::optional<PropertyList> read(std::string_view bytes) {
  static const MemoryFile file;
  file.set(bytes);
  return PropertyList::dictionaryAtPath(file.path());
}

void checkAnyBytes(std::string_view bytes) {
  const auto list = read(bytes);
  if (!list) return;
  for (const char* key : {"root_dir", "log_level", "a", ""}) {
    const auto text = list->textForKey(key);
    require(!text || text->find('\0') == std::string::npos, "a text ends where it ends");
  }
}

using Texts = std::map<std::string, std::optional<std::string>>;

/// Printable text, which every format holds.
std::string text(FuzzedDataProvider& data) {
  std::string text = data.ConsumeRandomLengthString(12);
  for (char& c : text) c = static_cast<char>(' ' + static_cast<unsigned char>(c) % ('~' - ' ' + 1));
  return data.ConsumeBool() ? text + "\u00e9\u5831\U0001F600" : text;
}

plist_t dictionary(FuzzedDataProvider& data, Texts& texts, int depth);

/// A value that is no text.
plist_t otherValue(FuzzedDataProvider& data, int depth) {
  Texts inner;
  switch (data.ConsumeIntegralInRange<int>(0, depth > 0 ? 6 : 4)) {
    case 0:
      return plist_new_bool(data.ConsumeBool() ? 1 : 0);
    case 1:
      return plist_new_uint(data.ConsumeIntegral<std::uint64_t>());
    case 2:
      return plist_new_real(data.ConsumeIntegralInRange(-1000, 1000) / 8.0);
    case 3:
      return plist_new_date(data.ConsumeIntegralInRange(0, 600'000'000), 0);
    case 4: {
      const std::string bytes = data.ConsumeRandomLengthString(12);
      return plist_new_data(bytes.data(), bytes.size());
    }
    case 5: {
      const plist_t array = plist_new_array();
      for (int count = data.ConsumeIntegralInRange<int>(0, 4); count > 0; --count)
        plist_array_append_item(array, otherValue(data, depth - 1));
      return array;
    }
    default:
      return dictionary(data, inner, depth - 1);
  }
}

plist_t dictionary(FuzzedDataProvider& data, Texts& texts, int depth) {
  const plist_t result = plist_new_dict();
  for (int count = data.ConsumeIntegralInRange<int>(0, 6); count > 0; --count) {
    const std::string key = data.ConsumeBool() ? "root_dir" : text(data);
    if (data.ConsumeBool()) {
      const auto value = text(data);
      plist_dict_set_item(result, key.c_str(), plist_new_string(value.c_str()));
      texts[key] = value;
    } else {
      plist_dict_set_item(result, key.c_str(), otherValue(data, depth));
      texts[key] = std::nullopt;
    }
  }
  return result;
}

void checkWritten(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider data(bytes, size);
  const bool binary = data.ConsumeBool();
  Texts texts;
  const std::unique_ptr<void, decltype(&plist_free)> list(dictionary(data, texts, 8), plist_free);
  char* written = nullptr;
  std::uint32_t length = 0;
  (binary ? plist_to_bin : plist_to_xml)(list.get(), &written, &length);
  const std::unique_ptr<char, decltype(&std::free)> owned(written, std::free);
  const auto found = read({written, length});
  require(found.has_value(), "what libplist wrote is read");
  for (const auto& [key, value] : texts) require(found->textForKey(key) == value, "a text is the one that was written");
  require(texts.contains("none") || !found->textForKey("none"), "where there is no text, none is found");
}

}  // namespace
}  // namespace vornet::fuzz

/// An input: a property list; or "=" and what FuzzedDataProvider makes a list of.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 0 && *data == '=')
    vornet::fuzz::checkWritten(data + 1, size - 1);
  else
    vornet::fuzz::checkAnyBytes({reinterpret_cast<const char*>(data), size});
  return 0;
}
