#import "platform/macos/Cocoa.hpp"

namespace vornet::platform::cocoa {

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

}  // namespace vornet::platform::cocoa
