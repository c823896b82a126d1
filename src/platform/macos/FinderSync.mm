#import <FinderSync/FinderSync.h>

#include "platform/FinderSync.hpp"
#import "platform/macos/Cocoa.hpp"

namespace {

/// The framework's controller. Outside the seam's namespace, where its class has the same name.
FIFinderSyncController* frameworkController() {
  return [FIFinderSyncController defaultController];
}

thread_local NSURL* badgedObject = nil;

}  // namespace

namespace vornet::platform {

cocoa::BadgedObject::BadgedObject(NSURL* url) {
  badgedObject = url;
}
cocoa::BadgedObject::~BadgedObject() {
  badgedObject = nil;
}

/// Nothing: the framework keeps all of it.
struct FIFinderSyncController::Impl {};

FIFinderSyncController::FIFinderSyncController() = default;
FIFinderSyncController::~FIFinderSyncController() = default;

FIFinderSyncController& FIFinderSyncController::defaultController() {
  // Never destroyed: background threads may set badges until the very end.
  static FIFinderSyncController& controller = *new FIFinderSyncController;
  return controller;
}

void FIFinderSyncController::setBadgeImage(const Image& image, std::string_view label, std::string_view identifier) {
  @autoreleasepool {
    [frameworkController() setBadgeImage:cocoa::image(image)
                                   label:cocoa::string(label)
                      forBadgeIdentifier:cocoa::string(identifier)];
  }
}

void FIFinderSyncController::setBadgeIdentifier(std::string_view identifier, const FileURL& url) {
  @autoreleasepool {
    if (!url.path()) return;
    NSURL* item = badgedObject && cocoa::fileURL(badgedObject) == url ? badgedObject : cocoa::url(url);
    if (item) [frameworkController() setBadgeIdentifier:cocoa::string(identifier) forURL:item];
  }
}

void FIFinderSyncController::invalidateBadges(const FileURL&) {
  // The framework has no way to make the Finder ask again.
}

std::set<FileURL> FIFinderSyncController::directoryURLs() const {
  @autoreleasepool {
    std::set<FileURL> urls;
    for (NSURL* url in [frameworkController() directoryURLs]) urls.insert(cocoa::fileURL(url));
    return urls;
  }
}

void FIFinderSyncController::setDirectoryURLs(const std::set<FileURL>& urls) {
  @autoreleasepool {
    NSMutableSet<NSURL*>* set = [NSMutableSet set];
    for (const auto& url : urls)
      if (NSURL* folder = cocoa::url(url)) [set addObject:folder];
    [frameworkController() setDirectoryURLs:set];
  }
}

std::optional<std::vector<FileURL>> FIFinderSyncController::selectedItemURLs() const {
  @autoreleasepool {
    NSArray<NSURL*>* selection = [frameworkController() selectedItemURLs];
    if (!selection) return std::nullopt;
    std::vector<FileURL> urls;
    urls.reserve([selection count]);
    for (NSURL* url in selection) urls.push_back(cocoa::fileURL(url));
    return urls;
  }
}

}  // namespace vornet::platform
