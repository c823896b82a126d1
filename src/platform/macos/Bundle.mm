#import "platform/macos/Cocoa.hpp"

namespace vornet::platform {

std::optional<std::string> bundleInfoText(const std::string& key) {
  @autoreleasepool {
    id value = [[[NSBundle mainBundle] infoDictionary] objectForKey:cocoa::string(key)];
    if (![value isKindOfClass:[NSString class]]) return std::nullopt;
    return cocoa::text(value);
  }
}

}  // namespace vornet::platform
