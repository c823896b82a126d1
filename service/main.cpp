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
#include "BusName.hpp"
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

// Longer than answering and the last lines of the console take, shorter than anybody waits.
constexpr std::chrono::milliseconds LONGEST_END{3400};
constexpr std::chrono::milliseconds LONGEST_ANSWERING{2000};

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

/// The main loop, from when the extension has been brought to life until it is asked to end.
class Run {
 public:
  explicit Run(GDBusConnection* connection) : connection_(connection) {
    const auto closed = +[](GDBusConnection*, gboolean, GError*, gpointer run) { static_cast<Run*>(run)->end(); };
    g_signal_connect(connection_, "closed", G_CALLBACK(closed), this);
  }
  ~Run() {
    g_signal_handlers_disconnect_by_data(connection_, this);
    g_main_loop_unref(loop_);
  }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  void untilAskedToEnd() { g_main_loop_run(loop_); }

  /// On the thread of the main context, while it runs.
  void end() {
    endInAnyCase();
    vornet::statusManager()->request_stop();
    vornet::RESTClient::hurry();
    g_main_loop_quit(loop_);
  }

 private:
  GDBusConnection* const connection_;
  GMainLoop* const loop_ = g_main_loop_new(nullptr, FALSE);
};

gboolean asked(gpointer run) {
  static_cast<Run*>(run)->end();
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

/// Has the calls that have come answered, as far as that does not take long.
void answerWhatHasCome(GDBusConnection* connection) {
  using Clock = std::chrono::steady_clock;
  const auto until = Clock::now() + LONGEST_ANSWERING;
  while (vornet::service::hasUnansweredCalls(connection) && Clock::now() < until) {
    while (g_main_context_iteration(nullptr, FALSE)) continue;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

/// Claims the bus name, brings the extension to life and serves it until asked to end, or until the bus goes away. The
/// exit status.
int serve(GDBusConnection* connection) {
  const std::string& name = vornet::App().APP_CODENAME;
  Run run(connection);
  endOnSignals(run);

  // First the object, then the name, then the extension: calls that come with the name find the object, and wait in the
  // main context until the extension is there.
  vornet::FinderSync extension;
  vornet::service::FinderSyncService service(extension, connection);
  std::string reason;
  if (!service.start(reason)) {
    systemLog("cannot serve on the session bus: " + reason);
    return 1;
  }
  const auto owner = vornet::service::claimBusName(connection, name, reason);
  if (!owner) {
    systemLog("cannot own the bus name " + name + ": " + reason);
    return 1;
  }
  if (!owner->isThisProcess) {
    vornet::platform::host::setOtherRunningApplications({owner->process});
    extension.init();  // which ends the process
    return 0;
  }
  vornet::service::PreferencesWatch preferences;  // before the log is made: it watches the container with this log
  if (!extension.init()) return 1;
  service.publishProperties();
  preferences.start([&run] { run.end(); });

  run.untilAskedToEnd();
  vornet::service::releaseBusName(connection, name);  // from here on the bus gives calls to the next process
  preferences.stop();
  answerWhatHasCome(connection);
  service.stop();
  g_dbus_connection_flush_sync(connection, nullptr, nullptr);  // answers may be waiting to be written
  vornet::statusManager()->stop_listener();
  return 0;
}

/// Without a bus there is nobody to serve. The extension begins all the same: what is wrong with the preferences stops
/// the process with its reason, as it does with a bus.
int beginWithoutBus(const std::string& reason) {
  vornet::FinderSync extension;
  if (!extension.init()) return 1;
  systemLog("no session bus: " + reason);
  vornet::statusManager()->stop_listener();
  return 1;
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
  GError* error = nullptr;
  GDBusConnection* connection = vornet::service::connectToSessionBus(&error);
  if (!connection) {
    const std::string reason = error->message;
    g_error_free(error);
    return beginWithoutBus(reason);
  }
  const int status = serve(connection);
  g_object_unref(connection);
  return status;
}
