#pragma once

#include <functional>

#include "Thunarx.hpp"
#include "client/FileManager.hpp"

namespace vornet::thunar {

/// The paths of `files`, a list of ThunarxFileInfo; empty when any has none on this machine (the trash, a share). Of
/// more than Plugin::LARGEST_SELECTION only one more is read.
client::Selection selectionOf(const GList* files);

/// Reports what is selected in the view on screen, each time that it changes. Thunar has no interface for that:
/// its views are recognised by the name of their type and asked for a property, and if either is missing nothing is
/// reported. The main thread's only.
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

  /// Drops a selection that has not been reported yet.
  void forget();

 private:
  static gboolean mapped(GSignalInvocationHint*, guint count, const GValue* values, gpointer self);
  static void changed(GObject* view, GParamSpec*, gpointer self);
  static gboolean report(gpointer self);

  Listener listener_;
  guint map_ = 0;        ///< the signal
  gulong hook_ = 0;      ///< called whenever a widget comes on screen
  GClosure* changed_;    ///< connected to every view; its end disconnects it from all
  guint reporting_ = 0;  ///< the source that calls report()
  GWeakRef view_;        ///< the one to report
};

}  // namespace vornet::thunar
