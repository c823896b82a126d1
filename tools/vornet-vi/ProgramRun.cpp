#include "ProgramRun.hpp"

#include <gio/gunixinputstream.h>
#include <glib-unix.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "dbus/Interface.hpp"

namespace vornet::vi::test {
namespace {

/// Writes the files that say what the bus starts; the folder that holds them.
std::filesystem::path writeServices(const std::filesystem::path& folder, const std::string& startCommand) {
  const auto services = folder / "services";
  std::filesystem::create_directories(services);
  if (startCommand.empty()) return services;
  const auto script = folder / "start";
  vornet::test::writeFile(script, "#!/bin/sh\necho >> '" + (folder / "starts").string() + "'\n" + startCommand + "\n");
  std::filesystem::permissions(script, std::filesystem::perms::owner_all);
  vornet::test::writeFile(services / (std::string(dbus::BUS_NAME) + ".service"),
                          "[D-BUS Service]\nName=" + std::string(dbus::BUS_NAME) + "\nExec=" + script.string() + "\n");
  return services;
}

}  // namespace

TestBus::TestBus(const std::string& startCommand)
    : PrivateBus(TemporaryFolder::path() / "bus", writeServices(TemporaryFolder::path(), startCommand)) {}

void TestBus::install(const std::string& startCommand) const {
  writeServices(TemporaryFolder::path(), startCommand);
}

TestExtension::TestExtension(const TestBus& bus, const std::string& folder)
    : FakeExtension(bus.address(),
                    folder.empty() ? std::vector<std::string>() : std::vector{vornet::test::urlOf(folder) + "/"}) {
  menu = {{"share:", true}, {"copyLink:", true}, {"notes:", false}, {"viewVersions:", false}, {"viewInCloud:", true}};
  nonsense["Badges"] = [] {
    return g_variant_new_parsed(
        "[('SKIPPED', 'Not synced', 'error'), ('PENDING', 'Sync in progress', 'sync'), ('SYNCED', 'Synced', "
        "'checkmark')]");
  };
  nonsense["Version"] = [] { return g_variant_new_string("1.2.3"); };
  nonsense["LogFile"] = [] { return g_variant_new_string("/somewhere/vi.log"); };
}

std::vector<std::size_t> TestExtension::requestSizes() const {
  std::vector<std::size_t> sizes;
  for (const auto& request : badgeRequests) sizes.push_back(request.size());
  return sizes;
}

ProgramRun::ProgramRun(const Settings& settings, const std::vector<std::string>& arguments) {
  const bool onTerminal = settings.terminalColumns > 0;
  const GObjectPtr<GSubprocessLauncher> launcher{g_subprocess_launcher_new(static_cast<GSubprocessFlags>(
      G_SUBPROCESS_FLAGS_STDERR_PIPE | (onTerminal ? 0 : G_SUBPROCESS_FLAGS_STDOUT_PIPE)))};
  for (const char* variable : {"DBUS_SESSION_BUS_ADDRESS", "DISPLAY", "NO_COLOR", "LANG", "LANGUAGE"})
    g_subprocess_launcher_unsetenv(launcher.get(), variable);
  const auto set = [&launcher](const std::string& name, const std::string& value) {
    g_subprocess_launcher_setenv(launcher.get(), name.c_str(), value.c_str(), TRUE);
  };
  set("LC_ALL", settings.locale);
  set("TERM", "xterm-256color");
  set("XDG_RUNTIME_DIR", "/nonexistent");
  if (!settings.busAddress.empty()) set("DBUS_SESSION_BUS_ADDRESS", settings.busAddress);
  for (const auto& [name, value] : settings.environment) set(name, value);
  g_subprocess_launcher_set_cwd(launcher.get(), settings.currentFolder.c_str());
  if (onTerminal) {
    int master = -1;
    int slave = -1;
    winsize size{};
    size.ws_col = static_cast<unsigned short>(settings.terminalColumns);
    size.ws_row = 24;
    if (openpty(&master, &slave, nullptr, nullptr, &size) != 0) throw std::runtime_error("no pseudo-terminal");
    g_subprocess_launcher_take_stdout_fd(launcher.get(), slave);
    output_.stream.reset(g_unix_input_stream_new(master, TRUE));
  }

  std::vector<const gchar*> command;
  for (const std::string& word : settings.wrapper) command.push_back(word.c_str());
  command.push_back(VORNET_VI_PROGRAM);
  for (const std::string& argument : arguments) command.push_back(argument.c_str());
  command.push_back(nullptr);
  GErrorPtr error;
  process_.reset(g_subprocess_launcher_spawnv(launcher.get(), command.data(), ErrorTo(error)));
  if (error) throw std::runtime_error(error->message);
  if (!onTerminal) output_.stream.reset(G_INPUT_STREAM(g_object_ref(g_subprocess_get_stdout_pipe(process_.get()))));
  errors_.stream.reset(G_INPUT_STREAM(g_object_ref(g_subprocess_get_stderr_pipe(process_.get()))));
  g_subprocess_launcher_close(launcher.get());
  output_.start();
  errors_.start();
  g_subprocess_wait_async(
      process_.get(), nullptr,
      [](GObject* process, GAsyncResult* result, gpointer ended) {
        g_subprocess_wait_finish(G_SUBPROCESS(process), result, nullptr);
        *static_cast<bool*>(ended) = true;
      },
      &ended_);
}

ProgramRun::~ProgramRun() {
  if (!ended_) g_subprocess_force_exit(process_.get());
  runUntil([this] { return ended_; });
}

void ProgramRun::Reading::start() {
  const auto take = [](gint descriptor, GIOCondition, gpointer data) -> gboolean {
    auto& self = *static_cast<Reading*>(data);
    std::array<char, 65536> part;
    const auto size = ::read(descriptor, part.data(), part.size());
    if (size > 0) {
      self.text.append(part.data(), static_cast<std::size_t>(size));
      return G_SOURCE_CONTINUE;
    }
    self.source = 0;
    return G_SOURCE_REMOVE;
  };
  const auto events = static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR);
  source = g_unix_fd_add(g_unix_input_stream_get_fd(G_UNIX_INPUT_STREAM(stream.get())), events, take, this);
}

