#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "logging/LogDestination.hpp"
#include "logging/LogLevel.hpp"
#include "platform/Dispatch.hpp"
#include "platform/Foundation.hpp"

namespace vornet {

/// A levelled logger: forms one record a call and hands it to each destination that takes records of that level. Any
/// thread may log. Destinations and levels are set up before other threads log, without a lock. Never fails or
/// throws without a destination: a record that none takes is dropped.
class XCGLogger {
 public:
  using LogLevel = vornet::LogLevel;
  using Destination = std::shared_ptr<XCGLogDestinationProtocol>;
  /// A path, or a file URL.
  using FileTarget = std::variant<std::string, platform::FileURL>;

  struct constants {
    static constexpr std::string_view versionString = "1.8.1";
    static constexpr std::string_view defaultInstanceIdentifier = "com.vornet.xcglogger.defaultInstance";
    static constexpr std::string_view baseConsoleLogDestinationIdentifier =
        "com.vornet.xcglogger.logdestination.console";
    static constexpr std::string_view baseFileLogDestinationIdentifier = "com.vornet.xcglogger.logdestination.file";
    static constexpr std::string_view logQueueIdentifier = "com.vornet.xcglogger.queue";
    static constexpr std::string_view nsdataFormatterCacheIdentifier = "com.vornet.xcglogger.nsdataFormatterCache";
    /// The time that the end of the process waits for the console's last lines.
    static constexpr std::chrono::milliseconds lastLinesAtMost{150};
  };

  /// A logger with identifier "", level Debug and one console destination at that level with all flags on.
  XCGLogger();
  virtual ~XCGLogger();
  XCGLogger(const XCGLogger&) = delete;
  XCGLogger& operator=(const XCGLogger&) = delete;

  /// Kept ready; nothing calls it yet.
  const std::string& identifier() const noexcept { return identifier_; }
  /// Kept ready; nothing calls it yet.
  void setIdentifier(std::string identifier) { identifier_ = std::move(identifier); }

  /// The logger's level. Setting it sets the level of every attached destination, in list order.
  LogLevel outputLogLevel() const noexcept { return outputLogLevel_; }
  void setOutputLogLevel(LogLevel level);

  /// The one queue of the process on which console destinations write.
  static platform::SerialQueue& logQueue();

  /// The calling thread's date formatter for the current locale; null when the platform offers none.
  platform::DateFormatter* dateFormatter() const;

  /// The destinations in the order in which they receive each record.
  /// Kept ready; nothing calls it yet.
  const std::vector<Destination>& logDestinations() const noexcept { return logDestinations_; }
  /// Kept ready; nothing calls it yet.
  void setLogDestinations(std::vector<Destination> destinations) { logDestinations_ = std::move(destinations); }

  /// The default logger, made on first use.
  static XCGLogger& defaultInstance();

  /// Deprecated name of defaultInstance(); says so in the log.
  /// Kept ready; nothing calls it yet.
  static XCGLogger& sharedInstance();

  /// Sets the level and the console's flags, writes the application details to every attached destination and, when
  /// `writeToFile` is given, opens that file and attaches it as a destination with the same level and flags.
  virtual void setup(LogLevel level = LogLevel::Debug, bool showLogLevel = true, bool showFileNames = true,
                     bool showLineNumbers = true, const std::optional<FileTarget>& writeToFile = std::nullopt);

  /// Logs `message` at `level`. `fileName`: the source file with its folders; `lineNumber`: from 1.
  virtual void logln(std::string_view message, LogLevel level, std::string_view functionName, std::string_view fileName,
                     std::int64_t lineNumber);

  /// Runs `closure` only when isEnabledForLogLevel(level).
  /// Kept ready; nothing calls it yet.
  void exec(LogLevel level, const std::function<void()>& closure);

  /// Writes two lines at Info (process and version; logger version and level) to `selected`, or to every destination.
  virtual void logAppDetails(XCGLogDestinationProtocol* selected = nullptr);

