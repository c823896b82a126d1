#pragma once

#include <string>
#include <string_view>

namespace vornet::vi {

/// Thrown when nobody reads the output any more. Not a failure to report.
struct BrokenPipe {};

/// A file descriptor to write lines to, collected until flushed. SIGPIPE must be ignored. Not thread-safe.
class Output {
 public:
  explicit Output(int descriptor) : descriptor_(descriptor) {}

  /// Adds `text`; writes when much has come together.
  void write(std::string_view text);
  /// Writes everything. Throws BrokenPipe, or std::runtime_error when the output cannot be written.
  void flush();

  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
  std::string pending_;
};

}  // namespace vornet::vi
