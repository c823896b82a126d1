// The least that a service of com.vornet.FinderSync1 can do: GDBus's own connection and skeleton, every answer empty
// and given at once. What the extension is held against under load. Usage: vornet-echo NAME, the bus name to own.
#include <gio/gio.h>

#include <cstdio>
#include <vector>

#include "FinderSync1.h"
#include "dbus/Interface.hpp"

namespace {

gboolean answerBadges(VornetFinderSync1* skeleton, GDBusMethodInvocation* call, const gchar* const* items, gpointer) {
  std::vector<const gchar*> identifiers;
  for (; *items; ++items) identifiers.push_back("");
  identifiers.push_back(nullptr);
  vornet_finder_sync1_complete_request_badges(skeleton, call, identifiers.data());
  return TRUE;
}

gboolean answerMenu(VornetFinderSync1* skeleton, GDBusMethodInvocation* call, const gchar* const*, gpointer) {
  vornet_finder_sync1_complete_get_menu(skeleton, call, g_variant_new("a(ssbs)", nullptr));
  return TRUE;
}

gboolean answerBegin(VornetFinderSync1* skeleton, GDBusMethodInvocation* call, const gchar*, gpointer) {
  vornet_finder_sync1_complete_begin_observing(skeleton, call);
  return TRUE;
}

void serve(GDBusConnection* connection, const gchar*, gpointer skeleton) {
  g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(skeleton), connection, vornet::dbus::OBJECT_PATH, nullptr);
}

void lost(GDBusConnection*, const gchar*, gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: vornet-echo NAME\n", stderr);
    return 2;
  }
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  VornetFinderSync1* skeleton = vornet_finder_sync1_skeleton_new();
  g_signal_connect(skeleton, "handle-request-badges", G_CALLBACK(answerBadges), nullptr);
  g_signal_connect(skeleton, "handle-get-menu", G_CALLBACK(answerMenu), nullptr);
  g_signal_connect(skeleton, "handle-begin-observing", G_CALLBACK(answerBegin), nullptr);
  g_signal_connect(skeleton, "handle-end-observing", G_CALLBACK(answerBegin), nullptr);
  struct Context {
    GMainLoop* loop;
    VornetFinderSync1* skeleton;
  } context{loop, skeleton};
  const auto acquired = +[](GDBusConnection* connection, const gchar* name, gpointer data) {
    serve(connection, name, static_cast<Context*>(data)->skeleton);
  };
  const auto ended = +[](GDBusConnection* connection, const gchar* name, gpointer data) {
    lost(connection, name, static_cast<Context*>(data)->loop);
  };
  g_bus_own_name(G_BUS_TYPE_SESSION, argv[1], G_BUS_NAME_OWNER_FLAGS_NONE, acquired, nullptr, ended, &context, nullptr);
  g_main_loop_run(loop);
  g_object_unref(skeleton);
  g_main_loop_unref(loop);
  return 0;
}
