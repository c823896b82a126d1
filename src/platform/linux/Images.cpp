#include <filesystem>

#include "platform/AppKit.hpp"
#include "platform/linux/Host.hpp"

namespace vornet::platform {
namespace {

// The size that every image resource has, besides others.
constexpr int COMMON_SIZE = 16;

}  // namespace

std::optional<Image> Image::named(std::string_view name) {
  if (name.empty() || host::imageFile(std::string(name), COMMON_SIZE).empty()) return std::nullopt;
  return Image(std::string(name));
}

namespace host {

std::string imageFile(const std::string& name, int size) {
  for (const auto& folder : mainBundle().imageFolders) {
    const auto file = std::filesystem::path(folder) / std::to_string(size) / (name + ".png");
    std::error_code error;
    if (std::filesystem::is_regular_file(file, error)) return file.string();
  }
  return {};
}

}  // namespace host
}  // namespace vornet::platform
