// Files made and written by the calls that all systems share.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <set>
#include <system_error>
#include <utility>

#include "platform/Foundation.hpp"

namespace vornet::platform {
namespace {

constexpr mode_t OWNER_ALONE = 0600;

/// Opens a regular file that the user owns; follows no link and waits for no pipe's reader. -1, with errno, on failure.
int openOwnFile(const std::string& path) noexcept {
  const int file = ::open(path.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (file < 0) return -1;
  struct stat found{};
  int refusal = 0;
  if (::fstat(file, &found) != 0)
    refusal = errno;
  else if (!S_ISREG(found.st_mode))
    refusal = EOPNOTSUPP;
  else if (found.st_uid != ::geteuid())
    refusal = EPERM;
  if (refusal == 0) return file;
  ::close(file);
  errno = refusal;
  return -1;
}

/// Writes `parts`, waiting where the descriptor does not. Returns the bytes written: not all of them after an error or
/// on a full disk.
std::size_t writeOnce(int file, const iovec* parts, int count) noexcept {
  while (true) {
    const ssize_t written = count == 1 ? ::write(file, parts->iov_base, parts->iov_len) : ::writev(file, parts, count);
    if (written >= 0) return static_cast<std::size_t>(written);
    if (errno == EAGAIN) {  // another program may have made a shared terminal non-blocking
      pollfd writable{file, POLLOUT, 0};
      ::poll(&writable, 1, -1);
    } else if (errno != EINTR) {
      return 0;
    }
  }
}

/// The files that this process has open through handles. Any thread.
class OpenFiles {
 public:
  using File = std::pair<dev_t, ino_t>;

  static OpenFiles& shared() {
    static auto& files = *new OpenFiles;  // never destroyed: handles may be closed until the very end
    return files;
  }
  void add(const File& file) {
    const std::lock_guard guard(lock_);
    files_.insert(file);
  }
  void remove(const File& file) {
    const std::lock_guard guard(lock_);
    files_.erase(files_.find(file));
  }
  bool contains(const File& file) {
    const std::lock_guard guard(lock_);
    return files_.contains(file);
  }

 private:
  std::mutex lock_;
  std::multiset<File> files_;
};

OpenFiles::File identityOf(const struct stat& found) noexcept {
  return {found.st_dev, found.st_ino};
}

iovec part(std::string_view data) noexcept {
  return {const_cast<char*>(data.data()), data.size()};
}

}  // namespace

bool createFile(const std::string& path) noexcept {
  struct stat found{};
  int file = -1;
  if (::lstat(path.c_str(), &found) != 0 || !OpenFiles::shared().contains(identityOf(found))) {
    ::unlink(path.c_str());
    file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, OWNER_ALONE);
  }
  bool empty = file >= 0;
  if (!empty) {  // this process goes on writing to the file, or cannot remove what is there
    file = openOwnFile(path);
    if (file < 0) return false;
    empty = ::ftruncate(file, 0) == 0;
  }
  ::fchmod(file, OWNER_ALONE);  // whatever the umask
  ::close(file);
  return empty;
}

struct FileHandle::Impl {
  explicit Impl(int opened) : file(opened) {}
  Impl(int opened, const OpenFiles::File& identity) : file(opened), own(identity) { OpenFiles::shared().add(identity); }
  ~Impl() {
    if (!own) return;
    OpenFiles::shared().remove(*own);
    ::close(file);
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  /// Writes `data`, of which `written` bytes have been written already, to its end; notes whether a line was cut.
  void finish(std::string_view data, std::size_t written) noexcept {
    while (written < data.size()) {
      const iovec rest = part(data.substr(written));
      const std::size_t more = writeOnce(file, &rest, 1);
      if (more == 0) break;
      written += more;
    }
    cut = written > 0 && written < data.size() && data[written - 1] != '\n';
  }

  const int file;
  const std::optional<OpenFiles::File> own;  // none: a descriptor that stays open
  std::atomic<bool> cut{false};              // the last write ended within a line; changed under the lock
  std::mutex mending;                        // held only while a line has been cut
};

FileHandle::FileHandle(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}

std::optional<FileHandle> FileHandle::forWriting(const std::string& path, std::string& error) {
  const int file = openOwnFile(path);
  if (file < 0) {
    error = std::generic_category().message(errno);
    return std::nullopt;
  }
  struct stat found{};
  ::fstat(file, &found);
  return FileHandle(std::make_shared<Impl>(file, identityOf(found)));
}

FileHandle FileHandle::standardOutput() {
  // One for all, as it knows if a line was cut; never destroyed, as threads may write until the very end.
  static const auto& impl = *new std::shared_ptr<Impl>(std::make_shared<Impl>(STDOUT_FILENO));
  return FileHandle(impl);
}

void FileHandle::write(std::string_view data) const noexcept {
  Impl& impl = *impl_;
  std::size_t written = 0;
  if (!impl.cut) {
    const iovec whole = part(data);
    written = writeOnce(impl.file, &whole, 1);
    if (written == data.size() || written == 0) return;
  }
  const std::lock_guard guard(impl.mending);
  if (!impl.cut) return impl.finish(data, written);
  const iovec parts[] = {part("\n"), part(data)};
  const std::size_t mended = writeOnce(impl.file, parts, 2);
  if (mended > 0) impl.finish(data, mended - 1);
}

}  // namespace vornet::platform
