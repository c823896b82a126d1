#pragma once

#include <gio/gio.h>

#include <memory>

/// Owning pointers for what GLib hands out.
namespace vornet::vi {

struct GObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
struct GFree {
  void operator()(gpointer memory) const { g_free(memory); }
};
struct GStrvFree {
  void operator()(gchar** texts) const { g_strfreev(texts); }
};
struct GErrorFree {
  void operator()(GError* error) const { g_error_free(error); }
};
struct GVariantUnref {
  void operator()(GVariant* value) const { g_variant_unref(value); }
};

template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;
using GCharPtr = std::unique_ptr<gchar, GFree>;
using GStrvPtr = std::unique_ptr<gchar*, GStrvFree>;
using GErrorPtr = std::unique_ptr<GError, GErrorFree>;
using GVariantPtr = std::unique_ptr<GVariant, GVariantUnref>;

}  // namespace vornet::vi
