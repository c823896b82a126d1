// kelvane-sim: the stand-in sync application as a program.

#include <CLI/CLI.hpp>
#include <algorithm>
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

std::optional<int> parseStatus(std::string_view text) {
  int code = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), code);
  return error == std::errc() && end == text.data() + text.size() ? std::optional(code) : std::nullopt;
}

/// "fault FAULT" or "status CODE PATH".
std::string handleControl(KelvaneSim& sim, const std::string& line) {
  const std::size_t blank = std::min(line.find(' '), line.size());
  const std::string rest = line.substr(std::min(blank + 1, line.size()));
  if (line.starts_with("fault ")) {
    const auto request = parseFault(rest);
    if (!request) return "error: not understood";
    try {
      sim.setFault(request->fault, request->duration);
    } catch (const std::exception& error) {
      return std::string("error: ") + error.what();
    }
  } else if (line.starts_with("status ")) {
    const std::size_t end = std::min(rest.find(' '), rest.size());
    const auto code = parseStatus(std::string_view(rest).substr(0, end));
    const std::string path = rest.substr(std::min(end + 1, rest.size()));
    if (!code) return "error: not understood";
    if (!path.starts_with('/')) return "error: not a cloud path: " + path;
    sim.setStatus(path, *code);
  } else {
    return "error: not understood";
  }
  std::string shown = line.substr(0, blank);
  shown.resize(11, ' ');
  print(shown + printable(rest));
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
  options.notice = print;
  KelvaneSim sim(options);
  sim.start();
  const ControlSocket control(sim.state(), [&](const std::string& line) { return handleControl(sim, line); });
  print("started    " + printable(sim.root()) + ", " + std::to_string(sim.items()) +
        " items, 127.0.0.1:" + std::to_string(sim.port()));
  print("container  " + printable(sim.container()));
  int signal = 0;
  sigwait(&signals, &signal);
  print("stopped");
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
  std::string text = "Faults, given as NAME[:SECONDS]:\n";
  for (const FaultName& fault : FAULT_NAMES) {
    text +=
        "  " + std::string(fault.name) + std::string(14 - fault.name.size(), ' ') + std::string(fault.meaning) + "\n";
  }
  text.pop_back();
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  CLI::App app{
      "Stands in for the sync application: keeps a folder \"synced\" and answers for it. It only reads the folder.",
      "kelvane-sim"};
  app.require_subcommand(1);
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
  runCommand->add_flag("--force", arguments.force,
                       "Use the container even if the real sync application has written its files there: replace them");

  CLI::App* journalCommand = app.add_subcommand("journal", "Show the actions received");
  addPlaces(journalCommand);

  CLI::App* faultCommand =
      app.add_subcommand("fault", "Make the running program misbehave, or behave again with \"none\"");
  faultCommand->add_option("FAULT", arguments.fault, "NAME[:SECONDS]")->required()->check(fault);
  addPlaces(faultCommand);
  faultCommand->footer(faultList());

  CLI::App* statusCommand =
      app.add_subcommand("status", "Make the running program give an item a status, whatever its own is");
  statusCommand->add_option("PATH", arguments.path, "Cloud path, as \"/Reports/May.md\"")->required();
  statusCommand
      ->add_option("STATUS", arguments.status, "2 synced, 1 in progress, 0 not synced, -1 none, or any other integer")
      ->required()
      ->check([](const std::string& text) { return parseStatus(text) ? std::string() : "no status: " + text; });
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
