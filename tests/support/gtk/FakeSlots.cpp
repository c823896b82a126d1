#include "support/gtk/FakeSlots.hpp"

#include <vector>

#include "support/gtk/FakeTab.hpp"

namespace vornet::test {
namespace {

enum { LOCATION = 1, ACTIVE };
constexpr guint ACTIVE_SLOT = 1;

struct Window {
  GObject parent;
  GObject* activeSlot;
};

struct Slot {
  GObject parent;
  GFile* location;
  gboolean active;
};

template <typename Instance>
GType registerType(const char* name, GType parent, GClassInitFunc initialise) {
  GTypeQuery query;
  g_type_query(parent, &query);
  return g_type_register_static_simple(parent, name, static_cast<guint16>(query.class_size), initialise,
                                       sizeof(Instance), nullptr, GTypeFlags{});
}

void addObjectSignal(gpointer type, const char* name) {
  g_signal_new(name, G_TYPE_FROM_CLASS(type), G_SIGNAL_RUN_FIRST, 0, nullptr, nullptr, nullptr, G_TYPE_NONE, 1,
               G_TYPE_OBJECT);
}

void getProperty(GObject* object, guint property, GValue* value, GParamSpec*) {
  const auto* slot = reinterpret_cast<Slot*>(object);
  if (property == LOCATION)
    g_value_set_object(value, slot->location);
  else
    g_value_set_boolean(value, slot->active);
}

void setProperty(GObject* object, guint property, const GValue* value, GParamSpec*) {
  auto* slot = reinterpret_cast<Slot*>(object);
  if (property == LOCATION)
    g_set_object(&slot->location, static_cast<GFile*>(g_value_get_object(value)));
  else
    slot->active = g_value_get_boolean(value);
}

void finalizeSlot(GObject* object) {
  g_clear_object(&reinterpret_cast<Slot*>(object)->location);
  static_cast<GObjectClass*>(g_type_class_peek(G_TYPE_OBJECT))->finalize(object);
}

void getActiveSlot(GObject* object, guint, GValue* value, GParamSpec*) {
  g_value_set_object(value, reinterpret_cast<Window*>(object)->activeSlot);
}

void setActiveSlot(GObject* object, guint, const GValue* value, GParamSpec*) {
  g_set_object(&reinterpret_cast<Window*>(object)->activeSlot, static_cast<GObject*>(g_value_get_object(value)));
}

void finalizeWindow(GObject* object) {
  g_clear_object(&reinterpret_cast<Window*>(object)->activeSlot);
  static_cast<GObjectClass*>(g_type_class_peek(G_TYPE_OBJECT))->finalize(object);
}

}  // namespace

bool FakeSlots::applicationReportsWindows = true;
#ifdef VORNET_NAUTILUS_51
bool FakeSlots::windowsReportSlots = false;
#else
bool FakeSlots::windowsReportSlots = true;
#endif
bool FakeSlots::windowsHaveActiveSlot = true;
bool FakeSlots::slotsHaveLocations = true;
bool FakeSlots::slotsAreActive = true;

GObject* FakeSlots::newApplication() {
  static const GType type =
      registerType<GApplication>("VornetFakeApplication", G_TYPE_APPLICATION, [](gpointer made, gpointer) {
        if (!applicationReportsWindows) return;
        addObjectSignal(made, "window-added");
        addObjectSignal(made, "window-removed");
      });
  return static_cast<GObject*>(g_object_new(type, "application-id", "com.vornet.Test", nullptr));
}

GObject* FakeSlots::newWindow() {
  static const GType type = registerType<Window>("VornetFakeWindow", G_TYPE_OBJECT, [](gpointer made, gpointer) {
    auto* functions = static_cast<GObjectClass*>(made);
    functions->finalize = finalizeWindow;
    functions->get_property = getActiveSlot;
    functions->set_property = ::vornet::test::setActiveSlot;
    if (windowsHaveActiveSlot) {
      constexpr auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
      g_object_class_install_property(functions, ACTIVE_SLOT,
                                      g_param_spec_object("active-slot", nullptr, nullptr, G_TYPE_OBJECT, flags));
    }
    if (windowsReportSlots) {
      addObjectSignal(made, "slot-added");
      addObjectSignal(made, "slot-removed");
    }
  });
  return static_cast<GObject*>(g_object_new(type, nullptr));
}

GObject* FakeSlots::newSlot() {
  static const GType type = registerType<Slot>("VornetFakeSlot", G_TYPE_OBJECT, [](gpointer made, gpointer) {
    auto* functions = static_cast<GObjectClass*>(made);
    functions->finalize = finalizeSlot;
    functions->get_property = getProperty;
    functions->set_property = setProperty;
    constexpr auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    if (slotsHaveLocations) {
      g_object_class_install_property(functions, LOCATION,
                                      g_param_spec_object("location", nullptr, nullptr, G_TYPE_FILE, flags));
    }
    if (slotsAreActive) {
      g_object_class_install_property(functions, ACTIVE,
                                      g_param_spec_boolean("active", nullptr, nullptr, FALSE, flags));
    }
  });
  return static_cast<GObject*>(g_object_new(type, nullptr));
}

void FakeSlots::setActiveSlot(GObject* window, GObject* slot) {
  if (windowsHaveActiveSlot) g_object_set(window, "active-slot", slot, nullptr);
}

void FakeSlots::setLocation(GObject* slot, const std::string& url) {
  GFile* location = g_file_new_for_uri(url.c_str());
  if (slotsHaveLocations) g_object_set(slot, "location", location, nullptr);
  g_object_unref(location);
}

void FakeSlots::setActive(GObject* slot, bool active) {
  if (slotsAreActive) g_object_set(slot, "active", static_cast<gboolean>(active), nullptr);
}

// --- Windows --------------------------------------------------------------------------------------------------------

struct FakeWindows::Impl {
  GObject* application;
};

FakeWindows::FakeWindows() : impl_(std::make_unique<Impl>(Impl{FakeSlots::newApplication()})) {
  g_application_set_default(G_APPLICATION(impl_->application));
}

FakeWindows::~FakeWindows() {
  g_application_set_default(nullptr);
  g_object_unref(impl_->application);
}

struct FakeWindow::Impl {
  GObject* application;
  GObject* window;
  std::vector<GObject*> slots;
};

FakeWindow::FakeWindow(FakeWindows& windows, TestHost&)
    : impl_(std::make_unique<Impl>(Impl{windows.impl().application, FakeSlots::newWindow(), {}})) {
  if (FakeSlots::applicationReportsWindows) g_signal_emit_by_name(impl_->application, "window-added", impl_->window);
}

FakeWindow::~FakeWindow() {
  // As Nautilus closes one: the tabs go with it, and the application is notified last.
  for (Tab tab = 0; tab < impl_->slots.size(); ++tab) close(tab);
  if (FakeSlots::applicationReportsWindows) g_signal_emit_by_name(impl_->application, "window-removed", impl_->window);
  g_object_unref(impl_->window);
}

FakeWindow::Tab FakeWindow::open(const std::string& url, bool inFront) {
  GObject* slot = FakeSlots::newSlot();
  impl_->slots.push_back(slot);
  if (FakeSlots::windowsReportSlots) g_signal_emit_by_name(impl_->window, "slot-added", slot);
  if (inFront) FakeSlots::setActiveSlot(impl_->window, slot);
  FakeSlots::setActive(slot, inFront);
  FakeSlots::setLocation(slot, url);
  return impl_->slots.size() - 1;
}

void FakeWindow::bringToFront(Tab tab) {
  FakeSlots::setActiveSlot(impl_->window, impl_->slots[tab]);
  FakeSlots::setActive(impl_->slots[tab], true);
}

void FakeWindow::sendToBack(Tab tab) {
  FakeSlots::setActive(impl_->slots[tab], false);
}

void FakeWindow::go(Tab tab, const std::string& url) {
  FakeSlots::setLocation(impl_->slots[tab], url);
}

void FakeWindow::close(Tab tab) {
  GObject*& slot = impl_->slots[tab];
  if (!slot) return;
  if (FakeSlots::windowsReportSlots) g_signal_emit_by_name(impl_->window, "slot-removed", slot);
  if (reinterpret_cast<Window*>(impl_->window)->activeSlot == slot) FakeSlots::setActiveSlot(impl_->window, nullptr);
  g_clear_object(&slot);
}

}  // namespace vornet::test
