#include "TestExtension.hpp"

#include <gio/gunixinputstream.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "client/Paths.hpp"
#include "dbus/Interface.hpp"

namespace vornet::vi::test {
namespace {

const std::map<std::string, std::string> TITLES{{"share:", "Share"},
                                                {"copyLink:", "Copy Link"},
                                                {"notes:", "Comments"},
                                                {"viewVersions:", "View versions"},
                                                {"viewInCloud:", "View in Cloud"}};

void check(GError* error) {
  if (error != nullptr) {
    const client::GErrorPtr owned{error};
    throw std::runtime_error(error->message);
  }
}

GVariant* pairs(const std::vector<std::pair<std::string, std::string>>& changes) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(ss)"));
  for (const auto& [path, identifier] : changes) {
    g_variant_builder_add(&builder, "(ss)", client::urlOfPath(path).c_str(), identifier.c_str());
  }
  return g_variant_builder_end(&builder);
}

}  // namespace

TemporaryFolder::TemporaryFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "vornet-vi-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("no temporary folder");
  }
  path_ = std::filesystem::canonical(pattern).string();
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryFolder::file(const std::string& name, const std::string& content) const {
  const std::string path = client::childPath(path_, name);
  std::ofstream{path} << content;
  return path;
}

std::string TemporaryFolder::folder(const std::string& name) const {
  const std::string path = client::childPath(path_, name);
  std::filesystem::create_directory(path);
  return path;
}

TestBus::TestBus(const std::string& startCommand) {
  const std::string services = folder_.folder("services");
  if (!startCommand.empty()) {
    const std::string script = folder_.file("start", "#!/bin/sh\n" + startCommand + "\n");
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    std::ofstream{services + "/extension.service"} << "[D-BUS Service]\nName=" << dbus::BUS_NAME << "\nExec=" << script
                                                   << "\n";
  }
  const std::string configuration =
      folder_.file("bus.conf",
                   "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
                   "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n<busconfig><type>session</"
                   "type><listen>unix:path=" +
                       folder_.path() + "/bus</listen><servicedir>" + services +
                       "</servicedir><policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                       "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n");
  GError* error = nullptr;
  daemon_.reset(g_subprocess_new(
      static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_SILENCE), &error,
      "dbus-daemon", ("--config-file=" + configuration).c_str(), "--nofork", "--nopidfile", "--print-address",
      nullptr));
  check(error);
  const client::GObjectPtr<GDataInputStream> output{
      g_data_input_stream_new(g_subprocess_get_stdout_pipe(daemon_.get()))};
  const client::GCharPtr line{g_data_input_stream_read_line(output.get(), nullptr, nullptr, nullptr)};
  if (!line) {
    throw std::runtime_error("dbus-daemon did not start");
  }
  address_ = line.get();
}

TestBus::~TestBus() {
  stop();
}

void TestBus::stop() {
  if (daemon_) {
    g_subprocess_force_exit(daemon_.get());
    g_subprocess_wait(daemon_.get(), nullptr, nullptr);
    daemon_.reset();
  }
}

void TestBus::freeze() {
  g_subprocess_send_signal(daemon_.get(), SIGSTOP);
}

TestExtension::TestExtension(const TestBus& bus, std::string observedFolder)
    : menu{{"share:", true}, {"copyLink:", true}, {"notes:", false}, {"viewVersions:", false}, {"viewInCloud:", true}},
      observedFolder_(std::move(observedFolder)),
      skeleton_(vornet_finder_sync1_skeleton_new()) {
  g_signal_connect(skeleton_.get(), "handle-begin-observing", G_CALLBACK(begin), this);
  g_signal_connect(skeleton_.get(), "handle-end-observing", G_CALLBACK(end), this);
  g_signal_connect(skeleton_.get(), "handle-request-badges", G_CALLBACK(request), this);
  g_signal_connect(skeleton_.get(), "handle-get-menu", G_CALLBACK(getMenu), this);
  g_signal_connect(skeleton_.get(), "handle-perform-action", G_CALLBACK(perform), this);
  const std::string url = observedFolder_.empty() ? "" : client::urlOfPath(observedFolder_) + "/";
  const gchar* const folders[] = {url.empty() ? nullptr : url.c_str(), nullptr};
  vornet_finder_sync1_set_observed_folders(skeleton_.get(), folders);
  vornet_finder_sync1_set_badges(skeleton_.get(),
                                 g_variant_new_parsed("[('SKIPPED', 'Not synced', 'error'), ('PENDING', 'Sync in "
                                                      "progress', 'sync'), ('SYNCED', 'Synced', 'checkmark')]"));
  vornet_finder_sync1_set_version(skeleton_.get(), "1.2.3");
  vornet_finder_sync1_set_log_file(skeleton_.get(), "/somewhere/vi.log");

  GError* error = nullptr;
  connection_.reset(g_dbus_connection_new_for_address_sync(
      bus.address().c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &error));
  check(error);
  g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(skeleton_.get()), connection_.get(), dbus::OBJECT_PATH,
                                   &error);
  check(error);
  const client::GVariantPtr reply{g_dbus_connection_call_sync(
      connection_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
      g_variant_new("(su)", dbus::BUS_NAME, 4U), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error)};
  check(error);
}