  /// Kept ready; nothing calls it yet.
  void verbose(std::string_view message, std::string_view functionName, std::string_view fileName, std::int64_t line);
  void debug(std::string_view message, std::string_view functionName, std::string_view fileName, std::int64_t line);
  void info(std::string_view message, std::string_view functionName, std::string_view fileName, std::int64_t line);
  void warning(std::string_view message, std::string_view functionName, std::string_view fileName, std::int64_t line);
  /// Kept ready; nothing calls it yet.
  void error(std::string_view message, std::string_view functionName, std::string_view fileName, std::int64_t line);
  /// Kept ready; nothing calls it yet.
  void severe(std::string_view message, std::string_view functionName, std::string_view fileName, std::int64_t line);

  // exec at each level. Kept ready; nothing calls it yet.
  void verboseExec(const std::function<void()>& closure) { exec(LogLevel::Verbose, closure); }
  void debugExec(const std::function<void()>& closure) { exec(LogLevel::Debug, closure); }
  void infoExec(const std::function<void()>& closure) { exec(LogLevel::Info, closure); }
  void warningExec(const std::function<void()>& closure) { exec(LogLevel::Warning, closure); }
  void errorExec(const std::function<void()>& closure) { exec(LogLevel::Error, closure); }
  void severeExec(const std::function<void()>& closure) { exec(LogLevel::Severe, closure); }

  /// True if `level` is at least the logger's own level. logln does not ask: each destination decides for itself.
  bool isEnabledForLogLevel(LogLevel level) const noexcept { return level >= outputLogLevel_; }

  /// True if any attached destination takes records of `level`. A call site asks this before it builds a message.
  bool isWantedAtLogLevel(LogLevel level) const;

  /// The first attached destination whose identifier is exactly `identifier`; null when there is none.
  Destination logDestination(std::string_view identifier) const;

  /// Appends `destination` and returns true; false, and nothing attached, when its identifier is attached already.
  bool addLogDestination(Destination destination);

  /// Removes every attached destination with this identifier, or with that of `destination`.
  /// Kept ready; nothing calls it yet.
  void removeLogDestination(const Destination& destination);
  /// Kept ready; nothing calls it yet.
  void removeLogDestination(std::string_view identifier);

  /// The logger and its destinations, separated by carriage returns.
  /// Kept ready; nothing calls it yet.
  std::string debugDescription() const;

  /// The logger's and its destinations' own reports: records without function, file and line.
  void _logln(std::string_view message, LogLevel level);

  /// The operations above on defaultInstance().
  /// Kept ready; nothing calls it yet.
  struct Default {
    static void logln(std::string_view message, LogLevel level, std::string_view functionName,
                      std::string_view fileName, std::int64_t line);
    static void exec(LogLevel level, const std::function<void()>& closure);
    static void verbose(std::string_view message, std::string_view function, std::string_view file, std::int64_t line);
    static void debug(std::string_view message, std::string_view function, std::string_view file, std::int64_t line);
    static void info(std::string_view message, std::string_view function, std::string_view file, std::int64_t line);
    static void warning(std::string_view message, std::string_view function, std::string_view file, std::int64_t line);
    static void error(std::string_view message, std::string_view function, std::string_view file, std::int64_t line);
    static void severe(std::string_view message, std::string_view function, std::string_view file, std::int64_t line);
    static void verboseExec(const std::function<void()>& closure) { exec(LogLevel::Verbose, closure); }
    static void debugExec(const std::function<void()>& closure) { exec(LogLevel::Debug, closure); }
    static void infoExec(const std::function<void()>& closure) { exec(LogLevel::Info, closure); }
    static void warningExec(const std::function<void()>& closure) { exec(LogLevel::Warning, closure); }
    static void errorExec(const std::function<void()>& closure) { exec(LogLevel::Error, closure); }
    static void severeExec(const std::function<void()>& closure) { exec(LogLevel::Severe, closure); }
  };

 private:
  std::string identifier_;
  LogLevel outputLogLevel_ = LogLevel::Debug;
  std::vector<Destination> logDestinations_;
};

}  // namespace vornet
