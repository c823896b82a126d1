#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#import "platform/macos/Cocoa.hpp"

namespace vornet::platform {
namespace {

std::string descriptionOf(NSError* error) {
  return cocoa::text([error localizedDescription]).value_or("");
}

}  // namespace

FileKind fileKindAtPath(const std::string& path) noexcept {
  @autoreleasepool {
    NSString* item = cocoa::string(path);
    BOOL isDirectory = NO;
    if (!item || ![[NSFileManager defaultManager] fileExistsAtPath:item isDirectory:&isDirectory]) {
      return FileKind::absent;
    }
    return isDirectory ? FileKind::directory : FileKind::file;
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

bool createFile(const std::string& path) noexcept {
  @autoreleasepool {
    NSString* file = cocoa::string(path);
    return file && [[NSFileManager defaultManager] createFileAtPath:file contents:nil attributes:nil];
  }
}

struct FileHandle::Impl {
  explicit Impl(NSFileHandle* opened) : handle([opened retain]), file([opened fileDescriptor]) {}
  ~Impl() {
    [handle closeFile];
    [handle release];
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  NSFileHandle* const handle;
  const int file;
};

FileHandle::FileHandle(std::shared_ptr<const Impl> impl) : impl_(std::move(impl)) {}

std::optional<FileHandle> FileHandle::forWriting(const std::string& path, std::string& error) {
  @autoreleasepool {
    NSURL* url = cocoa::url(FileURL::fileURLWithPath(path));
    NSError* reason = nil;
    NSFileHandle* handle = url ? [NSFileHandle fileHandleForWritingToURL:url error:&reason] : nil;
    if (!handle) {
      error = descriptionOf(reason);
      return std::nullopt;
    }
    auto impl = std::make_shared<const Impl>(handle);
    ::fcntl(impl->file, F_SETFL, ::fcntl(impl->file, F_GETFL) | O_APPEND);
    return FileHandle(std::move(impl));
  }
}

// Not through the handle's own operation: that one raises an exception when the disk is full.
void FileHandle::write(std::string_view data) const noexcept {
  while (!data.empty()) {
    const auto written = ::write(impl_->file, data.data(), data.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    data.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace vornet::platform