void ProgramRun::Reading::stop() {
  if (source != 0) g_source_remove(std::exchange(source, 0));
}

int ProgramRun::wait() {
  if (!runUntil([this] { return ended_ && output_.source == 0 && errors_.source == 0; }) ||
      !g_subprocess_get_if_exited(process_.get()))
    return -1;
  return g_subprocess_get_exit_status(process_.get());
}

void ProgramRun::sendSignal(int number) {
  g_subprocess_send_signal(process_.get(), number);
}

void ProgramRun::closeOutput() {
  output_.stop();
  g_input_stream_close(output_.stream.get(), nullptr, nullptr);
}

std::vector<std::string> ProgramRun::lines() const {
  std::vector<std::string> lines;
  std::istringstream text(output);
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

int ProgramTest::run(const std::vector<std::string>& arguments) {
  ProgramRun program(settings, arguments);
  const int code = program.wait();
  output = program.output;
  lines = program.lines();
  errors = program.errors;
  EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), code == 0 ? 0 : 1) << errors;
  EXPECT_TRUE(code == 0 || errors.starts_with("vornet-vi: ") || errors.starts_with(R"({"error":{)")) << errors;
  return code;
}

std::string ProgramTest::outputOf(const std::vector<std::string>& arguments) {
  EXPECT_EQ(run(arguments), 0) << errors;
  return output;
}

std::string ProgramTest::failureOf(const std::vector<std::string>& arguments) {
  EXPECT_EQ(run(arguments), 1);
  return std::regex_replace(errors, std::regex("^vornet-vi: (.*)\n$"), "$1");
}

}  // namespace vornet::vi::test
