// Nautilus has no interface that says which folders its windows show. Its windows are objects of the process, though,
// and report their tabs ("slots") by properties and, up to version 50, by signals. None of these is promised to stay:
// each is looked up before it is used. Where one is missing, folders are inferred from the items asked for.
#include <algorithm>
#include <memory>
#include <vector>

#include "FolderWatch.hpp"
#include "Manager.hpp"
#include "Module.hpp"
#include "client/Log.hpp"
#include "client/Paths.hpp"
#include "dbus/GLibPtr.hpp"

namespace vornet::gtk {
namespace {

bool hasProperty(GObject* object, const char* name, GType type) {
  const GParamSpec* property = g_object_class_find_property(G_OBJECT_GET_CLASS(object), name);
  return property && (property->flags & G_PARAM_READABLE) && g_type_is_a(property->value_type, type);
}

/// True if `object` has a signal `name` that hands over one object.
bool hasObjectSignal(GObject* object, const char* name) {
  const guint identifier = g_signal_lookup(name, G_OBJECT_TYPE(object));
  if (!identifier) return false;
  GSignalQuery signal;
  g_signal_query(identifier, &signal);
  return signal.n_params == 1 && g_type_is_a(signal.param_types[0] & ~G_SIGNAL_TYPE_STATIC_SCOPE, G_TYPE_OBJECT);
}

/// Signal handlers on an object of Nautilus, which may end before or after them.
class Listening {
 public:
  /// `listener` is the handlers' last argument; `gone` is called with it when the object is disposed of.
  Listening(GObject* object, gpointer listener, GWeakNotify gone) : object_(object), listener_(listener), gone_(gone) {
    g_object_weak_ref(object_, gone_, listener_);
  }
  ~Listening() {
    if (!object_) return;
    g_object_weak_unref(object_, gone_, listener_);
    g_signal_handlers_disconnect_by_data(object_, listener_);
  }
  Listening(const Listening&) = delete;
  Listening& operator=(const Listening&) = delete;

  void connect(const char* signal, GCallback handler) { g_signal_connect(object_, signal, handler, listener_); }

  GObject* object() const { return object_; }

  /// The object is being disposed of.
  void forget() { object_ = nullptr; }

 private:
  GObject* object_;
  gpointer listener_;
  GWeakNotify gone_;
};

/// Calls `function` of the listener that a handler was connected with.
template <typename Listener, typename Function>
void notify(gpointer listener, Function function) {
  client::guarded([&] { function(*static_cast<Listener*>(listener)); });
}

/// One tab of a window.
class Slot {
 public:
  static bool isKnown(GObject* slot) {
    return hasProperty(slot, "location", G_TYPE_FILE) && hasProperty(slot, "active", G_TYPE_BOOLEAN);
  }

  explicit Slot(GObject* slot) : slot_(slot, this, gone) {
    slot_.connect("notify::location", G_CALLBACK(changed));
    slot_.connect("notify::active", G_CALLBACK(changed));
    update();
  }

  GObject* object() const { return slot_.object(); }

 private:
  static void changed(GObject*, GParamSpec*, gpointer self) {
    notify<Slot>(self, [](Slot& slot) { slot.update(); });
  }
  static void gone(gpointer self, GObject*) {
    notify<Slot>(self, [](Slot& slot) {
      slot.slot_.forget();
      slot.tab_.update(std::nullopt, false);
    });
  }

  void update() {
    gboolean active = FALSE;
    GFile* location = nullptr;
    g_object_get(slot_.object(), "active", &active, "location", &location, nullptr);
    const GObjectPtr<GFile> owned(location);
    const GCharPtr url(location ? g_file_get_uri(location) : nullptr);
    tab_.update(client::pathOfURL(url.get()), active);
  }

  Listening slot_;
  Tab tab_;
};

class Window {
 public:
  static bool isKnown(GObject* window) { return hasActiveSlot(window) || hasSlotSignals(window); }

  explicit Window(GObject* window) : window_(window, this, gone) {
    // The signals report every tab. Without them a tab is known once it has been in front, and ends with its object.
    if (hasSlotSignals(window)) {
      window_.connect("slot-added", G_CALLBACK(added));
      window_.connect("slot-removed", G_CALLBACK(removed));
    }
    if (hasActiveSlot(window)) {
      window_.connect("notify::active-slot", G_CALLBACK(activated));
      addActive();
    }
  }

  GObject* object() const { return window_.object(); }

 private:
  static bool hasActiveSlot(GObject* window) { return hasProperty(window, "active-slot", G_TYPE_OBJECT); }
  static bool hasSlotSignals(GObject* window) {
    return hasObjectSignal(window, "slot-added") && hasObjectSignal(window, "slot-removed");
  }

  static void activated(GObject*, GParamSpec*, gpointer self) {
    notify<Window>(self, [](Window& window) { window.addActive(); });
  }
  static void added(GObject*, GObject* slot, gpointer self) {
    notify<Window>(self, [slot](Window& window) { window.add(slot); });
  }
  static void removed(GObject*, GObject* slot, gpointer self) {
    notify<Window>(self, [slot](Window& window) {
      std::erase_if(window.slots_, [slot](const auto& known) { return known->object() == slot; });
    });
  }
  static void gone(gpointer self, GObject*) {
    notify<Window>(self, [](Window& window) {
      window.window_.forget();
      window.slots_.clear();
    });
  }

  void addActive() {
    GObject* slot = nullptr;
    g_object_get(object(), "active-slot", &slot, nullptr);
    const GObjectPtr<GObject> owned(slot);
    if (slot) add(slot);
  }

  void add(GObject* slot) {
    std::erase_if(slots_, [](const auto& known) { return !known->object(); });
    const bool known = std::ranges::any_of(slots_, [slot](const auto& other) { return other->object() == slot; });
    if (!known && Slot::isKnown(slot)) slots_.push_back(std::make_unique<Slot>(slot));
  }

  Listening window_;
  std::vector<std::unique_ptr<Slot>> slots_;
};

class NautilusWindows : public FolderWatch {
 public:
  explicit NautilusWindows(GObject* application) : application_(application, this, gone) {
    application_.connect("window-added", G_CALLBACK(added));
    application_.connect("window-removed", G_CALLBACK(removed));
  }

 private:
  static void added(GObject*, GObject* window, gpointer self) {
    notify<NautilusWindows>(self, [window](NautilusWindows& all) {
      const bool known =
          std::ranges::any_of(all.windows_, [window](const auto& one) { return one->object() == window; });
      if (window && !known && Window::isKnown(window)) all.windows_.push_back(std::make_unique<Window>(window));
    });
  }
  static void removed(GObject*, GObject* window, gpointer self) {
    notify<NautilusWindows>(self, [window](NautilusWindows& all) {
      std::erase_if(all.windows_, [window](const auto& one) { return !one->object() || one->object() == window; });
    });
  }
  static void gone(gpointer self, GObject*) {
    notify<NautilusWindows>(self, [](NautilusWindows& all) {
      all.application_.forget();
      all.windows_.clear();
    });
  }

  Listening application_;
  std::vector<std::unique_ptr<Window>> windows_;
};

}  // namespace

std::unique_ptr<FolderWatch> FolderWatch::make() {
  auto* application = reinterpret_cast<GObject*>(g_application_get_default());
  if (!application || !hasObjectSignal(application, "window-added") || !hasObjectSignal(application, "window-removed"))
    return nullptr;
  return std::make_unique<NautilusWindows>(application);
}

void FolderWatch::addInterfaces(GTypeModule*, GType) {}

}  // namespace vornet::gtk
