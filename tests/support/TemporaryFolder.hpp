#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace vornet::test {

/// A new folder, removed with all its content at the end.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string operator/(std::string_view name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

/// Writes `content` to the file at `path`, making the folders above it.
void writeFile(const std::filesystem::path& path, std::string_view content);

/// The content of the file at `path`; empty when it cannot be read.
std::string readFile(const std::filesystem::path& path);

}  // namespace vornet::test
