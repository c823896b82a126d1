#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "logging/LogLevel.hpp"
#include "platform/Foundation.hpp"

namespace vornet {

class XCGLogger;

/// One log record. A plain value.
struct XCGLogDetails {
  LogLevel logLevel = LogLevel::Debug;
  platform::Date date;          ///< the moment of the call
  std::string logMessage;       ///< the caller's text, unchanged
  std::string functionName;     ///< the caller's function; empty for the logger's own records
  std::string fileName;         ///< the caller's source file, with its folders; empty for the logger's own records
  std::int64_t lineNumber = 0;  ///< the caller's line; 0 for the logger's own records
};

/// A source file's path as log records carry it: without extension, because a source file's name is what a reader of
/// the log looks for ("src/logging/Logging.cpp" -> "src/logging/Logging"). For __FILE__.
constexpr std::string_view sourceFile(std::string_view file) noexcept {
  const std::size_t name = file.find_last_of('/') + 1;
  const std::size_t dot = file.find_last_of('.');
  return dot == std::string_view::npos || dot <= name ? file : file.substr(0, dot);
}

/// A place where log records go. The owning logger calls the two process operations from any thread, several at once;
/// everything else is set before other threads log.
class XCGLogDestinationProtocol {
 public:
  virtual ~XCGLogDestinationProtocol() = default;

  /// The logger this destination belongs to. It outlives the destination.
  virtual XCGLogger& owner() const = 0;
  /// Kept ready; nothing calls it yet.
  virtual void setOwner(XCGLogger& owner) = 0;

  /// The key under which the logger finds, adds and removes the destination.
  virtual const std::string& identifier() const = 0;
  /// Kept ready; nothing calls it yet.
  virtual void setIdentifier(std::string identifier) = 0;

  virtual LogLevel outputLogLevel() const = 0;
  virtual void setOutputLogLevel(LogLevel level) = 0;

  /// Writes a caller's record.
  virtual void processLogDetails(const XCGLogDetails& details) = 0;

  /// Writes a record of the logger's own: without function, file and line.
  virtual void processInternalLogDetails(const XCGLogDetails& details) = 0;

  /// True if records of `level` are taken: `level` is at least outputLogLevel().
  virtual bool isEnabledForLogLevel(LogLevel level) const = 0;

  /// The kind, identifier, level and flags as text.
  /// Kept ready; nothing calls it yet.
  virtual std::string debugDescription() const = 0;
};

}  // namespace vornet
