#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "platform/Foundation.hpp"

namespace vornet::platform {
namespace {

std::string systemError(int number) {
  return std::generic_category().message(number);
}

}  // namespace

FileKind fileKindAtPath(const std::string& path) noexcept {
  struct stat found;
  if (::stat(path.c_str(), &found) != 0) return FileKind::absent;
  return S_ISDIR(found.st_mode) ? FileKind::directory : FileKind::file;
}

std::optional<std::string> createDirectory(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error) return error.message();
  return std::nullopt;
}

bool createFile(const std::string& path) noexcept {
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (file < 0) return false;
  ::close(file);
  return true;
}

struct FileHandle::Impl {
  explicit Impl(int opened) : file(opened) {}
  ~Impl() { ::close(file); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  const int file;
};

FileHandle::FileHandle(std::shared_ptr<const Impl> impl) : impl_(std::move(impl)) {}

std::optional<FileHandle> FileHandle::forWriting(const std::string& path, std::string& error) {
  const int file = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (file < 0) {
    error = systemError(errno);
    return std::nullopt;
  }
  return FileHandle(std::make_shared<const Impl>(file));
}

void FileHandle::write(std::string_view data) const noexcept {
  while (!data.empty()) {
    const auto written = ::write(impl_->file, data.data(), data.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    data.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace vornet::platform
