#include "extension/SharedObjects.hpp"

#include <string>
#include <string_view>
#include <utility>

#include "platform/Foundation.hpp"

namespace vornet {
namespace {

platform::Image requiredImage(std::string_view name) {
  auto image = platform::Image::named(name);
  if (!image) platform::fatalError("missing image resource: " + std::string(name));
  return *std::move(image);
}

}  // namespace

// None of these objects is ever destroyed: the file manager's threads and the worker may still use them when the
// process ends.

const platform::Image& syncedImg() {
  static const auto& image = *new platform::Image(requiredImage("checkmark"));
  return image;
}

const platform::Image& inProgressImg() {
  static const auto& image = *new platform::Image(requiredImage("sync"));
  return image;
}

const platform::Image& failureImg() {
  static const auto& image = *new platform::Image(requiredImage("error"));
  return image;
}

const platform::Image& vornetImg() {
  static const auto& image = *new platform::Image(requiredImage("QMT"));
  return image;
}

std::shared_ptr<RESTPollingManager>& statusManager() {
  static auto& slot = *new std::shared_ptr<RESTPollingManager>;
  return slot;
}

RESTPollingManager& requiredStatusManager() {
  const auto& manager = statusManager();
  if (!manager) platform::fatalError("no status manager");
  return *manager;
}

}  // namespace vornet
