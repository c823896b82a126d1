#include "SelectionWatch.hpp"

#include <memory>
#include <string>

#include "client/Log.hpp"
#include "client/Paths.hpp"
#include "client/Plugin.hpp"
#include "dbus/GLibPtr.hpp"

namespace vornet::thunar {
namespace {

constexpr const char* VIEW = "ThunarStandardView";
constexpr const char* SELECTED = "selected-files";

bool isView(GObject* object) {
  const GType view = g_type_from_name(VIEW);
  if (view == 0 || !g_type_is_a(G_OBJECT_TYPE(object), view)) return false;
  const GParamSpec* property = g_object_class_find_property(G_OBJECT_GET_CLASS(object), SELECTED);
  return property && (property->flags & G_PARAM_READABLE) != 0 &&
         g_type_is_a(property->value_type, THUNARX_TYPE_FILE_INFO_LIST);
}

}  // namespace

client::Selection selectionOf(const GList* files) {
  client::Selection selection;
  for (; files && selection.size() <= client::Plugin::LARGEST_SELECTION; files = files->next) {
    const GCharPtr url(thunarx_file_info_get_uri(THUNARX_FILE_INFO(files->data)));
    auto path = client::pathOfURL(url.get());
    if (!path) return {};
    selection.push_back(*std::move(path));
  }
  return selection;
}

SelectionWatch::SelectionWatch(Listener listener)
    : listener_(std::move(listener)), changed_(g_cclosure_new(G_CALLBACK(changed), this, nullptr)) {
  g_weak_ref_init(&view_, nullptr);
  g_closure_ref(changed_);
  g_closure_sink(changed_);
  if (!gdk_display_get_default()) return;
  map_ = g_signal_lookup("map", GTK_TYPE_WIDGET);
  if (map_ != 0) hook_ = g_signal_add_emission_hook(map_, 0, mapped, this, nullptr);
}

SelectionWatch::~SelectionWatch() {
  if (hook_ != 0) g_signal_remove_emission_hook(map_, hook_);
  forget();
  g_closure_invalidate(changed_);
  g_closure_unref(changed_);
  g_weak_ref_clear(&view_);
}

void SelectionWatch::forget() {
  if (reporting_ != 0) g_source_remove(reporting_);
  reporting_ = 0;
}

gboolean SelectionWatch::mapped(GSignalInvocationHint*, guint count, const GValue* values, gpointer self) {
  client::guarded([=] {
    GObject* widget = count > 0 && G_VALUE_HOLDS_OBJECT(values) ? G_OBJECT(g_value_get_object(values)) : nullptr;
    if (!widget || !isView(widget)) return;
    auto& watch = *static_cast<SelectionWatch*>(self);
    if (g_signal_handler_find(widget, G_SIGNAL_MATCH_CLOSURE, 0, 0, watch.changed_, nullptr, nullptr) == 0)
      g_signal_connect_closure(widget, ("notify::" + std::string(SELECTED)).c_str(), watch.changed_, FALSE);
    watch.listener_.viewShown();
    changed(widget, nullptr, self);
  });
  return TRUE;  // call again
}

void SelectionWatch::changed(GObject* view, GParamSpec*, gpointer self) {
  client::guarded([=] {
    auto& watch = *static_cast<SelectionWatch*>(self);
    g_weak_ref_set(&watch.view_, view);
    // Once for all the changes that one movement of the user makes.
    if (watch.reporting_ == 0) watch.reporting_ = g_idle_add(report, self);
  });
}

gboolean SelectionWatch::report(gpointer self) {
  client::guarded([self] {
    auto& watch = *static_cast<SelectionWatch*>(self);
    watch.reporting_ = 0;
    const GObjectPtr<void> view(g_weak_ref_get(&watch.view_));
    if (!view || !gtk_widget_get_mapped(GTK_WIDGET(view.get()))) return;
    GList* files = nullptr;
    g_object_get(view.get(), SELECTED, &files, nullptr);
    const std::unique_ptr<GList, decltype(&thunarx_file_info_list_free)> owned(files, thunarx_file_info_list_free);
    watch.listener_.selected(selectionOf(files));
  });
  return G_SOURCE_REMOVE;
}

}  // namespace vornet::thunar
