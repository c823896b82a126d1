#import "platform/macos/Cocoa.hpp"

namespace vornet::platform {

std::vector<std::int64_t> runningApplicationsWithBundleIdentifier(std::string_view bundleIdentifier) {
  @autoreleasepool {
    std::vector<std::int64_t> running;
    NSString* identifier = cocoa::string(bundleIdentifier);
    if (!identifier) return running;
    for (NSRunningApplication* application in [NSRunningApplication runningApplicationsWithBundleIdentifier:identifier])
      running.push_back([application processIdentifier]);
    return running;
  }
}

}  // namespace vornet::platform