TestExtension::~TestExtension() {
  die();
}

void TestExtension::die() {
  if (connection_) {
    g_dbus_interface_skeleton_unexport(G_DBUS_INTERFACE_SKELETON(skeleton_.get()));
    g_dbus_connection_close_sync(connection_.get(), nullptr, nullptr);
    unanswered_.clear();
    connection_.reset();
  }
}

std::size_t TestExtension::count(const std::string& call) const {
  std::size_t found = 0;
  for (const std::string& one : calls) {
    found += one == call ? 1U : 0U;
  }
  return found;
}

void TestExtension::tell(const std::vector<std::pair<std::string, std::string>>& changes) {
  for (const std::string& observer : observers_) {
    g_dbus_connection_emit_signal(connection_.get(), observer.c_str(), dbus::OBJECT_PATH, dbus::INTERFACE,
                                  "BadgesChanged", g_variant_new("(@a(ss))", pairs(changes)), nullptr);
  }
}

bool TestExtension::take(GDBusMethodInvocation* invocation, const std::string& call) {
  calls.push_back(call);
  if (frozen) {
    // Taking the call is to own it; it is let go of when this extension dies.
    unanswered_.emplace_back(invocation);
  }
  return frozen;
}

gboolean TestExtension::begin(VornetFinderSync1* skeleton, GDBusMethodInvocation* invocation, const gchar* folder,
                              gpointer data) {
  auto& self = *static_cast<TestExtension*>(data);
  if (self.take(invocation, std::string{"BeginObserving "} + folder)) {
    return TRUE;
  }
  if (!self.refusal.empty()) {
    g_dbus_method_invocation_return_dbus_error(invocation, (dbus::ERROR_PREFIX + self.refusal).c_str(), "refused");
    return TRUE;
  }
  self.observers_.emplace_back(g_dbus_method_invocation_get_sender(invocation));
  vornet_finder_sync1_complete_begin_observing(skeleton, invocation);
  return TRUE;
}

gboolean TestExtension::end(VornetFinderSync1* skeleton, GDBusMethodInvocation* invocation, const gchar* folder,
                            gpointer data) {
  auto& self = *static_cast<TestExtension*>(data);
  if (!self.take(invocation, std::string{"EndObserving "} + folder)) {
    vornet_finder_sync1_complete_end_observing(skeleton, invocation);
  }
  return TRUE;
}

gboolean TestExtension::request(VornetFinderSync1* skeleton, GDBusMethodInvocation* invocation,
                                const gchar* const* items, gpointer data) {
  auto& self = *static_cast<TestExtension*>(data);
  self.requestSizes.push_back(g_strv_length(const_cast<gchar**>(items)));
  if (self.take(invocation, "RequestBadges")) {
    return TRUE;
  }
  if (self.diesInRequest) {
    self.unanswered_.emplace_back(invocation);
    self.die();
    return TRUE;
  }
  if (self.busyRequests > 0) {
    --self.busyRequests;
    g_dbus_method_invocation_return_dbus_error(invocation, "com.vornet.FinderSync1.Error.Busy", "refused");
    return TRUE;
  }
  if (!self.changesBeforeAnswer.empty()) {
    self.tell(std::exchange(self.changesBeforeAnswer, {}));
  }
  std::vector<const gchar*> answer;
  for (const gchar* const* item = items; *item != nullptr; ++item) {
    const auto found = self.badges.find(client::pathOfURL(*item).value_or(""));
    answer.push_back(found == self.badges.end() ? "" : found->second.c_str());
  }
  answer.push_back(nullptr);
  vornet_finder_sync1_complete_request_badges(skeleton, invocation, answer.data());
  return TRUE;
}

gboolean TestExtension::getMenu(VornetFinderSync1* skeleton, GDBusMethodInvocation* invocation,
                                const gchar* const* selection, gpointer data) {
  auto& self = *static_cast<TestExtension*>(data);
  std::string call = "GetMenu";
  bool outside = false;
  for (const gchar* const* item = selection; *item != nullptr; ++item) {
    call.append(" ").append(*item);
    outside = outside || !client::pathOfURL(*item).value_or("").starts_with(self.observedFolder_ + "/");
  }
  if (self.take(invocation, call)) {
    return TRUE;
  }
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(ssbs)"));
  if (!outside) {
    for (const auto& [selector, enabled] : self.menu) {
      g_variant_builder_add(&builder, "(ssbs)", TITLES.at(selector).c_str(), selector.c_str(), enabled ? TRUE : FALSE,
                            "QMT");
    }
  }
  vornet_finder_sync1_complete_get_menu(skeleton, invocation, g_variant_builder_end(&builder));
  return TRUE;
}

