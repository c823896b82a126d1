#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

/// The part of the system's foundation that the core needs: file URLs, files, the group container, property lists, the
/// bundle, the process, dates and the fatal stop. One implementation a system, chosen when linking.
/// Every function here may be called from any thread unless it says otherwise.
namespace vornet::platform {

// --- Stopping -------------------------------------------------------------------------------------------------------

/// Stops the process because of an impossible state. `reason` goes to the system's own log, the handler and standard
/// error; where one of them makes the process wait, it stops after two seconds in any case.
[[noreturn]] void fatalError(std::string_view reason) noexcept;

/// Sets a function that gets the reason on the thread that stops the process; null: none.
using FatalErrorHandler = void (*)(std::string_view reason) noexcept;
void setFatalErrorHandler(FatalErrorHandler handler) noexcept;

/// Ends the process in an orderly way with `status`.
[[noreturn]] void exitProcess(int status);

/// Writes `message` (UTF-8) to the system's own log and to standard error. For what must be said before, or without,
/// the extension's logger.
void systemLog(std::string_view message);

/// Writes "Fatal error: " and `reason` to the system's own log, and to standard error only where that log does it.
void systemLogFatal(std::string_view reason) noexcept;

// --- Text -----------------------------------------------------------------------------------------------------------

/// True if `bytes` is well-formed UTF-8 (no overlong forms, no surrogates). Empty text is.
bool isValidUTF8(std::string_view bytes) noexcept;

// --- Files ----------------------------------------------------------------------------------------------------------

/// The URL of a file or folder on this machine. A value; its path may be absent (a URL whose bytes are not UTF-8, or a
/// default-constructed one). Two URLs are equal when their paths are.
class FileURL {
 public:
  /// A URL without a path.
  FileURL() = default;

  /// The URL of `path`: absolute, or relative to the current folder (without a path when that is gone). Trailing
  /// slashes are dropped, as the platform's URLs give their path without one; `isDirectory` only puts one at the end of
  /// the description. Touches no disk.
  static FileURL fileURLWithPath(std::string_view path, bool isDirectory = false);

  /// Reads a URL text such as "file:///home/ann/a%20b" or "file:/home/ann". None when it is not a file URL of this
  /// machine, or malformed (bad escapes, an escaped NUL, a query or fragment); a URL without a path when the decoded
  /// path is not UTF-8.
  static std::optional<FileURL> fileURLWithText(std::string_view text);

  /// The file-system path without trailing slash ("/" for the root folder), if there is one.
  const std::optional<std::string>& path() const noexcept { return path_; }

  /// True if the URL is known to be of a folder; false also when nothing was said of it.
  bool hasDirectoryPath() const noexcept { return isDirectory_; }

  /// The URL's text, percent-encoded ("file:///home/ann/a%20b"); empty without a path.
  std::string description() const;

  /// This URL with `name` added below it. Without a path: without a path.
  FileURL appendingPathComponent(std::string_view name) const;

  friend bool operator==(const FileURL& a, const FileURL& b) noexcept { return a.path_ == b.path_; }
  friend bool operator<(const FileURL& a, const FileURL& b) noexcept { return a.path_ < b.path_; }

 private:
  std::optional<std::string> path_;
  bool isDirectory_ = false;
};

/// The kind of file at a path; symbolic links are followed.
enum class FileKind { absent, file, directory };

/// The kind of the file at `path`; absent also when it cannot be examined.
FileKind fileKindAtPath(const std::string& path) noexcept;

/// The folder that the applications of `group` share; made (for its owner alone) when this process first asks for it,
/// and not again: whoever removed it may be about to replace it. None where it is absent and cannot be made.
std::optional<FileURL> containerURLForGroup(std::string_view group);

/// Makes the folder at `path` and those above it. An existing folder is no error. None on success, else the system's
/// description of the failure.
std::optional<std::string> createDirectory(const std::string& path);

/// Makes a new, empty file at `path` that its owner alone may read and write, in place of whatever is there: a file, a
/// link (its target is left alone), a pipe. Another process that has the old file open keeps it. A file that this
/// process writes through a FileHandle is emptied instead, and so is one of the user's own in a folder where names
/// cannot be changed. False when that failed, as for a folder at `path`. Never waits for a pipe's reader.
bool createFile(const std::string& path) noexcept;

/// A file open for writing at its end. Closed with the last copy. Writing from several threads at once is allowed; each
/// call is one write.
class FileHandle {
 public:
  /// Opens the existing regular file at `path`, which must be the user's own; no link is followed and no pipe waited
  /// for. None on failure; `error` then holds the system's description.
  static std::optional<FileHandle> forWriting(const std::string& path, std::string& error);

  /// The process's standard output. Not closed with the last copy.
  static FileHandle standardOutput();

  /// Writes all of `data`, a line or several; blocks where the file does. Failures are not reported: what finds no room
  /// is lost. When only the beginning of a line found room, the next write ends that line first.
  void write(std::string_view data) const noexcept;

 private:
  struct Impl;
  explicit FileHandle(std::shared_ptr<Impl> impl);
  std::shared_ptr<Impl> impl_;
};

/// A property list (XML or binary) whose top level is a dictionary.
class PropertyList {
 public:
  /// Reads the list at `path`. None when it cannot be read: no regular file, larger than 256 KiB, not a property list,
  /// beyond the limits of PropertyListScan.hpp, or not a dictionary at its top.
  static std::optional<PropertyList> dictionaryAtPath(const std::string& path);

  /// The text under `key`; none when the key is missing or holds something else.
  std::optional<std::string> textForKey(const std::string& key) const;

 private:
  struct Impl;
  explicit PropertyList(std::shared_ptr<const Impl> impl);
  std::shared_ptr<const Impl> impl_;
};

// --- Bundle and process ---------------------------------------------------------------------------------------------

/// The text under `key` in the main bundle's information dictionary; none when absent or not a text.
std::optional<std::string> bundleInfoText(const std::string& key);

/// The current process's name (the file name of its program) and identifier.
std::string processName();
std::int64_t processIdentifier() noexcept;

// --- Dates ----------------------------------------------------------------------------------------------------------

using Date = std::chrono::system_clock::time_point;

/// The identifier of the user's locale now ("ar_EG", "en_US_POSIX").
std::string currentLocaleIdentifier();

/// A date's own description ("2016-03-01 13:05:09 +0000"), for use without a formatter.
std::string dateDescription(Date date);

/// Writes dates by a pattern of Unicode's (LDML) date fields, with the digits and calendar of a locale, in the system's
/// time zone as it is then. Making one is expensive; using one is cheap. Not thread-safe: one a thread.
class DateFormatter {
 public:
  /// None when the platform offers no formatter for these.
  static std::unique_ptr<DateFormatter> make(const std::string& localeIdentifier, std::string_view pattern);
  ~DateFormatter();

  std::string stringFromDate(Date date);

 private:
  struct Impl;
  explicit DateFormatter(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

// --- Memory ---------------------------------------------------------------------------------------------------------

/// While it lives, what the platform's objects release "later" is collected here and released at its end. Lives on the
/// stack of one thread. Costs nothing where the platform has no such pools.
class AutoreleasePool {
 public:
  AutoreleasePool();
  ~AutoreleasePool();
  AutoreleasePool(const AutoreleasePool&) = delete;
  AutoreleasePool& operator=(const AutoreleasePool&) = delete;

 private:
  void* pool_;
};

}  // namespace vornet::platform
