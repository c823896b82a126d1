#include "support/gtk/FakeFile.hpp"

#include <map>
#include <utility>

#include "dbus/GLibPtr.hpp"

namespace vornet::test {

using namespace gtk::manager;

namespace {

/// The path that `url` names; null for none on this machine.
GCharPtr localPath(const std::string& url) {
  gchar* host = nullptr;
  GCharPtr path(g_filename_from_uri(url.c_str(), &host, nullptr));
  return GCharPtr(host) ? nullptr : std::move(path);
}

GCharPtr nameIn(const std::string& url) {
  const auto path = localPath(url);
  return GCharPtr(g_path_get_basename(path ? path.get() : url.c_str()));
}

/// The folder's location: one whose files are local, or another.
GObjectPtr<GFile> parentOf(const std::string& url) {
  const auto path = localPath(url);
  if (!path) return GObjectPtr<GFile>(url.empty() ? nullptr : g_file_new_for_uri("trash:///"));
  const GObjectPtr<GFile> location(g_file_new_for_path(path.get()));
  return GObjectPtr<GFile>(g_file_get_parent(location.get()));
}

}  // namespace

struct FakeFile::Object {
  struct State {
    std::string url;
    InfoProvider** provider = nullptr;
    std::vector<std::string> emblems;
    std::map<std::string, std::string> attributes;
    int questions = 0;
    bool valid = false;
    bool watched = false;
    guint idle = 0;
    OperationHandle* waiting = nullptr;  // for the plug-in's answer
  };

  GObject parent;
  State* state;

  static Object* of(gpointer file) { return static_cast<Object*>(file); }

  OperationResult ask() {
    cancel();
    state->emblems.clear();
    state->attributes.clear();
    state->valid = true;
    ++state->questions;
    if (!*state->provider) return COMPLETE;
    const GClosurePtr closure(g_closure_ref(g_closure_new_simple(sizeof(GClosure), this)));
    g_closure_sink(closure.get());
    g_closure_set_marshal(closure.get(),
                          [](GClosure* answered, GValue*, guint count, const GValue* values, gpointer, gpointer) {
                            auto& waiting = of(answered->data)->state->waiting;
                            if (count == 3 && waiting && g_value_get_pointer(&values[1]) == waiting) waiting = nullptr;
                          });
    OperationHandle* handle = nullptr;
    const auto result = VORNET_CALL(info_provider_update_file_info)(*state->provider, reinterpret_cast<FileInfo*>(this),
                                                                    closure.get(), &handle);
    if (result == IN_PROGRESS) state->waiting = handle;
    return result;
  }

  void cancel() {
    if (auto* handle = std::exchange(state->waiting, nullptr); handle && *state->provider)
      VORNET_CALL(info_provider_cancel_update)(*state->provider, handle);
  }

  void askSoon() {
    if (state->idle || !state->watched) return;
    const auto asked = +[](gpointer file) -> gboolean {
      of(file)->state->idle = 0;
      if (of(file)->state->watched) of(file)->ask();
      return G_SOURCE_REMOVE;
    };
    state->idle = g_idle_add(asked, this);
  }
};

GType FakeFile::type() {
  static const GType registered = [] {
    struct Class {
      GObjectClass parent;
    };
    const auto initialise = [](GTypeInstance* file, gpointer) { Object::of(file)->state = new Object::State(); };
    const auto initialiseClass = [](gpointer type, gpointer) {
      static_cast<GObjectClass*>(type)->finalize = [](GObject* file) {
        if (const guint idle = Object::of(file)->state->idle) g_source_remove(idle);
        delete Object::of(file)->state;
        static_cast<GObjectClass*>(g_type_class_peek(G_TYPE_OBJECT))->finalize(file);
      };
    };
    const auto initialiseInterface = [](gpointer interface, gpointer) {
      auto* functions = static_cast<FileInfoInterface*>(interface);
      functions->get_uri = [](FileInfo* file) { return g_strdup(Object::of(file)->state->url.c_str()); };
      functions->get_name = [](FileInfo* file) { return nameIn(Object::of(file)->state->url).release(); };
      functions->get_parent_location = [](FileInfo* file) { return parentOf(Object::of(file)->state->url).release(); };
      functions->get_location = [](FileInfo* file) { return g_file_new_for_uri(Object::of(file)->state->url.c_str()); };
      functions->add_emblem = [](FileInfo* file, const char* emblem) {
        Object::of(file)->state->emblems.push_back(emblem);
      };
      functions->add_string_attribute = [](FileInfo* file, const char* attribute, const char* value) {
        Object::of(file)->state->attributes[attribute] = value;
      };
      functions->invalidate_extension_info = [](FileInfo* file) {
        Object::of(file)->state->valid = false;
        Object::of(file)->askSoon();
      };
    };
    const GTypeInfo description = {sizeof(Class), nullptr,        nullptr, initialiseClass, nullptr,
                                   nullptr,       sizeof(Object), 0,       initialise,      nullptr};
    const GInterfaceInfo fileInfo = {initialiseInterface, nullptr, nullptr};
    const GType made = g_type_register_static(G_TYPE_OBJECT, "VornetFakeFile", &description, GTypeFlags{});
    g_type_add_interface_static(made, VORNET_CONSTANT(TYPE_FILE_INFO), &fileInfo);
    return made;
  }();
  return registered;
}

FakeFile::FakeFile(std::string url, InfoProvider*& provider)
    : object_(static_cast<Object*>(g_object_new(type(), nullptr))) {
  object_->state->url = std::move(url);
  object_->state->provider = &provider;
}

FakeFile::~FakeFile() {
  unwatch();
  g_object_unref(object_);
}

FileInfo* FakeFile::info() const {
  return reinterpret_cast<FileInfo*>(object_);
}

void FakeFile::watch() {
  object_->state->watched = true;
  if (!object_->state->valid) object_->askSoon();
}

void FakeFile::unwatch() {
  object_->state->watched = false;
  object_->cancel();
}

OperationResult FakeFile::ask() {
  return object_->ask();
}

const std::vector<std::string>& FakeFile::emblems() const {
  return object_->state->emblems;
}

std::optional<std::string> FakeFile::text(const std::string& column) const {
  const auto found = object_->state->attributes.find(column);
  if (found == object_->state->attributes.end()) return {};
  return found->second;
}

bool FakeFile::isWaiting() const {
  return object_->state->waiting != nullptr;
}

bool FakeFile::isValid() const {
  return object_->state->valid;
}

int FakeFile::questions() const {
  return object_->state->questions;
}

unsigned FakeFile::otherReferences() const {
  return object_->parent.ref_count - 1;
}

}  // namespace vornet::test
