#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace vornet::vi {

/// The command line. Paths are as given.
struct Options {
  enum class Command { list, watch, menu, perform, status };
  enum class Colour { automatic, always, never };

  Command command = Command::list;
  std::string folder = ".";                           ///< list, watch
  std::vector<std::string> paths;                     ///< menu, perform
  std::string action;                                 ///< perform
  bool start = false;                                 ///< status
  std::optional<std::chrono::milliseconds> duration;  ///< watch: ends by itself
  std::chrono::milliseconds timeout{10'000};
  Colour colour = Colour::automatic;
  bool json = false;
};

/// Reads the command line. None when there is nothing to run: help or the version was printed (`exitCode` 0), or the
/// usage is wrong (`exitCode` 2, a notice).
std::optional<Options> readOptions(int argc, const char* const* argv, int& exitCode);

}  // namespace vornet::vi
