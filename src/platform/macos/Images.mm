#import "platform/macos/Cocoa.hpp"

namespace vornet::platform {

std::optional<Image> Image::named(std::string_view name) {
  @autoreleasepool {
    NSString* resource = cocoa::string(name);
    if ([resource length] == 0 || ![NSImage imageNamed:resource]) return std::nullopt;
    return Image(std::string(name));
  }
}

namespace cocoa {

NSImage* image(const Image& image) {
  if (image.isEmpty()) return VORNET_AUTORELEASED([[NSImage alloc] init]);
  return [NSImage imageNamed:string(image.name())];
}

}  // namespace cocoa
}  // namespace vornet::platform
