#pragma once

#import <AppKit/AppKit.h>
#import <Foundation/Foundation.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/AppKit.hpp"
#include "platform/Foundation.hpp"

/// Memory is managed by hand: a new object that is handed out goes through this, one that is kept is released by its
/// keeper.
#define VORNET_AUTORELEASED(object) [(object) autorelease]

/// Between the seam's values and the system's objects. Any thread; what is returned is autoreleased.
namespace vornet::platform::cocoa {

/// `text` as a string object; nil when it is not UTF-8.
NSString* string(std::string_view text);

/// The UTF-8 text of `string`; none for nil and for what has no UTF-8 form.
std::optional<std::string> text(NSString* string);

/// The file URL object of `url`; nil when that has no path.
NSURL* url(const FileURL& url);

/// The file URL `url`; one without a path for nil and for a URL that has none.
FileURL fileURL(NSURL* url);

/// While it lives, a badge that this thread sets on the file URL of `url` goes out on that object: a new one would be
/// looked up on disk, and might not equal it. Lives on the stack.
class BadgedObject {
 public:
  explicit BadgedObject(NSURL* url);
  ~BadgedObject();
  BadgedObject(const BadgedObject&) = delete;
  BadgedObject& operator=(const BadgedObject&) = delete;
};

/// The image resource that `image` names; a new, empty image for an empty one.
NSImage* image(const Image& image);

/// `menu` as a menu object; its items have no target, so their actions go to the principal object.
NSMenu* menu(const ContextMenu& menu);

/// Runs `body` as the outermost C++ frame below an Objective-C one: an exception that leaves it stops the process.
template <class Body>
auto outermost(Body&& body) noexcept {
  return body();
}

}  // namespace vornet::platform::cocoa
