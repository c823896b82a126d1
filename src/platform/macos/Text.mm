#import <Foundation/Foundation.h>

#include "platform/Foundation.hpp"

namespace vornet::platform {

bool isValidUTF8(std::string_view bytes) noexcept {
  if (bytes.empty()) return true;
  NSString* text = [[NSString alloc] initWithBytes:bytes.data() length:bytes.size() encoding:NSUTF8StringEncoding];
  const bool valid = text != nil;
  [text release];
  return valid;
}

}  // namespace vornet::platform
