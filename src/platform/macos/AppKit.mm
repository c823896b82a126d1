#import "platform/macos/Cocoa.hpp"

namespace vornet::platform {

std::optional<Image> Image::named(std::string_view name) {
  @autoreleasepool {
    NSString* resource = cocoa::string(name);
    if ([resource length] == 0 || ![NSImage imageNamed:resource]) return std::nullopt;
    return Image(std::string(name));
  }
}

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

namespace cocoa {

NSImage* image(const Image& image) {
  if (image.isEmpty()) return VORNET_AUTORELEASED([[NSImage alloc] init]);
  return [NSImage imageNamed:string(image.name())];
}

NSMenu* menu(const ContextMenu& menu) {
  NSMenu* result = VORNET_AUTORELEASED([[NSMenu alloc] initWithTitle:@""]);
  [result setAutoenablesItems:NO];  // the sync application says what is enabled
  for (const auto& entry : menu.items) {
    NSMenuItem* item = VORNET_AUTORELEASED([[NSMenuItem alloc] init]);
    [item setTitle:string(entry.title)];
    [item setAction:NSSelectorFromString(string(entry.action))];
    [item setImage:image(entry.image)];
    [item setEnabled:entry.enabled ? YES : NO];
    [result addItem:item];
  }
  return result;
}

}  // namespace cocoa
}  // namespace vornet::platform
