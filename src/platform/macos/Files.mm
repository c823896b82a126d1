#import "platform/macos/Cocoa.hpp"

namespace vornet::platform {
namespace {

std::string descriptionOf(NSError* error) {
  return cocoa::text([error localizedDescription]).value_or("");
}

}  // namespace

FileKind fileKindAtPath(const std::string& path) noexcept {
  @autoreleasepool {
    NSString* item = cocoa::string(path);
    BOOL isDirectory = NO;
    if (!item || ![[NSFileManager defaultManager] fileExistsAtPath:item isDirectory:&isDirectory])
      return FileKind::absent;
    return isDirectory ? FileKind::directory : FileKind::file;
  }
}

std::optional<std::string> createDirectory(const std::string& path) {
  @autoreleasepool {
    NSString* folder = cocoa::string(path);
    if (!folder) return "the path is not UTF-8";
    NSError* error = nil;
    const BOOL made = [[NSFileManager defaultManager] createDirectoryAtPath:folder
                                                withIntermediateDirectories:YES
                                                                 attributes:nil
                                                                      error:&error];
    if (made) return std::nullopt;
    return descriptionOf(error);
  }
}

}  // namespace vornet::platform
