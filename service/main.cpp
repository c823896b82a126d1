// The extension process: makes the principal class and serves its callbacks on the session bus.
#include <fcntl.h>
#include <gio/gio.h>
#include <glib-unix.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>
#include <thread>

#include "BusConnection.hpp"
#include "FinderSyncService.hpp"
#include "PreferencesWatch.hpp"
#include "SelfCheck.hpp"
#include "base/AppConst.hpp"
#include "dbus/GLibPtr.hpp"
#include "extension/FinderSync.hpp"
#include "extension/SharedObjects.hpp"
#include "logging/Logging.hpp"
#include "platform/linux/Host.hpp"
#include "rest/RESTClient.hpp"
#include "rest/RESTPollingManager.hpp"

namespace {

using vornet::platform::systemLog;

using Clock = std::chrono::steady_clock;

// Both are counted from when the process is asked to end. The second is shorter than anybody waits.
constexpr std::chrono::milliseconds LONGEST_ANSWERING{2000};
constexpr std::chrono::milliseconds LONGEST_END{3300};

timer_t lastResort{};

/// Ends the process with status 1 if it has not ended in time: some work may hang in a file system, or in writing to
/// standard error. Signal handlers may call it.
void endInAnyCase() {
  static std::atomic_flag begun;
  if (begun.test_and_set()) return;
  constexpr auto whole = std::chrono::floor<std::chrono::seconds>(LONGEST_END);
  constexpr std::chrono::nanoseconds rest = LONGEST_END - whole;
  const itimerspec until{{}, {whole.count(), rest.count()}};
  ::timer_settime(lastResort, 0, &until, nullptr);
}

/// Opens the standard descriptors that are closed, so that no file takes their place.
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
  ~Run() { g_signal_handlers_disconnect_by_data(connection_, this); }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  /// When it was asked to.
  Clock::time_point untilAskedToEnd() {
    g_main_loop_run(loop_.get());
    return asked_;
  }

  /// On the thread of the main context, while it runs.
  void end() {
    endInAnyCase();
    asked_ = Clock::now();
    vornet::statusManager()->request_stop();
    vornet::RESTClient::hurry();
    g_main_loop_quit(loop_.get());
  }

 private:
  GDBusConnection* const connection_;
  Clock::time_point asked_;
  const vornet::GMainLoopPtr loop_{g_main_loop_new(nullptr, FALSE)};
};

int signalPipe[2] = {-1, -1};

void noteSignal(int) {
  const int error = errno;
  endInAnyCase();  // even while the main context hangs in a call to the bus
  [[maybe_unused]] const auto written = ::write(signalPipe[1], "", 1);
  errno = error;
}

void handle(int signal, void (*handler)(int)) {
  struct sigaction action{};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  ::sigaction(signal, &action, nullptr);
}

/// Ends `run` on SIGTERM and SIGINT.
void endOnSignals(Run& run) {
  handle(SIGALRM, [](int) { ::_exit(1); });
  // Without these the signals end the process as they do by default.
  if (::timer_create(CLOCK_MONOTONIC, nullptr, &lastResort) != 0 || ::pipe2(signalPipe, O_CLOEXEC) != 0) return;
  const auto asked = +[](int, GIOCondition, gpointer data) -> gboolean {
    static_cast<Run*>(data)->end();
    return G_SOURCE_REMOVE;
  };
  g_unix_fd_add(signalPipe[0], G_IO_IN, asked, &run);
  for (const int signal : {SIGTERM, SIGINT}) handle(signal, &noteSignal);
}

/// Waits until the calls that have come are answered, at most until `limit`.
void answerWhatHasCome(GDBusConnection* connection, Clock::time_point limit) {
  while (vornet::service::hasUnansweredCalls(connection) && Clock::now() < limit) {
    while (g_main_context_iteration(nullptr, FALSE) && Clock::now() < limit) continue;
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

  const auto asked = run.untilAskedToEnd();
  vornet::service::releaseBusName(connection, name);  // from here on the bus gives calls to the next process
  preferences.stop();
  answerWhatHasCome(connection, asked + LONGEST_ANSWERING);
  service.stop();
  g_dbus_connection_flush_sync(connection, nullptr, nullptr);  // answers may be waiting to be written
  vornet::statusManager()->stop_listener();
  return 0;
}

/// Without a bus there is nobody to serve. The extension begins all the same: a fault of the preferences stops the
/// process with its reason, as it does with a bus.
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
  const std::string_view option = argc > 1 ? argv[1] : "";
  if (argc > 1 && option != "--check") {
    const bool version = option == "--version";
    std::fprintf(version ? stdout : stderr,
                 version ? "VornetVIExt " VORNET_VERSION "\n" : "usage: VornetVIExt [--version | --check]\n");
    return version ? 0 : 2;
  }
  std::signal(SIGPIPE, SIG_IGN);  // the reader of standard output may go away
  std::signal(SIGXFSZ, SIG_IGN);  // a log that may not grow is no reason to end
  vornet::platform::host::keepLittleFreeMemory();
  vornet::platform::host::declineTLS();
  vornet::platform::host::setMainBundle({.identifier = vornet::App().APP_CODENAME,
                                         .version = VORNET_VERSION,
                                         .build = VORNET_BUILD_NUMBER,
                                         .imageFolders = vornet::platform::host::imageFoldersOfProgram()});
  if (argc > 1) {
    std::puts(vornet::service::selfCheck().c_str());
    return 0;
  }
  vornet::GErrorPtr error;
  const auto connection = vornet::service::connectToSessionBus(vornet::ErrorTo(error));
  return connection ? serve(connection.get()) : beginWithoutBus(error->message);
}
