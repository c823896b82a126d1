#include "support/gtk/FakeFile.hpp"

#include <map>

namespace vornet::test {

using namespace gtk::manager;

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
  };

  GObject parent;
  State* state;

  static Object* of(gpointer file) { return static_cast<Object*>(file); }

  OperationResult ask() {
    state->emblems.clear();
    state->attributes.clear();
    state->valid = true;
    ++state->questions;
    if (!*state->provider) return COMPLETE;
    GClosure* closure = g_cclosure_new(G_CALLBACK(+[] {}), nullptr, nullptr);
    g_closure_ref(closure);
    g_closure_sink(closure);
    OperationHandle* handle = nullptr;
    const auto result = VORNET_CALL(info_provider_update_file_info)(*state->provider, reinterpret_cast<FileInfo*>(this),
                                                                    closure, &handle);
    g_closure_unref(closure);
    return result;
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
      functions->get_name = [](FileInfo* file) { return g_path_get_basename(Object::of(file)->state->url.c_str()); };
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
