#include "Options.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <iostream>

#include "DisplayText.hpp"

namespace vornet::vi {
namespace {

constexpr double LONGEST_SECONDS = 1'000'000;

std::chrono::milliseconds milliseconds(double seconds) {
  return std::chrono::milliseconds{static_cast<std::chrono::milliseconds::rep>(std::ceil(seconds * 1000))};
}

/// A number of seconds above, or from, `least` on.
std::string checkSeconds(const std::string& text, bool zeroAllowed) {
  double seconds = 0;
  if (!CLI::detail::lexical_cast(text, seconds) || !std::isfinite(seconds) || seconds < 0 ||
      seconds > LONGEST_SECONDS || (seconds == 0 && !zeroAllowed)) {
    return "not a number of seconds: " + text;
  }
  return {};
}

/// The arguments in the order that the parser takes, last first. Two kinds of paths it would misread: "[a,b]" as a list
/// of two, and what follows "--" as its parent's. With "./" before them they mean the same and come through.
std::vector<std::string> argumentsOf(int argc, const char* const* argv) {
  std::vector<std::string> arguments;
  bool pathsOnly = false;
  for (int i = 1; i < argc; ++i) {
    std::string argument = argv[i];
    if (!pathsOnly && argument == "--") {
      pathsOnly = true;
      continue;
    }
    if ((pathsOnly && argument.starts_with('-')) || (argument.starts_with('[') && argument.ends_with(']')))
      argument.insert(0, "./");
    arguments.push_back(std::move(argument));
  }
  std::reverse(arguments.begin(), arguments.end());
  return arguments;
}

void addPaths(CLI::App* command, std::vector<std::string>& paths) {
  command->add_option("PATH", paths, "Files and folders below the observed folder")->required();
}

Options::Colour colourOf(const std::string& when) {
  if (when == "always") return Options::Colour::always;
  return when == "never" ? Options::Colour::never : Options::Colour::automatic;
}

}  // namespace

std::optional<Options> readOptions(int argc, const char* const* argv, int& exitCode) {
  Options options;
  std::string colour;
  double timeout = 10;
  double duration = 0;

  CLI::App app{"The sync badges and actions of a folder, in the terminal", "vornet-vi"};
  app.set_version_flag("--version", "vornet-vi " VORNET_VERSION);
  app.set_help_flag("-h,--help", "Print this help and exit");
  app.require_subcommand(1);
  app.fallthrough();
  app.add_flag("--json", options.json, "Print one JSON object a line");
  app.add_option("--color", colour, "When to use colours: auto (default), always, never")
      ->type_name("WHEN")
      ->check([](const std::string& when) {
        return when == "auto" || when == "always" || when == "never" ? std::string{}
                                                                     : "not auto, always or never: " + when;
      });
  app.add_option("--timeout", timeout, "Wait at most so long for each answer (default: 10)")
      ->type_name("SECONDS")
      ->check([](const std::string& text) { return checkSeconds(text, false); });
  app.footer(
      "Exit status: 0 done, 1 refused or failed, 2 wrong usage.\n"
      "Options of every command: --json, --color, --timeout (see \"vornet-vi --help\").");

  CLI::App* list = app.add_subcommand("list", "Show the entries of a folder with their badges");
  list->add_option("DIR", options.folder, "The folder")->required();

  CLI::App* watch = app.add_subcommand("watch", "Show a folder as list does, then each change as it comes");
  watch->add_option("DIR", options.folder, "The folder")->required();
  CLI::Option* forSeconds = watch->add_option("--for", duration, "End after so long (default: at Ctrl-C)")
                                ->type_name("SECONDS")
                                ->check([](const std::string& text) { return checkSeconds(text, true); });

  CLI::App* menu = app.add_subcommand("menu", "Show the context menu of a selection");
  addPaths(menu, options.paths);

  CLI::App* perform = app.add_subcommand("perform", "Perform an entry of the context menu on a selection");
  perform->add_option("ACTION", options.action, "A title (\"Copy Link\") or an action (copyLink)")->required();
  addPaths(perform, options.paths);

  CLI::App* status = app.add_subcommand("status", "Tell whether the extension and the sync application run");
  status->add_flag("--start", options.start, "Start the extension if it does not run");

  try {
    app.parse(argumentsOf(argc, argv));
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      exitCode = app.exit(error, std::cout, std::cerr);
    } else {
      std::cerr << "vornet-vi: " << safeText(error.what(), localeIsUTF8()) << " (see vornet-vi --help)\n";
      exitCode = 2;
    }
    return std::nullopt;
  }

  options.colour = colourOf(colour);
  options.timeout = milliseconds(timeout);
  if (forSeconds->count() > 0) options.duration = milliseconds(duration);
  if (list->parsed())
    options.command = Options::Command::list;
  else if (watch->parsed())
    options.command = Options::Command::watch;
  else if (menu->parsed())
    options.command = Options::Command::menu;
  else if (perform->parsed())
    options.command = Options::Command::perform;
  else if (status->parsed())
    options.command = Options::Command::status;
  return options;
}

}  // namespace vornet::vi
