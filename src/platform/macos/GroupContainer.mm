#import "platform/macos/Cocoa.hpp"

namespace vornet::platform {

std::optional<FileURL> containerURLForGroup(std::string_view group) {
  @autoreleasepool {
    NSString* identifier = cocoa::string(group);
    if ([identifier length] == 0) return std::nullopt;
    NSURL* container = [[NSFileManager defaultManager] containerURLForSecurityApplicationGroupIdentifier:identifier];
    const auto path = cocoa::text([container path]);
    if (!path) return std::nullopt;
    return FileURL::fileURLWithPath(*path, true);
  }
}

}  // namespace vornet::platform