gboolean TestExtension::perform(VornetFinderSync1* skeleton, GDBusMethodInvocation* invocation, const gchar* action,
                                const gchar* const* selection, gpointer data) {
  auto& self = *static_cast<TestExtension*>(data);
  std::string call = std::string{"PerformAction "} + action;
  for (const gchar* const* item = selection; *item != nullptr; ++item) {
    call.append(" ").append(*item);
  }
  if (!self.take(invocation, call)) {
    vornet_finder_sync1_complete_perform_action(skeleton, invocation);
  }
  return TRUE;
}

struct ProgramRun::Reading {
  std::string* into;
  std::size_t* open;
  GCancellable* cancellable;
};

ProgramRun::ProgramRun(const Settings& settings, const std::vector<std::string>& arguments) {
  const bool onTerminal = settings.terminalColumns > 0;
  const client::GObjectPtr<GSubprocessLauncher> launcher{g_subprocess_launcher_new(static_cast<GSubprocessFlags>(
      G_SUBPROCESS_FLAGS_STDERR_PIPE | (onTerminal ? 0 : G_SUBPROCESS_FLAGS_STDOUT_PIPE)))};
  for (const char* variable : {"DBUS_SESSION_BUS_ADDRESS", "DISPLAY", "NO_COLOR", "LANG", "LANGUAGE"}) {
    g_subprocess_launcher_unsetenv(launcher.get(), variable);
  }
  const auto set = [&launcher](const std::string& name, const std::string& value) {
    g_subprocess_launcher_setenv(launcher.get(), name.c_str(), value.c_str(), TRUE);
  };
  set("LC_ALL", settings.locale);
  set("TERM", "xterm-256color");
  set("XDG_RUNTIME_DIR", "/nonexistent");
  if (!settings.busAddress.empty()) {
    set("DBUS_SESSION_BUS_ADDRESS", settings.busAddress);
  }
  for (const auto& [name, value] : settings.environment) {
    set(name, value);
  }
  g_subprocess_launcher_set_cwd(launcher.get(), settings.currentFolder.c_str());
  if (onTerminal) {
    int master = -1;
    int slave = -1;
    winsize size{};
    size.ws_col = static_cast<unsigned short>(settings.terminalColumns);
    size.ws_row = 24;
    if (openpty(&master, &slave, nullptr, nullptr, &size) != 0) {
      throw std::runtime_error("no pseudo-terminal");
    }
    g_subprocess_launcher_take_stdout_fd(launcher.get(), slave);
    outputStream_.reset(g_unix_input_stream_new(master, TRUE));
  }

  std::vector<const gchar*> command{VORNET_VI_PROGRAM};
  for (const std::string& argument : arguments) {
    command.push_back(argument.c_str());
  }
  command.push_back(nullptr);
  GError* error = nullptr;
  process_.reset(g_subprocess_launcher_spawnv(launcher.get(), command.data(), &error));
  check(error);
  if (!onTerminal) {
    outputStream_.reset(G_INPUT_STREAM(g_object_ref(g_subprocess_get_stdout_pipe(process_.get()))));
  }
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
  if (!ended_) {
    g_subprocess_force_exit(process_.get());
  }
  g_cancellable_cancel(cancellable_.get());
  waitUntil([this] { return ended_ && openStreams_ == 0; });
}

void ProgramRun::read(GInputStream* stream, std::string* into) {
  ++openStreams_;
  g_input_stream_read_bytes_async(stream, 65536, G_PRIORITY_DEFAULT, cancellable_.get(), takeBytes,
                                  new Reading{into, &openStreams_, cancellable_.get()});
}

void ProgramRun::takeBytes(GObject* stream, GAsyncResult* result, gpointer data) {
  std::unique_ptr<Reading> reading{static_cast<Reading*>(data)};
  GBytes* bytes = g_input_stream_read_bytes_finish(G_INPUT_STREAM(stream), result, nullptr);
  const gsize size = bytes == nullptr ? 0 : g_bytes_get_size(bytes);
  if (size > 0) {
    reading->into->append(static_cast<const char*>(g_bytes_get_data(bytes, nullptr)), size);
  }
  if (bytes != nullptr) {
    g_bytes_unref(bytes);
  }
  if (size == 0) {
    --*reading->open;
    return;
  }
  GCancellable* cancellable = reading->cancellable;
  g_input_stream_read_bytes_async(G_INPUT_STREAM(stream), 65536, G_PRIORITY_DEFAULT, cancellable, takeBytes,
                                  reading.release());
}

int ProgramRun::wait() {
  if (!waitUntil([this] { return ended_ && openStreams_ == 0; }) || !g_subprocess_get_if_exited(process_.get())) {
    return -1;
  }
  return g_subprocess_get_exit_status(process_.get());
}

void ProgramRun::sendSignal(int number) {
  g_subprocess_send_signal(process_.get(), number);
}

void ProgramRun::closeOutput() {
  g_cancellable_cancel(cancellable_.get());
  waitUntil([this] { return openStreams_ == 0; });
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

}  // namespace vornet::vi::test
