#pragma once

#include <gio/gio.h>

#include <memory>

/// Owning pointers for what GLib hands out, and the reading of values: for the service and for every client.
namespace vornet {

struct GObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
struct GFree {
  void operator()(gpointer memory) const { g_free(memory); }
};
struct GErrorFree {
  void operator()(GError* error) const { g_error_free(error); }
};
struct GVariantUnref {
  void operator()(GVariant* value) const { g_variant_unref(value); }
};
struct GSourceUnref {
  void operator()(GSource* source) const { g_source_unref(source); }
};
struct GMainContextUnref {
  void operator()(GMainContext* context) const { g_main_context_unref(context); }
};
struct GMainLoopUnref {
  void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
};
struct GBytesUnref {
  void operator()(GBytes* bytes) const { g_bytes_unref(bytes); }
};
struct GClosureUnref {
  void operator()(GClosure* closure) const { g_closure_unref(closure); }
};
struct GListFree {
  void operator()(GList* list) const { g_list_free(list); }
};
struct GStrvFree {
  void operator()(gchar** texts) const { g_strfreev(texts); }
};

template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;
using GCharPtr = std::unique_ptr<gchar, GFree>;
using GErrorPtr = std::unique_ptr<GError, GErrorFree>;
using GVariantPtr = std::unique_ptr<GVariant, GVariantUnref>;
using GSourcePtr = std::unique_ptr<GSource, GSourceUnref>;
using GMainContextPtr = std::unique_ptr<GMainContext, GMainContextUnref>;
using GMainLoopPtr = std::unique_ptr<GMainLoop, GMainLoopUnref>;
using GClosurePtr = std::unique_ptr<GClosure, GClosureUnref>;
using GBytesPtr = std::unique_ptr<GBytes, GBytesUnref>;
/// Owns a list, not its elements.
using GListPtr = std::unique_ptr<GList, GListFree>;
using GStrvPtr = std::unique_ptr<gchar*, GStrvFree>;

/// Hands a GLib call's `GError**` to a GErrorPtr: `f(ErrorTo(error))`.
class ErrorTo {
 public:
  explicit ErrorTo(GErrorPtr& target) : target_(target) {}
  ~ErrorTo() { target_.reset(raw_); }
  ErrorTo(const ErrorTo&) = delete;
  ErrorTo& operator=(const ErrorTo&) = delete;
  operator GError**() { return &raw_; }

 private:
  GErrorPtr& target_;
  GError* raw_ = nullptr;
};

/// The child `index` of a container. Unlike g_variant_get_child() with "&s", which first serialises the whole
/// container, its cost does not depend on how many others there are.
inline GVariantPtr childOf(GVariant* container, gsize index) {
  return GVariantPtr(g_variant_get_child_value(container, index));
}

/// The text of a string value; it lives as long as the value.
inline const gchar* textOf(const GVariantPtr& string) {
  return g_variant_get_string(string.get(), nullptr);
}

}  // namespace vornet
