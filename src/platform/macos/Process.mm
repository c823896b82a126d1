#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#import "platform/macos/Cocoa.hpp"

namespace vornet::platform {

void fatalError(std::string_view reason) noexcept {
  std::fprintf(stderr, "Fatal error: %.*s\n", static_cast<int>(reason.size()), reason.data());
  std::abort();
}

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
