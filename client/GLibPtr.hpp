#pragma once

#include <gio/gio.h>

#include <memory>

/// Owning pointers for what GLib hands out.
namespace vornet::client {

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

template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;
using GCharPtr = std::unique_ptr<gchar, GFree>;
using GErrorPtr = std::unique_ptr<GError, GErrorFree>;
using GVariantPtr = std::unique_ptr<GVariant, GVariantUnref>;

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

}  // namespace vornet::client
