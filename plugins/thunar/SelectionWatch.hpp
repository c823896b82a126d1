#pragma once

#include <functional>

#include "Thunarx.hpp"
#include "client/Menu.hpp"

namespace vornet::thunar {

/// Tells what is selected in the view on screen, each time that it becomes another. Thunar has no interface for that:
/// its views are recognised by the name of their type and asked for a property, and if either is missing nothing is
/// told. The main thread's only.
class SelectionWatch {
 public:
  struct Listener {
    std::function<void()> viewShown;
    std::function<void(const client::Selection&)> selected;
  };

  explicit SelectionWatch(Listener listener);
  ~SelectionWatch();
  SelectionWatch(const SelectionWatch&) = delete;
  SelectionWatch& operator=(const SelectionWatch&) = delete;

  /// What has been selected and not told yet is no longer worth telling.
  void forget();

 private:
  static gboolean mapped(GSignalInvocationHint*, guint count, const GValue* values, gpointer self);
  static void changed(GObject* view, GParamSpec*, gpointer self);
  static gboolean tell(gpointer self);

  Listener listener_;
  guint map_ = 0;      ///< the signal
  gulong hook_ = 0;    ///< called whenever a widget comes on screen
  GClosure* changed_;  ///< connected to every view; its end disconnects it from all
  guint telling_ = 0;  ///< the source that calls tell()
  GWeakRef view_;      ///< the one to tell of
};

}  // namespace vornet::thunar
