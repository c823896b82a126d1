// The file manager asks for a widget above the items of each folder that it shows in a tab or pane. It maps the widget
// while the folder is visible, and destroys it when the folder is left: an empty widget reports all of that.
#include <gtk/gtk.h>

#include <memory>
#include <unordered_map>
#include <utility>

#include "FolderWatch.hpp"
#include "Manager.hpp"
#include "Module.hpp"
#include "client/Log.hpp"
#include "client/Paths.hpp"
#include "dbus/GLibPtr.hpp"

namespace vornet::gtk {
namespace {

class FolderWidgets : public FolderWatch {
 public:
  ~FolderWidgets() override {
    for (const auto& [widget, place] : places_) g_signal_handlers_disconnect_by_data(widget, place.get());
  }

  /// A new widget, without an owner yet, for a tab or pane that shows `folder`.
  GtkWidget* make(std::string folder) {
    auto place = std::make_unique<Place>(*this, std::move(folder));
    GtkWidget* widget = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
    gtk_widget_show(widget);
    g_signal_connect(widget, "parent-set", G_CALLBACK(placed), place.get());
    g_signal_connect(widget, "map", G_CALLBACK(mapped), place.get());
    g_signal_connect(widget, "unmap", G_CALLBACK(unmapped), place.get());
    g_signal_connect(widget, "destroy", G_CALLBACK(destroyed), place.get());
    places_.emplace(widget, std::move(place));
    return widget;
  }

 private:
  struct Place {
    Place(FolderWidgets& places, std::string path) : all(places), folder(std::move(path)) { tab.update(folder, false); }

    FolderWidgets& all;
    const std::string folder;
    Tab tab;
    guint border = 0;  ///< that of the widget's container, before
  };

  /// Caja gives the place of such widgets a border, which would push the items down for an empty one.
  static void placed(GtkWidget* widget, GtkWidget* before, gpointer data) {
    auto* place = static_cast<Place*>(data);
    if (before && place->border > 0)
      gtk_container_set_border_width(GTK_CONTAINER(before), std::exchange(place->border, 0));
    GtkWidget* parent = gtk_widget_get_parent(widget);
    if (!parent || !isAlone(parent)) return;
    place->border = gtk_container_get_border_width(GTK_CONTAINER(parent));
    gtk_container_set_border_width(GTK_CONTAINER(parent), 0);
  }

  static bool isAlone(GtkWidget* parent) {
    const GListPtr children(gtk_container_get_children(GTK_CONTAINER(parent)));
    return children && !children->next;
  }

  static void mapped(GtkWidget*, gpointer data) {
    client::guarded([data] {
      auto* place = static_cast<Place*>(data);
      place->tab.update(place->folder, true);
    });
  }
  static void unmapped(GtkWidget*, gpointer data) {
    client::guarded([data] {
      auto* place = static_cast<Place*>(data);
      place->tab.update(place->folder, false);
    });
  }
  static void destroyed(GtkWidget* widget, gpointer data) {
    client::guarded([widget, data] {
      g_signal_handlers_disconnect_by_data(widget, data);
      static_cast<Place*>(data)->all.places_.erase(widget);
    });
  }

  std::unordered_map<GtkWidget*, std::unique_ptr<Place>> places_;
};

GtkWidget* getWidget(manager::LocationWidgetProvider*, const char* url, GtkWidget* window) {
  return client::guarded<GtkWidget*>(nullptr, [url, window]() -> GtkWidget* {
    Module* module = Module::current();
    auto path = client::pathOfURL(url);
    if (!module || !path) return nullptr;
    // A new window lists its folder before it is to be seen, and the widget with it.
    if (window && !gtk_widget_get_mapped(window)) module->plugin().folderExpected(*path);
    return static_cast<FolderWidgets&>(module->folders()).make(std::move(*path));
  });
}

void initialiseLocationWidgetProvider(gpointer interface, gpointer) {
  static_cast<manager::LocationWidgetProviderInterface*>(interface)->get_widget = getWidget;
}

}  // namespace

std::unique_ptr<FolderWatch> FolderWatch::make() {
  return std::make_unique<FolderWidgets>();
}

void FolderWatch::addInterfaces(GTypeModule* types, GType provider) {
  constexpr GInterfaceInfo widgetProvider = {initialiseLocationWidgetProvider, nullptr, nullptr};
  g_type_module_add_interface(types, provider, VORNET_CONSTANT(TYPE_LOCATION_WIDGET_PROVIDER), &widgetProvider);
}

}  // namespace vornet::gtk
