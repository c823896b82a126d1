#pragma once

#include <optional>
#include <string>

#include "support/TemporaryFolder.hpp"

namespace vornet::test {

/// Sets an environment variable, or removes it for none, until the end of its life. Before other threads run.
class ScopedVariable {
 public:
  ScopedVariable(std::string name, const std::optional<std::string>& value);
  ~ScopedVariable();
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  std::string name_;
  std::optional<std::string> before_;
};

/// A test's private user environment: group containers, runtime folder and home in a temporary folder, the bundle of
/// the extension with the images of the build tree, and the locale "C".
class Environment {
 public:
  Environment();

  const TemporaryFolder& folder() const { return folder_; }

  /// The group container that the extension and the sync application share; made.
  std::filesystem::path container() const;

  /// The extension's log file.
  std::filesystem::path logFile() const { return container() / "log" / "vi.log"; }

 private:
  TemporaryFolder folder_;
  ScopedVariable containers_;
  ScopedVariable runtime_;
  ScopedVariable home_;
  ScopedVariable data_;
  ScopedVariable locale_;
};

}  // namespace vornet::test
