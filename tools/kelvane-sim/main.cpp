// kelvane-sim: the stand-in sync application as a program.

#include <CLI/CLI.hpp>
#include <charconv>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelvane-sim/ActionJournal.hpp"
#include "kelvane-sim/ControlSocket.hpp"
#include "kelvane-sim/Fault.hpp"
#include "kelvane-sim/KelvaneSim.hpp"
#include "kelvane-sim/Places.hpp"
#include "kelvane-sim/Printable.hpp"

namespace {

using namespace vornet::sim;

constexpr int EXIT_DONE = 0;
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

struct Arguments {
  std::string folder;
  std::string container;
  std::string state;
  std::uint16_t port = KelvaneSim::DEFAULT_PORT;
  double transferTime = 1.5;
  std::size_t parallel = 4;
  bool synced = false;
  bool force = false;
  bool quiet = false;
  std::vector<std::string> faults;
  std::string fault;
  std::string path;
  std::string status;
};

std::string stateFolder(const Arguments& arguments) {
  if (!arguments.state.empty()) return absolutePath(arguments.state);
  return arguments.container.empty() ? groupContainerPath() : absolutePath(arguments.container);
}

void print(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

void setFault(KelvaneSim& sim, const FaultRequest& request) {
  sim.setFault(request.command, request.fault, request.duration);
}

// What `text` says of an item: that it shows this code whatever its own is, or (none) its own again.
constexpr std::string_view OWN_STATUS = "own";
bool parseStatus(std::string_view text, std::optional<int>& code) {
  code.reset();
  if (text == OWN_STATUS) return true;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), code.emplace());
  return error == std::errc() && end == text.data() + text.size();
}

// "status CODE PATH"
std::string handleStatus(KelvaneSim& sim, std::string_view arguments) {
  const std::size_t blank = arguments.find(' ');
  std::optional<int> code;
  if (blank == std::string_view::npos || !parseStatus(arguments.substr(0, blank), code)) {
    return "error: not understood";
  }
  const std::string path(arguments.substr(blank + 1));
  if (!path.starts_with('/')) return "error: not a cloud path: " + path;
  if (code) {
    sim.setStatus(path, *code);
  } else {
    sim.clearStatus(path);
  }
  return "ok";
}

std::string handleControl(KelvaneSim& sim, bool quiet, const std::string& line) {
  constexpr std::string_view FAULT = "fault ";
  constexpr std::string_view STATUS = "status ";
  if (line.starts_with(STATUS)) {
    const std::string answer = handleStatus(sim, std::string_view(line).substr(STATUS.size()));
    if (!quiet && answer == "ok") print(printable("status     " + line.substr(STATUS.size())));
    return answer;
  }
  const auto request = line.starts_with(FAULT) ? parseFault(line.substr(FAULT.size())) : std::nullopt;
  if (!request) return "error: not understood";
  try {
    setFault(sim, *request);
  } catch (const std::exception& error) {
    return std::string("error: ") + error.what();
  }
  if (!quiet) print("fault      " + line.substr(FAULT.size()));
  return "ok";
}

int run(const Arguments& arguments) {
  // Before there is any thread, so that only the wait below gets the signals.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  KelvaneSim::Options options;
  options.root = arguments.folder;
  options.container = arguments.container;
  options.state = arguments.state;
  options.port = arguments.port;
  options.transferTime = std::chrono::milliseconds(std::llround(arguments.transferTime * 1000));
  options.parallelTransfers = arguments.parallel;
  options.assumeSynced = arguments.synced;
  options.force = arguments.force;
  options.keptRequests = 0;
  if (!arguments.quiet) options.notice = print;
  KelvaneSim sim(options);
  for (const std::string& fault : arguments.faults) setFault(sim, *parseFault(fault));
  sim.start();
  const ControlSocket control(sim.state(),
                              [&](const std::string& line) { return handleControl(sim, arguments.quiet, line); });
  if (!arguments.quiet) {
    print("started    " + printable(sim.root()) + ", " + std::to_string(sim.items()) +
          " items, 127.0.0.1:" + std::to_string(sim.port()));
    print("container  " + printable(sim.container()));
    for (const std::string& fault : arguments.faults) print("fault      " + fault);
  }
  int signal = 0;
  sigwait(&signals, &signal);
  if (!arguments.quiet) print("stopped");
  return EXIT_DONE;
}

