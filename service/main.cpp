// The extension process: makes the principal class and serves its callbacks on the session bus.
#include <fcntl.h>
#include <gio/gio.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "BusConnection.hpp"
#include "FinderSyncService.hpp"
#include "PreferencesWatch.hpp"
#include "base/AppConst.hpp"
#include "extension/FinderSync.hpp"
#include "extension/SharedObjects.hpp"
#include "logging/Logging.hpp"
#include "platform/linux/Host.hpp"
#include "rest/RESTClient.hpp"
#include "rest/RESTPollingManager.hpp"

namespace {

using vornet::platform::systemLog;

// Longer than the requests that may be under way and the last lines of the console take, shorter than anybody waits.
constexpr std::chrono::milliseconds LONGEST_END{3400};

/// Ends the process with status 1 should it not have ended by itself in time: what is being carried out may hang in a
/// file system, or writing to standard error.
void endInAnyCase() {
  static std::once_flag once;
  std::call_once(once, [] {
    std::thread([] {
      std::this_thread::sleep_for(LONGEST_END);
      ::_exit(1);
    }).detach();
  });
}

/// Opens what is closed of the standard descriptors, so that no file takes its place.
void openStandardDescriptors() {
  int descriptor = 0;
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) descriptor = ::open("/dev/null", O_RDWR);
  if (descriptor >= 0) ::close(descriptor);
}

struct Run {
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  vornet::service::PreferencesWatch& preferences;
  int status = 0;

  void end(int withStatus) {
    endInAnyCase();
    vornet::statusManager()->request_stop();
    vornet::RESTClient::hurry();
    status = withStatus;
    g_main_loop_quit(loop);
  }
};

/// From now on this process is the extension: it may end itself without anybody waiting in vain for its start.
void nameOwned(GDBusConnection*, const gchar*, gpointer data) {
  auto* run = static_cast<Run*>(data);
  run->preferences.start([run] { run->end(0); });
}

void nameLost(GDBusConnection* connection, const gchar* name, gpointer run) {
  if (!connection || g_dbus_connection_is_closed(connection)) return;  // with the bus itself
  static_cast<Run*>(run)->end(1);                                      // first, as what follows may block
  systemLog(std::string("the bus name ") + name + " is not to be had");
}

gboolean asked(gpointer run) {
  static_cast<Run*>(run)->end(0);
  return G_SOURCE_REMOVE;
}

int signalPipe[2] = {-1, -1};

void noteSignal(int) {
  const int error = errno;
  [[maybe_unused]] const auto written = ::write(signalPipe[1], "", 1);
  errno = error;
}

/// Ends `run` on SIGTERM and SIGINT. A thread waits for them, so that the process ends in time even while the main
/// context hangs in a call to the bus.
void endOnSignals(Run& run) {
  if (::pipe2(signalPipe, O_CLOEXEC) != 0) return;  // the signals end the process as they do by default
  std::thread([&run] {
    char byte = 0;
    while (::read(signalPipe[0], &byte, 1) < 0 && errno == EINTR) continue;
    g_idle_add_full(G_PRIORITY_DEFAULT, &asked, &run, nullptr);
    endInAnyCase();
  }).detach();
  struct sigaction action{};
  action.sa_handler = &noteSignal;
  action.sa_flags = SA_RESTART;
  for (const int number : {SIGTERM, SIGINT}) ::sigaction(number, &action, nullptr);
}

/// Serves `extension` until asked to end, or until the bus goes away. The exit status.
int serve(vornet::FinderSync& extension, vornet::service::PreferencesWatch& preferences) {
  GError* error = nullptr;
  GDBusConnection* connection = vornet::service::connectToSessionBus(&error);
  if (!connection) {
    systemLog(std::string("no session bus: ") + error->message);
    g_error_free(error);
    return 1;
  }

  Run run{.preferences = preferences};
  const auto closed = +[](GDBusConnection*, gboolean, GError*, gpointer data) { static_cast<Run*>(data)->end(0); };
  g_signal_connect(connection, "closed", G_CALLBACK(closed), &run);
  endOnSignals(run);

  vornet::service::FinderSyncService service(extension, connection);
  std::string reason;
  if (service.start(reason)) {
    const guint name =
        g_bus_own_name_on_connection(connection, vornet::App().APP_CODENAME.c_str(),
                                     G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE, &nameOwned, &nameLost, &run, nullptr);
    g_main_loop_run(run.loop);
    // In this order: whom the bus starts once the name is free must not find this process still counted as running.
    vornet::platform::host::retireFromRunningApplications();
    g_bus_unown_name(name);
    preferences.stop();
  } else {
    run.end(1);
    systemLog("cannot serve on the session bus: " + reason);
  }
  service.stop();
  g_dbus_connection_flush_sync(connection, nullptr, nullptr);  // the last answers
  g_signal_handlers_disconnect_by_data(connection, &run);
  g_main_loop_unref(run.loop);
  g_object_unref(connection);
  return run.status;
}

}  // namespace

int main(int argc, char** argv) {
  openStandardDescriptors();
  if (argc > 1) {
    const bool version = std::string_view(argv[1]) == "--version";
    std::fprintf(version ? stdout : stderr,
                 version ? "VornetVIExt " VORNET_VERSION "\n" : "usage: VornetVIExt [--version]\n");
    return version ? 0 : 2;
  }
  std::signal(SIGPIPE, SIG_IGN);  // whoever reads standard output may go away
  std::signal(SIGXFSZ, SIG_IGN);  // a log that may not grow is no reason to end
  vornet::platform::host::keepLittleFreeMemory();
  vornet::platform::host::setMainBundle({.identifier = vornet::App().APP_CODENAME,
                                         .version = VORNET_VERSION,
                                         .build = VORNET_BUILD_NUMBER,
                                         .imageFolders = vornet::platform::host::imageFoldersOfProgram()});
  vornet::service::PreferencesWatch preferences;
  vornet::FinderSync extension;
  if (!extension.init()) return 1;
  const int status = serve(extension, preferences);
  vornet::statusManager()->stop_listener();
  return status;
}
