// A program of the core for macOS that needs none of the seam's Objective-C++: reads a reply of the sync application
// from standard input and prints how many of its items are synced.
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <iterator>

#include "cache/StatusTable.hpp"
#include "paths/JSON.hpp"
#include "platform/Dispatch.hpp"
#include "platform/Foundation.hpp"

namespace vornet::platform {

// In Objective-C++ otherwise.
bool isValidUTF8(std::string_view) noexcept {
  return true;
}
void systemLogFatal(std::string_view reason) noexcept {
  ::write(STDERR_FILENO, reason.data(), reason.size());
}

}  // namespace vornet::platform

int main() {
  using namespace vornet;
  StatusTable table("/");
  std::size_t synced = 0;
  auto work = platform::BackgroundTask::start([&] {
    try {
      integersFromJSON(std::string(std::istreambuf_iterator<char>(std::cin), {}),
                       [&](std::string_view path, auto code) {
                         table.set(path, code);
                         if (code == 2) ++synced;
                       });
    } catch (const JSONError& error) {
      platform::fatalError(error.what());
    }
  });
  work.wait();
  platform::SerialQueue("output").async([&] { std::printf("%zu of %zu\n", synced, table.size()); });
}
