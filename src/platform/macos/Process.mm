#include <unistd.h>

#include <cstdlib>

#import "platform/macos/Cocoa.hpp"

namespace vornet::platform {

void exitProcess(int status) {
  std::exit(status);
}

void systemLog(std::string_view message) {
  @autoreleasepool {
    NSLog(@"%@", cocoa::string(message));
  }
}

void systemLogFatal(std::string_view reason) noexcept {
  systemLog("Fatal error: " + std::string(reason));
}

std::optional<std::string> bundleInfoText(const std::string& key) {
  @autoreleasepool {
    id value = [[[NSBundle mainBundle] infoDictionary] objectForKey:cocoa::string(key)];
    if (![value isKindOfClass:[NSString class]]) return std::nullopt;
    return cocoa::text(value);
  }
}

std::string processName() {
  @autoreleasepool {
    return cocoa::text([[NSProcessInfo processInfo] processName]).value_or("");
  }
}

std::int64_t processIdentifier() noexcept {
  return ::getpid();
}

AutoreleasePool::AutoreleasePool() : pool_([[NSAutoreleasePool alloc] init]) {}
AutoreleasePool::~AutoreleasePool() {
  [static_cast<NSAutoreleasePool*>(pool_) drain];
}

}  // namespace vornet::platform
