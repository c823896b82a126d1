// The command line, and the messages on standard error.
#include <gmock/gmock.h>

#include <boost/json.hpp>

#include "ProgramRun.hpp"

namespace vornet::vi::test {
namespace {

using testing::HasSubstr;

class UsageTest : public ProgramTest {
 protected:
  UsageTest() { settings.currentFolder = root.path(); }
};

TEST_F(UsageTest, AnUnknownWordIsNamedWithTheNearestKnownOne) {
  const std::string end = " (see vornet-vi --help)\n";
  for (const auto& [arguments, message] : std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{"lsit", "."}, "unknown command \"lsit\"; did you mean \"list\"?"},
           {{"--timeout", "3", "stauts"}, "unknown command \"stauts\"; did you mean \"status\"?"},
           {{"juggle"}, "unknown command \"juggle\""},
           {{"help", "perfrom"}, "unknown command \"perfrom\"; did you mean \"perform\"?"},
           {{"status", "--jsn"}, "unknown option \"--jsn\"; did you mean \"--json\"?"},
           {{"watch", "--fro=3", "."}, "unknown option \"--fro\"; did you mean \"--for\"?"},
           {{"list", "--recursively"}, "unknown option \"--recursively\""},
       }) {
    EXPECT_EQ(run(arguments), 2);
    EXPECT_EQ(errors, "vornet-vi: " + message + end);
    EXPECT_EQ(output, "");
  }
}

TEST_F(UsageTest, ListTakesTheCurrentFolder) {
  root.file("here");
  TestExtension extension{bus, root.path()};
  EXPECT_THAT(outputOf({"list"}), HasSubstr("here\n"));
}

const std::vector<std::string> COMMANDS{"list", "watch", "menu", "perform", "status", "help"};

TEST_F(UsageTest, HelpFitsEightyColumns) {
  const auto fits = Not(testing::ContainsRegex("[^\n]{81}"));
  EXPECT_THAT(outputOf({"help"}), fits);
  for (const auto& command : COMMANDS) EXPECT_THAT(outputOf({"help", command}), fits) << command;
}

TEST_F(UsageTest, HelpNamesItsCommandAndHasExamples) {
  for (const auto& command : COMMANDS) {
    const std::string text = outputOf({command, "--help"});
    EXPECT_THAT(text, HasSubstr("Usage: vornet-vi " + command + " "));
    EXPECT_THAT(text, HasSubstr("\nExamples:\n  vornet-vi " + command));
    EXPECT_EQ(outputOf({"help", command}), text);
  }
  EXPECT_EQ(outputOf({"help"}), outputOf({"--help"}));
}

TEST_F(UsageTest, HelpLooksTheSameUnderEveryCLI11) {
  EXPECT_EQ(outputOf({"--help"}),
            "The sync badges and actions of a folder, in the terminal\n"
            "Usage: vornet-vi [OPTIONS] SUBCOMMAND\n"
            "\n"
            "Options:\n"
            "  --version                   Display program version information and exit\n"
            "  -h,--help                   Print this help and exit\n"
            "  --json                      Print one JSON object per line\n"
            "  --color WHEN                When to use colours: auto (default), always, never\n"
            "  --timeout SECONDS           Wait at most this long for an answer (default: 10)\n"
            "\n"
            "Subcommands:\n"
            "  list                        Show the entries of a folder with their badges\n"
            "  watch                       Show a folder as list does, then its changes\n"
            "  menu                        Show the context menu of a selection\n"
            "  perform                     Perform a context menu entry on a selection\n"
            "  status                      Show what runs, what is wrong and what to do\n"
            "  help                        Show the help of a command\n"
            "\n"
            "Examples:\n"
            "  vornet-vi status                        is everything in order?\n"
            "  vornet-vi list                          the badges of this folder\n"
            "  vornet-vi perform \"Copy Link\" May.pdf   an entry of the context menu\n"
            "\n"
            "Exit status: 0 done, 1 refused, failed or problems found, 2 wrong usage.\n"
            "Options of every command: --json, --color, --timeout (see \"vornet-vi --help\").\n");
  EXPECT_EQ(outputOf({"perform", "--help"}),
            "Perform a context menu entry on a selection\n"
            "Usage: vornet-vi perform [OPTIONS] ACTION PATH...\n"
            "\n"
            "Positionals:\n"
            "  ACTION REQUIRED             A title (\"Copy Link\") or an action (copyLink)\n"
            "  PATH ... REQUIRED           Files and folders in the synced folder\n"
            "\n"
            "Options:\n"
            "  -h,--help                   Print this help and exit\n"
            "\n"
            "Examples:\n"
            "  vornet-vi perform \"Copy Link\" May.pdf\n"
            "  vornet-vi perform viewInCloud Reports\n"
            "\n"
            "Exit status: 0 done, 1 refused, failed or problems found, 2 wrong usage.\n"
            "Options of every command: --json, --color, --timeout (see \"vornet-vi --help\").\n");
}

TEST_F(UsageTest, WithJSONErrorsAreObjects) {
  const auto error = [this](const std::vector<std::string>& arguments) {
    run(arguments);
    EXPECT_EQ(output, "");
    return boost::json::parse(errors).at("error").as_object();
  };
  EXPECT_EQ(error({"list", "--json", "mis\"sing"}),
            (boost::json::object{{"kind", "failed"}, {"message", root.path() + "/mis\"sing: no such file or folder"}}));
  EXPECT_EQ(error({"--json", "list"}).at("kind"), "not-installed");
  EXPECT_EQ(error({"lsit", "--json"}).at("kind"), "usage");
  TestExtension extension{bus, root.path()};
  extension.refusals["BeginObserving"] = "OutsideObservedFolders";
  EXPECT_EQ(error({"--json", "list", "/"}).at("kind"), "outside");
}

}  // namespace
}  // namespace vornet::vi::test
