#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace vornet {

/// Prints the help of our programs. CLI11's own formatter prints it differently from version to version, and wraps
/// examples; the shells' completions read it.
class HelpFormatter : public CLI::FormatterBase {
 public:
  std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode) const override {
    std::string usage = "Usage: " + name + " [OPTIONS]", positionals, options, commands;
    for (const CLI::Option* option : app->get_options()) {
      const bool repeats = option->get_expected_max() > 1;
      if (option->get_positional()) {
        const std::string positional = option->get_name(true) + (repeats ? "..." : "");
        usage += option->get_required() ? " " + positional : " [" + positional + "]";
      }
      std::string left = option->get_positional() ? option->get_name(true) : option->get_name(false, true);
      if (option->get_type_size() > 0) {  // takes a value
        if (!option->get_type_name().empty()) left += " " + option->get_type_name();
        if (!option->get_default_str().empty()) left += "=" + option->get_default_str();
        if (repeats) left += " ...";
        if (option->get_required()) left += " REQUIRED";
      }
      (option->get_positional() ? positionals : options) += row(left, option->get_description());
    }
    for (const CLI::App* command : app->get_subcommands([](const CLI::App*) { return true; }))
      commands += row(command->get_name(), command->get_description());
    if (!commands.empty()) usage += " SUBCOMMAND";
    return app->get_description() + "\n" + usage + "\n" + section("Positionals:", positionals) +
           section("Options:", options) + section("Subcommands:", commands) + section("", app->get_footer());
  }

 private:
  std::string row(std::string left, const std::string& right) const {
    left.insert(0, "  ");
    if (left.size() >= get_column_width()) return left + "\n" + std::string(get_column_width(), ' ') + right + "\n";
    return left + std::string(get_column_width() - left.size(), ' ') + right + "\n";
  }

  static std::string section(const std::string& title, const std::string& text) {
    return text.empty() ? "" : "\n" + (title.empty() ? "" : title + "\n") + text;
  }
};

}  // namespace vornet
