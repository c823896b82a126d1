#include "Options.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <iostream>
#include <memory>
#include <numeric>
#include <string_view>

#include "HelpFormatter.hpp"
#include "Notices.hpp"

namespace vornet::vi {
namespace {

constexpr double LONGEST_SECONDS = 1'000'000;

std::chrono::milliseconds milliseconds(double seconds) {
  return std::chrono::milliseconds{static_cast<std::chrono::milliseconds::rep>(std::ceil(seconds * 1000))};
}

/// Why `text` is not a number of seconds; empty when it is.
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
  command->add_option("PATH", paths, "Files and folders in the synced folder")->type_name("")->required();
}

/// How many letters have to be added, removed or replaced to make `a` of `b`.
std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), 0U);
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = row[0]++;
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

/// "unknown WHAT NAME", and the one of `known` that is meant, if any is like it.
std::string unknown(const std::string& what, const std::string& name, const std::vector<std::string>& known) {
  const auto nearest = std::min_element(
      known.begin(), known.end(), [&](const auto& a, const auto& b) { return distance(name, a) < distance(name, b); });
  const bool isLike = nearest != known.end() && distance(name, *nearest) <= std::max<std::size_t>(1, name.size() / 2);
  return "unknown " + what + " \"" + name + "\"" + (isLike ? "; did you mean \"" + *nearest + "\"?" : "");
}

/// The command `name`; null when there is none.
const CLI::App* commandNamed(const CLI::App& app, const std::string& name) {
  const auto found = app.get_subcommands([&](const CLI::App* command) { return command->get_name() == name; });
  return found.empty() ? nullptr : found.front();
}

std::vector<std::string> commandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const auto* command : app.get_subcommands([](const CLI::App*) { return true; }))
    names.push_back(command->get_name());
  return names;
}

std::vector<std::string> optionNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const auto* option : app.get_options())
    for (const auto& name : option->get_lnames()) names.push_back("--" + name);
  return names;
}

/// The first word of the command line that names no command or option; none when each does.
std::optional<std::string> unknownWord(const CLI::App& app, int argc, const char* const* argv) {
  const CLI::App* command = nullptr;
  for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i) {
    const std::string word = argv[i];
    if (!word.starts_with('-') || word == "-") {
      if (command) continue;
      command = commandNamed(app, word);
      if (!command) return unknown("command", word, commandNames(app));
      continue;
    }
    const std::string name = word.substr(0, word.find('='));
    const auto* option = app.get_option_no_throw(name);
    if (!option && command) option = command->get_option_no_throw(name);
    if (!option) {
      auto known = optionNames(app);
      if (command)
        for (auto& more : optionNames(*command)) known.push_back(std::move(more));
      return unknown("option", name, known);
    }
    if (option->get_items_expected_max() > 0 && name == word) ++i;  // its value
  }
  return std::nullopt;
}

/// True if the command line asks for JSON, even if something in it is wrong.
bool asksForJSON(int argc, const char* const* argv) {
  for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i)
    if (std::string_view(argv[i]) == "--json") return true;
  return false;
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
  app.formatter(std::make_shared<HelpFormatter>());
  app.set_version_flag("--version", "vornet-vi " VORNET_VERSION);
  app.set_help_flag("-h,--help", "Print this help and exit");
  app.require_subcommand(1);
  app.fallthrough();
  app.add_flag("--json", options.json, "Print one JSON object per line");
  app.add_option("--color", colour, "When to use colours: auto (default), always, never")
      ->type_name("WHEN")
      ->check([](const std::string& when) {
        return when == "auto" || when == "always" || when == "never" ? std::string()
                                                                     : "not auto, always or never: " + when;
      });
  app.add_option("--timeout", timeout, "Wait at most this long for an answer (default: 10)")
      ->type_name("SECONDS")
      ->check([](const std::string& text) { return checkSeconds(text, false); });
  const std::string footer =
      "Exit status: 0 done, 1 refused, failed or problems found, 2 wrong usage.\n"
      "Options of every command: --json, --color, --timeout (see \"vornet-vi --help\").\n";
  app.footer(
      "Examples:\n"
      "  vornet-vi status                        is everything in order?\n"
      "  vornet-vi list                          the badges of this folder\n"
      "  vornet-vi perform \"Copy Link\" May.pdf   an entry of the context menu\n\n" +
      footer);
  const auto add = [&](const char* name, const char* description, const std::string& examples) {
    CLI::App* command = app.add_subcommand(name, description);
    command->footer("Examples:\n" + examples + "\n" + footer);
    return command;
  };

  CLI::App* list = add("list", "Show the entries of a folder with their badges",
                       "  vornet-vi list\n"
                       "  vornet-vi list --json Reports\n");
  list->add_option("DIR", options.folder, "The folder (default: the current one)")->type_name("");

  CLI::App* watch = add("watch", "Show a folder as list does, then its changes",
                        "  vornet-vi watch Reports\n"
                        "  vornet-vi watch --for 60 .\n");
  watch->add_option("DIR", options.folder, "The folder")->type_name("")->required();
  CLI::Option* forSeconds = watch->add_option("--for", duration, "End after this time (default: at Ctrl-C)")
                                ->type_name("SECONDS")
                                ->check([](const std::string& text) { return checkSeconds(text, true); });

  CLI::App* menu = add("menu", "Show the context menu of a selection", "  vornet-vi menu May.pdf June.pdf\n");
  addPaths(menu, options.paths);

  CLI::App* perform = add("perform", "Perform a context menu entry on a selection",
                          "  vornet-vi perform \"Copy Link\" May.pdf\n"
                          "  vornet-vi perform viewInCloud Reports\n");
  perform->add_option("ACTION", options.action, "A title (\"Copy Link\") or an action (copyLink)")
      ->type_name("")
      ->required();
  addPaths(perform, options.paths);

  CLI::App* status = add("status", "Show what runs, what is wrong and what to do",
                         "  vornet-vi status\n"
                         "  vornet-vi status --json --timeout 2\n");
  status->add_flag("--start", options.start, "Start the extension if it does not run");

  CLI::App* help = add("help", "Show the help of a command", "  vornet-vi help perform\n");
  std::string helpFor;
  help->add_option("COMMAND", helpFor, "The command (default: all)")->type_name("");

  const auto refuse = [&](const std::string& message) {
    Notices(asksForJSON(argc, argv)).error("usage", message + " (see vornet-vi --help)");
    exitCode = 2;
    return std::nullopt;
  };
  try {
    app.parse(argumentsOf(argc, argv));
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0) return refuse(unknownWord(app, argc, argv).value_or(error.what()));
    exitCode = app.exit(error, std::cout, std::cerr);
    return std::nullopt;
  }
  if (help->parsed()) {
    const auto* command = helpFor.empty() ? nullptr : commandNamed(app, helpFor);
    if (!helpFor.empty() && !command) return refuse(unknown("command", helpFor, commandNames(app)));
    app.clear();  // or it would print the help of "help"
    std::cout << (command ? command->help("vornet-vi") : app.help());
    exitCode = 0;
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
