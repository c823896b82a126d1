// The extension process: makes the principal class and serves its callbacks on the session bus.
#include <gio/gio.h>
#include <glib-unix.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <string_view>

#include "FinderSyncService.hpp"
#include "extension/AppConst.hpp"
#include "extension/FinderSync.hpp"
#include "logging/Logging.hpp"
#include "platform/linux/Host.hpp"
#include "rest/RESTPollingManager.hpp"

namespace {

using vornet::platform::systemLog;

struct Run {
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  int status = 0;

  void end(int withStatus) {
    status = withStatus;
    g_main_loop_quit(loop);
  }
};

void nameLost(GDBusConnection* connection, const gchar* name, gpointer run) {
  if (!connection || g_dbus_connection_is_closed(connection)) return;  // with the bus itself
  systemLog(std::string("the bus name ") + name + " is not to be had");
  static_cast<Run*>(run)->end(1);
}

gboolean asked(gpointer run) {
  static_cast<Run*>(run)->end(0);
  return G_SOURCE_CONTINUE;
}

/// Serves `extension` until asked to end, or until the bus goes away. The exit status.
int serve(vornet::FinderSync& extension) {
  GError* error = nullptr;
  GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
  if (!connection) {
    systemLog(std::string("no session bus: ") + error->message);
    g_error_free(error);
    return 1;
  }
  g_dbus_connection_set_exit_on_close(connection, FALSE);

  Run run;
  const auto closed = +[](GDBusConnection*, gboolean, GError*, gpointer data) { static_cast<Run*>(data)->end(0); };
  g_signal_connect(connection, "closed", G_CALLBACK(closed), &run);
  g_unix_signal_add(SIGTERM, &asked, &run);
  g_unix_signal_add(SIGINT, &asked, &run);

  vornet::host::FinderSyncService service(extension, connection);
  std::string reason;
  if (service.start(reason)) {
    const guint name =
        g_bus_own_name_on_connection(connection, vornet::App().APP_CODENAME.c_str(),
                                     G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE, nullptr, &nameLost, &run, nullptr);
    g_main_loop_run(run.loop);
    // In this order: whom the bus starts once the name is free must not find this process still counted as running.
    vornet::platform::host::retireFromRunningApplications();
    g_bus_unown_name(name);
  } else {
    systemLog("cannot serve on the session bus: " + reason);
    run.status = 1;
  }
  service.stop();
  g_signal_handlers_disconnect_by_data(connection, &run);
  g_main_loop_unref(run.loop);
  g_object_unref(connection);
  return run.status;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    const bool version = std::string_view(argv[1]) == "--version";
    std::fprintf(version ? stdout : stderr,
                 version ? "VornetVIExt " VORNET_VERSION "\n" : "usage: VornetVIExt [--version]\n");
    return version ? 0 : 2;
  }
  std::signal(SIGPIPE, SIG_IGN);  // whoever reads standard output may go away
  vornet::platform::host::keepLittleFreeMemory();
  vornet::platform::host::setMainBundle({.identifier = vornet::App().APP_CODENAME,
                                         .version = VORNET_VERSION,
                                         .build = VORNET_BUILD_NUMBER,
                                         .imageFolders = vornet::platform::host::imageFoldersOfProgram()});
  vornet::FinderSync extension;
  if (!extension.init()) return 1;
  const int status = serve(extension);
  vornet::statusManager()->stop_listener();
  vornet::XCGLogger::logQueue().drain();
  return status;
}
