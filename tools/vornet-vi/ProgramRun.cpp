#include "ProgramRun.hpp"

#include <gio/gunixinputstream.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
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

std::string ShownTestFolder::file(const std::string& name, const std::string& content) const {
  vornet::test::writeFile(folder_.path() / name, content);
  return folder_ / name;
}

std::string ShownTestFolder::folder(const std::string& name) const {
  std::filesystem::create_directory(folder_.path() / name);
  return folder_ / name;
}

TestBus::TestBus(const std::string& startCommand)
    : PrivateBus(TemporaryFolder::path() / "bus", writeServices(TemporaryFolder::path(), startCommand)) {}

void TestBus::install(const std::string& startCommand) const {
  writeServices(TemporaryFolder::path(), startCommand);
}

std::size_t TestBus::starts() const {
  return vornet::test::readFile(TemporaryFolder::path() / "starts").size();
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

struct ProgramRun::Reading {
  ProgramRun& run;
  std::string& into;
};

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
    outputStream_.reset(g_unix_input_stream_new(master, TRUE));
  }

  std::vector<const gchar*> command;
  for (const std::string& word : settings.wrapper) command.push_back(word.c_str());
  command.push_back(VORNET_VI_PROGRAM);
  for (const std::string& argument : arguments) command.push_back(argument.c_str());
  command.push_back(nullptr);
  GErrorPtr error;
  process_.reset(g_subprocess_launcher_spawnv(launcher.get(), command.data(), ErrorTo(error)));
  if (error) throw std::runtime_error(error->message);
  if (!onTerminal) outputStream_.reset(G_INPUT_STREAM(g_object_ref(g_subprocess_get_stdout_pipe(process_.get()))));
  g_subprocess_launcher_close(launcher.get());
  read(outputStream_.get(), &output);
  read(g_subprocess_get_stderr_pipe(process_.get()), &errors);
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
  g_cancellable_cancel(cancellable_.get());
  releaseOutput();
  runUntil([this] { return ended_ && openStreams_ == 0; });
}

void ProgramRun::read(GInputStream* stream, std::string* into) {
  ++openStreams_;
  readOn(stream, new Reading{*this, *into});
}

void ProgramRun::readOn(GInputStream* stream, Reading* reading) {
  g_input_stream_read_bytes_async(stream, 65536, G_PRIORITY_DEFAULT, reading->run.cancellable_.get(), takeBytes,
                                  reading);
}

void ProgramRun::takeBytes(GObject* stream, GAsyncResult* result, gpointer data) {
  std::unique_ptr<Reading> reading(static_cast<Reading*>(data));
  ProgramRun& run = reading->run;
  const GBytesPtr bytes(g_input_stream_read_bytes_finish(G_INPUT_STREAM(stream), result, nullptr));
  const gsize size = bytes ? g_bytes_get_size(bytes.get()) : 0;
  if (size > 0) reading->into.append(static_cast<const char*>(g_bytes_get_data(bytes.get(), nullptr)), size);
  if (size == 0)
    --run.openStreams_;
  else if (run.isHeld_ && &reading->into == &run.output)
    run.held_ = reading.release();
  else
    readOn(G_INPUT_STREAM(stream), reading.release());
}

void ProgramRun::releaseOutput() {
  isHeld_ = false;
  if (held_) readOn(outputStream_.get(), std::exchange(held_, nullptr));
}

int ProgramRun::wait() {
  if (!runUntil([this] { return ended_ && openStreams_ == 0; }) || !g_subprocess_get_if_exited(process_.get()))
    return -1;
  return g_subprocess_get_exit_status(process_.get());
}

void ProgramRun::sendSignal(int number) {
  g_subprocess_send_signal(process_.get(), number);
}

void ProgramRun::closeOutput() {
  g_cancellable_cancel(cancellable_.get());
  runUntil([this] { return openStreams_ == 0; });
  g_input_stream_close(outputStream_.get(), nullptr, nullptr);
}

std::vector<std::string> ProgramRun::lines() const {
  std::vector<std::string> lines;
  for (std::size_t start = 0; start < output.size();) {
    std::size_t end = output.find('\n', start);
    end = end == std::string::npos ? output.size() : end;
    lines.push_back(output.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

ProgramRun::Settings ProgramTest::settings() const {
  ProgramRun::Settings settings;
  settings.busAddress = bus.address();
  return settings;
}

int ProgramTest::run(const ProgramRun::Settings& how, const std::vector<std::string>& arguments) {
  ProgramRun program(how, arguments);
  const int code = program.wait();
  output = program.output;
  lines = program.lines();
  errors = program.errors;
  EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), code == 0 ? 0 : 1) << errors;
  EXPECT_TRUE(code == 0 || errors.starts_with("vornet-vi: ") || errors.starts_with(R"({"error":{)")) << errors;
  return code;
}

}  // namespace vornet::vi::test
