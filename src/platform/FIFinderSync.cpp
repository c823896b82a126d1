// What an extension answers where it does not override: the same on every system.
#include "platform/FinderSync.hpp"

namespace vornet::platform {

void FIFinderSync::beginObservingDirectoryAtURL(const FileURL&) {}
void FIFinderSync::endObservingDirectoryAtURL(const FileURL&) {}
void FIFinderSync::requestBadgeIdentifierForURL(const FileURL&) {}
std::optional<ContextMenu> FIFinderSync::menuForMenuKind(FIMenuKind) {
  return std::nullopt;
}
std::string FIFinderSync::toolbarItemName() const {
  return {};
}
std::string FIFinderSync::toolbarItemToolTip() const {
  return {};
}
Image FIFinderSync::toolbarItemImage() const {
  return {};
}
bool FIFinderSync::initBase() {
  return true;
}

}  // namespace vornet::platform
