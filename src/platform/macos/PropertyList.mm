#import "platform/macos/Cocoa.hpp"

#include "platform/PropertyListScan.hpp"

namespace vornet::platform {
namespace {

/// The bytes of the regular file at `path`; nil when it cannot be read or is larger than the limit.
NSData* bytesOfFile(NSString* path) {
  NSDictionary* attributes =
      [[NSFileManager defaultManager] attributesOfItemAtPath:[path stringByResolvingSymlinksInPath] error:NULL];
  if (![[attributes fileType] isEqualToString:NSFileTypeRegular] || [attributes fileSize] > MAX_PROPERTY_LIST_BYTES)
    return nil;
  return [NSData dataWithContentsOfFile:path];
}

/// The dictionary at the top of the property list `bytes`; nil when there is none.
NSDictionary* dictionaryIn(NSData* bytes) {
  NSPropertyListFormat format = NSPropertyListXMLFormat_v1_0;
  id root = [NSPropertyListSerialization propertyListWithData:bytes
                                                      options:NSPropertyListImmutable
                                                       format:&format
                                                        error:NULL];
  const bool known = format == NSPropertyListXMLFormat_v1_0 || format == NSPropertyListBinaryFormat_v1_0;
  return known && [root isKindOfClass:[NSDictionary class]] ? root : nil;
}

}  // namespace

struct PropertyList::Impl {
  explicit Impl(NSDictionary* read) : root([read retain]) {}
  ~Impl() { [root release]; }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  NSDictionary* const root;
};

PropertyList::PropertyList(std::shared_ptr<const Impl> impl) : impl_(std::move(impl)) {}

std::optional<PropertyList> PropertyList::dictionaryAtPath(const std::string& path) {
  @autoreleasepool {
    NSString* file = cocoa::string(path);
    NSData* bytes = file ? bytesOfFile(file) : nil;
    if (scanPropertyList({static_cast<const char*>([bytes bytes]), [bytes length]}) == PropertyListFormat::none)
      return std::nullopt;
    NSDictionary* root = dictionaryIn(bytes);
    if (!root) return std::nullopt;
    return PropertyList(std::make_shared<const Impl>(root));
  }
}

std::optional<std::string> PropertyList::textForKey(const std::string& key) const {
  @autoreleasepool {
    id value = [impl_->root objectForKey:cocoa::string(key)];
    if (![value isKindOfClass:[NSString class]]) return std::nullopt;
    return cocoa::text(value);
  }
}

}  // namespace vornet::platform
