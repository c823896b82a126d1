#include <unistd.h>

#include <filesystem>

#include "platform/Foundation.hpp"
#include "platform/linux/Host.hpp"

namespace vornet::platform {
namespace host {
namespace {

Bundle& bundleSlot() {
  static Bundle& bundle = *new Bundle;
  return bundle;
}

}  // namespace

void setMainBundle(Bundle bundle) {
  bundleSlot() = std::move(bundle);
}

const Bundle& mainBundle() {
  return bundleSlot();
}

std::vector<std::string> imageFoldersOfProgram() {
  std::error_code error;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return {};
  return {(program.parent_path().parent_path() / "share/vornet-vi/images").string()};
}

}  // namespace host

std::optional<std::string> bundleInfoText(const std::string& key) {
  const auto& bundle = host::mainBundle();
  std::string text;
  if (key == "CFBundleIdentifier") text = bundle.identifier;
  if (key == "CFBundleShortVersionString") text = bundle.version;
  if (key == "CFBundleVersion") text = bundle.build;
  if (text.empty()) return std::nullopt;
  return text;
}

}  // namespace vornet::platform
