#include "logging/DateFormatterCache.hpp"

#include <map>
#include <memory>
#include <string>

namespace vornet {
namespace {

constexpr std::string_view FORMAT = "yyyy-MM-dd HH:mm:ss.SSS";

struct Cache {
  std::map<std::string, std::unique_ptr<platform::DateFormatter>> formatters;  // by format + "_" + locale
  std::string lastLocale;  // spares the hot path the building of a key
  platform::DateFormatter* lastFormatter = nullptr;
};

}  // namespace

platform::DateFormatter* dateFormatterOfThread() {
  thread_local Cache cache;
  std::string locale = platform::currentLocaleIdentifier();
  if (cache.lastFormatter && cache.lastLocale == locale) return cache.lastFormatter;

  std::string key = std::string(FORMAT) + "_" + locale;
  auto found = cache.formatters.find(key);
  if (found == cache.formatters.end()) {
    auto formatter = platform::DateFormatter::make(locale, FORMAT);
    if (!formatter) return nullptr;
    found = cache.formatters.emplace(std::move(key), std::move(formatter)).first;
  }
  cache.lastLocale = std::move(locale);
  cache.lastFormatter = found->second.get();
  return cache.lastFormatter;
}

}  // namespace vornet
