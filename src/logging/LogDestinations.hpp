#pragma once

#include <atomic>
#include <cstddef>
#include <optional>
#include <string>

#include "logging/LogDestination.hpp"
#include "logging/XCGLogger.hpp"

namespace vornet {

/// Level and show flags of a destination, and the text line that they make of a record. Set before other threads log;
/// making lines is thread-safe.
class LogLineFormat {
 public:
  LogLevel outputLogLevel() const noexcept { return outputLogLevel_.load(std::memory_order_relaxed); }
  void setOutputLogLevel(LogLevel level) noexcept { outputLogLevel_.store(level, std::memory_order_relaxed); }

  bool showFileName = true;
  bool showLineNumber = true;
  bool showLogLevel = true;

  /// The line of a caller's record: date, "[level] ", "[file:line] ", function, ": ", message, line feed.
  std::string callerLine(const XCGLogDetails& details, platform::DateFormatter* formatter) const;

  /// The line of a record of the logger's own: date, "[level] ", ": ", message, line feed.
  std::string internalLine(const XCGLogDetails& details, platform::DateFormatter* formatter) const;

  /// `kind` + ": " + identifier, level and flags.
  std::string debugDescription(std::string_view kind, std::string_view identifier) const;

 private:
  std::atomic<LogLevel> outputLogLevel_{LogLevel::Debug};
};

/// The common part of the two destinations: owner, identifier, level and flags. Neither derives from the other.
class XCGFormattedLogDestination : public XCGLogDestinationProtocol {
 public:
  XCGLogger& owner() const override { return *owner_; }
  void setOwner(XCGLogger& owner) override { owner_ = &owner; }
  const std::string& identifier() const override { return identifier_; }
  void setIdentifier(std::string identifier) override { identifier_ = std::move(identifier); }
  LogLevel outputLogLevel() const override { return format_.outputLogLevel(); }
  void setOutputLogLevel(LogLevel level) override { format_.setOutputLogLevel(level); }
  bool isEnabledForLogLevel(LogLevel level) const override { return level >= format_.outputLogLevel(); }

  void setShowFileName(bool show) { format_.showFileName = show; }
  void setShowLineNumber(bool show) { format_.showLineNumber = show; }
  void setShowLogLevel(bool show) { format_.showLogLevel = show; }

  // What was set. Kept ready; nothing calls it yet.
  bool showFileName() const { return format_.showFileName; }
  bool showLineNumber() const { return format_.showLineNumber; }
  bool showLogLevel() const { return format_.showLogLevel; }

  /// The calling thread's formatter; null when the platform offers none.
  virtual platform::DateFormatter* dateFormatter() const;

 protected:
  XCGFormattedLogDestination(XCGLogger& owner, std::string identifier)
      : owner_(&owner), identifier_(std::move(identifier)) {}

  const LogLineFormat& format() const { return format_; }

 private:
  XCGLogger* owner_;
  std::string identifier_;
  LogLineFormat format_;
};

/// Writes lines to standard output: formatted on the caller's thread, written one after another on
/// XCGLogger::logQueue(), so that no caller waits. When nobody reads the output, lines wait in memory, up to a bound;
/// further ones are dropped, and their number is written, at Warning, before the first line that finds room again.
class XCGConsoleLogDestination : public XCGFormattedLogDestination {
 public:
  /// The most bytes that may wait, in all console destinations together, when another line comes.
  static constexpr std::size_t MAX_WAITING_BYTES = std::size_t{1} << 20;

  XCGConsoleLogDestination(XCGLogger& owner, std::string identifier);

  void processLogDetails(const XCGLogDetails& details) override;
  void processInternalLogDetails(const XCGLogDetails& details) override;
  std::string debugDescription() const override;

 private:
  /// True if a line may be queued now; counts one that may not.
  bool hasRoom(const XCGLogDetails& details) const;
};

/// Writes lines to a file that starts empty at each opening. Each line is one write on the caller's thread; lines of
/// several threads are whole but not ordered against each other. Without an open file, and for text that is not UTF-8,
/// lines are dropped.
class XCGFileLogDestination : public XCGFormattedLogDestination {
 public:
  /// Opens `writeToFile` at once. A failure is reported through the owner's other destinations and the system's log.
  XCGFileLogDestination(XCGLogger& owner, const XCGLogger::FileTarget& writeToFile, std::string identifier);

  void processLogDetails(const XCGLogDetails& details) override;
  void processInternalLogDetails(const XCGLogDetails& details) override;
  std::string debugDescription() const override;

  /// Kept ready; nothing calls it yet.
  const std::optional<platform::FileURL>& writeToFileURL() const { return writeToFileURL_; }

  /// Takes `url` as the target and (re)opens the file.
  void setWriteToFileURL(std::optional<platform::FileURL> url);

 private:
  void openFile();
  void writeLine(const std::string& line) const;

  std::optional<platform::FileURL> writeToFileURL_;
  std::optional<platform::FileHandle> logFileHandle_;
};

}  // namespace vornet
