// URLs from clients: the service reads them as they were meant, and never takes an item outside the synced folders for
// one inside.
#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "service/Selections.hpp"
#include "support/Require.hpp"

namespace vornet::fuzz {
namespace {

using platform::FileURL;

/// A path's names; between slashes that follow one another there are empty ones.
std::vector<std::string> namesOf(const std::string& path) {
  std::vector<std::string> names;
  if (path == "/") return names;
  for (std::size_t at = 1; at <= path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    names.push_back(path.substr(at, end - at));
    at = end + 1;
  }
  return names;
}

bool beginsWith(const std::vector<std::string>& names, const std::vector<std::string>& first) {
  return names.size() >= first.size() && std::equal(first.begin(), first.end(), names.begin());
}

/// The path that `text` is taken for; none where it is refused.
std::optional<std::string> checkedPath(const std::string& text) {
  const auto url = service::readURL(text);
  const auto plain = FileURL::fileURLWithText(text);
  require(!url || plain, "what is no file URL is refused");
  if (!url || !url->path()) {
    const auto names = plain && plain->path() ? namesOf(*plain->path()) : std::vector<std::string>();
    const bool climbs =
        std::any_of(names.begin(), names.end(), [](const auto& name) { return name == "." || name == ".."; });
    require(!plain || !plain->path() || climbs, "only a malformed URL, or one with dots for names, is refused");
    return std::nullopt;
  }
  for (const auto& name : namesOf(*url->path())) {
    require(name != "." && name != "..", "no path climbs");
    require(name.find('\0') == std::string::npos, "no path ends early");
  }
  require(url->path()->find("//") == std::string::npos, "a path has one spelling");
  const auto again = service::readURL(url->description());
  require(again && *again == *url, "a URL that was taken is taken again");
  return url->path();
}

void check(const std::vector<std::string>& lines) {
  std::set<FileURL> roots;
  bool within = false;
  bool below = false;
  const auto item = checkedPath(lines.front());
  for (std::size_t i = 1; i < lines.size(); ++i) {
    const auto root = checkedPath(lines[i]);
    if (!root) continue;
    roots.insert(FileURL::fileURLWithPath(*root));
    if (!item) continue;
    // Below a root whose text comes a second time, the sync application's name for an item is another item's.
    const bool isAmbiguous = *item != *root && item->find(*root, root->size()) != std::string::npos;
    const bool isIn = beginsWith(namesOf(*item), namesOf(*root)) && !isAmbiguous;
    within = within || isIn;
    below = below || (isIn && *item != *root);
  }
  roots.insert(FileURL());  // a root without a path holds nothing
  if (!item) return;
  require(service::isWithin(roots, *item) == within, "an item is within the folders that its path leads through");
  require(service::isBelow(roots, *item) == below, "an item is below the folders that its path leads through");
}

}  // namespace
}  // namespace vornet::fuzz

/// An input: lines of URLs, first an item's, then those of synced folders.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> lines;
  for (std::size_t at = 0; at <= text.size() && lines.size() < 8;) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  vornet::fuzz::check(lines);
  return 0;
}