int showJournal(const Arguments& arguments) {
  const std::vector<Action> actions = ActionJournal(stateFolder(arguments)).read();
  for (const Action& action : actions) {
    std::string line = action.time;
    line.append("  ").append(action.name).append(":");
    for (const std::string& path : action.paths) line.append(" ").append(path);
    print(printable(line));
  }
  if (actions.empty()) print("no actions yet");
  return EXIT_DONE;
}

int tell(const Arguments& arguments, const std::string& line) {
  const std::string answer = ControlSocket::ask(stateFolder(arguments), line);
  if (answer == "ok") return EXIT_DONE;
  std::fprintf(stderr, "kelvane-sim: %s\n", printable(answer).c_str());
  return EXIT_FAILED;
}

std::string faultList() {
  std::string text = "Faults, given as [COMMAND=]NAME[:SECONDS]:\n";
  for (const FaultName& fault : FAULT_NAMES) {
    text +=
        "  " + std::string(fault.name) + std::string(14 - fault.name.size(), ' ') + std::string(fault.meaning) + "\n";
  }
  return text + "Commands: get_icons_for_folder, mac_populate_menu, select_context_menu";
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  CLI::App app{
      "Stands in for the sync application: keeps a folder \"synced\" and answers for it. It only reads the folder.",
      "kelvane-sim"};
  app.require_subcommand(1);
  app.footer(faultList());
  const CLI::Validator fault([](std::string& text) { return parseFault(text) ? "" : "no such fault: " + text; },
                             "FAULT");
  const auto addPlaces = [&](CLI::App* command) {
    command->add_option("--container", arguments.container, "Group container (default: the user's)");
    command->add_option("--state", arguments.state, "Folder of the action journal (default: the container)");
  };

  CLI::App* runCommand = app.add_subcommand("run", "Keep a folder, until SIGINT or SIGTERM");
  runCommand->add_option("DIR", arguments.folder, "The folder to keep")->required();
  addPlaces(runCommand);
  runCommand->add_option("--port", arguments.port, "Port on 127.0.0.1; 0 for any free one")->capture_default_str();
  runCommand->add_option("--transfer-time", arguments.transferTime, "Seconds that the transfer of one file takes")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 86400.0));
  runCommand->add_option("--parallel", arguments.parallel, "Transfers at a time")
      ->capture_default_str()
      ->check(CLI::Range(1, 10000));
  runCommand->add_flag("--synced", arguments.synced, "Take the files found at the start for synced");
  runCommand->add_option("--fault", arguments.faults, "Misbehave, as [COMMAND=]NAME[:SECONDS]; may be repeated")
      ->check(fault)
      ->take_all()
      ->expected(1);
  runCommand->add_flag("--force", arguments.force,
                       "Use the container even if the real sync application has written its files there: replace them");
  runCommand->add_flag("--quiet", arguments.quiet, "Print nothing but errors");

  CLI::App* journalCommand = app.add_subcommand("journal", "Show the actions received");
  addPlaces(journalCommand);

  CLI::App* faultCommand =
      app.add_subcommand("fault", "Make the running program misbehave, or behave again with \"none\"");
  faultCommand->add_option("FAULT", arguments.fault, "[COMMAND=]NAME[:SECONDS]")->required()->check(fault);
  addPlaces(faultCommand);
  faultCommand->footer(faultList());

  CLI::App* statusCommand =
      app.add_subcommand("status", "Make the running program give an item a status, whatever its own is");
  statusCommand->add_option("PATH", arguments.path, "Cloud path, as \"/Reports/May.md\"")->required();
  statusCommand
      ->add_option("STATUS", arguments.status,
                   "2 synced, 1 in progress, 0 not synced, -1 none, any other integer; \"own\" ends it")
      ->required()
      ->check([](const std::string& text) {
        std::optional<int> code;
        return parseStatus(text, code) ? std::string() : "no status: " + text;
      });
  addPlaces(statusCommand);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
  }
  try {
    if (*runCommand) return run(arguments);
    if (*journalCommand) return showJournal(arguments);
    if (*statusCommand) return tell(arguments, "status " + arguments.status + " " + arguments.path);
    return tell(arguments, "fault " + arguments.fault);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kelvane-sim: %s\n", printable(error.what()).c_str());
    return EXIT_FAILED;
  }
}
