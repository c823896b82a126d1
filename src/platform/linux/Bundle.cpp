#include <unistd.h>

#include <filesystem>

#include "platform/AppKit.hpp"
#include "platform/Foundation.hpp"
#include "platform/linux/Host.hpp"

namespace vornet::platform {
namespace host {
namespace {

Bundle& bundleSlot() {
  static Bundle& bundle = *new Bundle;
  return bundle;
}

std::vector<std::int64_t>& otherProcesses() {
  static auto& processes = *new std::vector<std::int64_t>;
  return processes;
}

}  // namespace

void setMainBundle(Bundle bundle) {
  bundleSlot() = std::move(bundle);
}

const Bundle& mainBundle() {
  return bundleSlot();
}

void setOtherRunningApplications(std::vector<std::int64_t> processes) {
  otherProcesses() = std::move(processes);
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

std::vector<std::int64_t> runningApplicationsWithBundleIdentifier(std::string_view bundleIdentifier) {
  if (bundleInfoText("CFBundleIdentifier") != bundleIdentifier) return {};
  std::vector<std::int64_t> running = host::otherProcesses();
  running.push_back(processIdentifier());
  return running;
}

}  // namespace vornet::platform
