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
