#include "logging/LogDestinations.hpp"

#include <atomic>

#include "logging/DateFormatterCache.hpp"

namespace vornet {
namespace {

std::string dateText(platform::Date date, platform::DateFormatter* formatter) {
  return formatter ? formatter->stringFromDate(date) : platform::dateDescription(date);
}

std::string_view lastPathComponent(std::string_view path) {
  return path.substr(path.find_last_of('/') + 1);
}

/// The lines on their way to standard output, of all console destinations.
struct Console {
  static constexpr std::size_t QUEUED_LINE = 128;  // about the bytes a line takes in the queue beside its text

  std::atomic<std::size_t> waiting{0};  // bytes
  std::atomic<std::size_t> dropped{0};  // lines not yet reported

  static Console& shared() {
    static auto& console = *new Console;  // never destroyed, as the queue is not
    return console;
  }

  void write(std::string line) {
    const std::size_t size = line.size() + QUEUED_LINE;
    waiting += size;
    XCGLogger::logQueue().async([this, size, line = std::move(line)] {
      platform::FileHandle::standardOutput().write(line);
      waiting -= size;
    });
  }
};

}  // namespace

std::string LogLineFormat::callerLine(const XCGLogDetails& details, platform::DateFormatter* formatter) const {
  std::string line = dateText(details.date, formatter);
  line.reserve(line.size() + details.functionName.size() + details.logMessage.size() + 64);
  line += ' ';
  if (showLogLevel) line.append("[").append(description(details.logLevel)).append("] ");
  if (showFileName) {
    line.append("[").append(lastPathComponent(details.fileName));
    if (showLineNumber) line.append(":").append(std::to_string(details.lineNumber));
    line += "] ";
  } else if (showLineNumber) {
    line.append("[").append(std::to_string(details.lineNumber)).append("] ");
  }
  line.append(details.functionName).append(": ").append(details.logMessage).append("\n");
  return line;
}

std::string LogLineFormat::internalLine(const XCGLogDetails& details, platform::DateFormatter* formatter) const {
  std::string line = dateText(details.date, formatter);
  line += ' ';
  if (showLogLevel) line.append("[").append(description(details.logLevel)).append("] ");
  line.append(": ").append(details.logMessage).append("\n");
  return line;
}

std::string LogLineFormat::debugDescription(std::string_view kind, std::string_view identifier) const {
  const auto flag = [](bool value) { return value ? "true" : "false"; };
  std::string text(kind);
  text.append(": ").append(identifier).append(" - LogLevel: ").append(description(outputLogLevel()));
  text.append(" showLogLevel: ").append(flag(showLogLevel));
  text.append(" showFileName: ").append(flag(showFileName));
  text.append(" showLineNumber: ").append(flag(showLineNumber));
  return text;
}

platform::DateFormatter* XCGFormattedLogDestination::dateFormatter() const {
  return dateFormatterOfThread();
}

XCGConsoleLogDestination::XCGConsoleLogDestination(XCGLogger& owner, std::string identifier)
    : XCGFormattedLogDestination(owner, std::move(identifier)) {}

void XCGConsoleLogDestination::processLogDetails(const XCGLogDetails& details) {
  if (hasRoom(details)) Console::shared().write(format().callerLine(details, dateFormatter()));
}

void XCGConsoleLogDestination::processInternalLogDetails(const XCGLogDetails& details) {
  if (hasRoom(details)) Console::shared().write(format().internalLine(details, dateFormatter()));
}

bool XCGConsoleLogDestination::hasRoom(const XCGLogDetails& details) const {
  auto& console = Console::shared();
  if (console.waiting >= MAX_WAITING_BYTES) {
    ++console.dropped;
    return false;
  }
  if (console.dropped == 0) return true;
  if (const auto count = console.dropped.exchange(0); count > 0) {
    XCGLogDetails report;
    report.logLevel = LogLevel::Warning;
    report.date = details.date;
    report.logMessage = "Lines dropped because nobody read the output: " + std::to_string(count);
    console.write(format().internalLine(report, dateFormatter()));
  }
  return true;
}

std::string XCGConsoleLogDestination::debugDescription() const {
  return format().debugDescription("XCGConsoleLogDestination", identifier());
}

XCGFileLogDestination::XCGFileLogDestination(XCGLogger& owner, const XCGLogger::FileTarget& writeToFile,
                                             std::string identifier)
    : XCGFormattedLogDestination(owner, std::move(identifier)) {
  if (const auto* path = std::get_if<std::string>(&writeToFile))
    setWriteToFileURL(platform::FileURL::fileURLWithPath(*path));
  else
    setWriteToFileURL(std::get<platform::FileURL>(writeToFile));
}

void XCGFileLogDestination::processLogDetails(const XCGLogDetails& details) {
  if (logFileHandle_) writeLine(format().callerLine(details, dateFormatter()));
}

void XCGFileLogDestination::processInternalLogDetails(const XCGLogDetails& details) {
  if (logFileHandle_) writeLine(format().internalLine(details, dateFormatter()));
}

std::string XCGFileLogDestination::debugDescription() const {
  return format().debugDescription("XCGFileLogDestination", identifier());
}

void XCGFileLogDestination::setWriteToFileURL(std::optional<platform::FileURL> url) {
  writeToFileURL_ = std::move(url);
  openFile();
}

void XCGFileLogDestination::openFile() {
  logFileHandle_.reset();
  if (!writeToFileURL_ || !writeToFileURL_->path()) return;

  const std::string& path = *writeToFileURL_->path();
  platform::createFile(path);
  std::string error;
  logFileHandle_ = platform::FileHandle::forWriting(path, error);
  if (!logFileHandle_) {
    const std::string optional = error.empty() ? "nil" : "Optional(\"" + error + "\")";
    const std::string message = "Attempt to open log file for writing failed: " + optional;
    owner()._logln(message, LogLevel::Error);
    platform::systemLog(message);  // nobody may see the console
    return;
  }
  owner()._logln("XCGLogger writing to log to: " + writeToFileURL_->description(), LogLevel::Info);
  owner().logAppDetails(this);
}

void XCGFileLogDestination::writeLine(const std::string& line) const {
  if (platform::isValidUTF8(line)) logFileHandle_->write(line);
}

}  // namespace vornet
