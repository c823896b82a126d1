#import "platform/macos/Cocoa.hpp"

namespace vornet::platform {
namespace {

std::string descriptionOf(NSError* error) {
  return cocoa::text([error localizedDescription]).value_or("");
}

/// The name that the entitlements have for `group`; its beginning may have to be that of the signing team.
NSString* entitledName(NSString* group) {
  NSDictionary* names = [[[NSBundle mainBundle] infoDictionary] objectForKey:@"VornetApplicationGroups"];
  NSString* name = [names objectForKey:group];
  return name ? name : group;
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

std::optional<FileURL> containerURLForGroup(std::string_view group) {
  @autoreleasepool {
    NSString* identifier = cocoa::string(group);
    if ([identifier length] == 0) return std::nullopt;
    NSURL* container =
        [[NSFileManager defaultManager] containerURLForSecurityApplicationGroupIdentifier:entitledName(identifier)];
    const auto path = cocoa::text([container path]);
    if (!path) return std::nullopt;
    return FileURL::fileURLWithPath(*path, true);
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
