#include "extension/AppConst.hpp"

#include "platform/Foundation.hpp"

namespace vornet {
namespace {

platform::Image requiredImage(std::string_view name) {
  auto image = platform::Image::named(name);
  if (!image) platform::fatalError("missing image resource: " + std::string(name));
  return *std::move(image);
}

}  // namespace

const AppConst& App() {
  static const AppConst& app = *new AppConst;  // never destroyed: the worker may read it until the very end
  return app;
}

const std::map<StatusCode, std::string_view>& statusMap() {
  static const auto& map = *new std::map<StatusCode, std::string_view>{
      {-1, statusNone}, {0, statusFailure}, {1, statusInProgress}, {2, statusSynced}};
  return map;
}

const platform::Image& syncedImg() {
  static const platform::Image image = requiredImage("checkmark");
  return image;
}

const platform::Image& inProgressImg() {
  static const platform::Image image = requiredImage("sync");
  return image;
}

const platform::Image& failureImg() {
  static const platform::Image image = requiredImage("error");
  return image;
}

const platform::Image& vornetImg() {
  static const platform::Image image = requiredImage("QMT");
  return image;
}

std::shared_ptr<RESTPollingManager>& statusManager() {
  static std::shared_ptr<RESTPollingManager> slot;
  return slot;
}

RESTPollingManager& requiredStatusManager() {
  const auto& manager = statusManager();
  if (!manager) platform::fatalError("no status manager");
  return *manager;
}

}  // namespace vornet
