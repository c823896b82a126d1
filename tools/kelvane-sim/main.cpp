// kelvane-sim: the stand-in sync application as a program.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <boost/asio.hpp>
#include <charconv>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "HelpFormatter.hpp"
#include "kelvane-sim/KelvaneSim.hpp"

namespace {

namespace asio = boost::asio;
using vornet::sim::KelvaneSim;

void print(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

/// "CODE PATH", as "2 /Reports/May.md".
std::string setStatus(KelvaneSim& sim, std::string_view line) {
  int code = 0;
  const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), code);
  const std::string_view path = line.substr(static_cast<std::size_t>(end - line.data()));
  if (error != std::errc() || !path.starts_with(" /")) return "error: not \"CODE PATH\": " + std::string(line);
  sim.setStatus(std::string(path.substr(1)), code);
  return "ok";
}

void run(const KelvaneSim::Options& options) {
  asio::io_context context;
  asio::signal_set signals(context, SIGINT, SIGTERM);
  signals.async_wait([&](const auto&, int) { context.stop(); });
  KelvaneSim sim(options);
  sim.start();
  print("started");

  asio::posix::stream_descriptor input(context, ::dup(STDIN_FILENO));
  std::string text;
  const std::function<void()> read = [&] {
    asio::async_read_until(input, asio::dynamic_buffer(text), '\n', [&](const auto& error, std::size_t length) {
      if (error) return;
      print(setStatus(sim, std::string_view(text).substr(0, length - 1)));
      text.erase(0, length);
      read();
    });
  };
  read();
  context.run();
}

}  // namespace

int main(int argc, char** argv) {
  constexpr int EXIT_USAGE = 2;
  KelvaneSim::Options options;
  double transferTime = 1.5;
  CLI::App app{
      "Stands in for the sync application: answers for the folder DIR on port 8806\n"
      "until SIGINT or SIGTERM. It only reads the folder.\n\n"
      "A line \"CODE PATH\" on standard input, such as \"2 /Reports/May.md\", sets the\n"
      "status of an item: 2 synced, 1 in progress, 0 not synced, -1 none. The answer\n"
      "is \"ok\".\n",
      "kelvane-sim"};
  app.formatter(std::make_shared<vornet::HelpFormatter>());
  app.set_help_flag("-h,--help", "Print this help and exit");
  app.add_option("DIR", options.root, "The synced folder")->type_name("")->required();
  app.add_option("--container", options.container, "The group container, for preferences and statuses")
      ->type_name("FOLDER")
      ->required();
  app.add_option("--transfer-time", transferTime, "Duration of the transfer of one file")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 86400.0).description(""));
  app.add_option("--parallel", options.parallelTransfers, "Number of simultaneous transfers")
      ->type_name("NUMBER")
      ->capture_default_str()
      ->check(CLI::Range(1, 10000).description(""));
  app.add_flag("--synced", options.assumeSynced, "Treat the files found at the start as synced");
  app.add_flag("--force", options.force, "Replace another application's files");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_SUCCESS : EXIT_USAGE;
  }
  options.transferTime = std::chrono::milliseconds(std::llround(transferTime * 1000));
  try {
    run(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kelvane-sim: %s\n", error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
