#import "platform/macos/Cocoa.hpp"

namespace vornet::platform {

bool isValidUTF8(std::string_view bytes) noexcept {
  if (bytes.empty()) return true;
  NSString* text = [[NSString alloc] initWithBytes:bytes.data() length:bytes.size() encoding:NSUTF8StringEncoding];
  const bool valid = text != nil;
  [text release];
  return valid;
}

namespace cocoa {

NSString* string(std::string_view text) {
  return VORNET_AUTORELEASED([[NSString alloc] initWithBytes:text.data()
                                                      length:text.size()
                                                    encoding:NSUTF8StringEncoding]);
}

std::optional<std::string> text(NSString* string) {
  const char* bytes = [string UTF8String];
  if (!bytes) return std::nullopt;
  return std::string(bytes, [string lengthOfBytesUsingEncoding:NSUTF8StringEncoding]);  // a NUL is no end
}

NSURL* url(const FileURL& url) {
  NSString* path = url.path() ? string(*url.path()) : nil;
  if (!path) return nil;
  // What is not known to be a folder is looked up on disk, so that the URL equals the file manager's own.
  return url.hasDirectoryPath() ? [NSURL fileURLWithPath:path isDirectory:YES] : [NSURL fileURLWithPath:path];
}

FileURL fileURL(NSURL* url) {
  const auto path = text([url path]);
  if (!path || path->empty()) return {};
  return FileURL::fileURLWithPath(*path, [[url absoluteString] hasSuffix:@"/"]);
}

}  // namespace cocoa
}  // namespace vornet::platform
