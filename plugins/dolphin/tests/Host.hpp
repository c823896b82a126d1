#pragma once

#include <KAbstractFileItemActionPlugin>
#include <KOverlayIconPlugin>
#include <QAction>
#include <QApplication>
#include <QUrl>
#include <QWidget>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vornet::dolphin {

/// A program that loads the built plug-ins as KDE's programs do. One at a time.
class Host {
 public:
  Host();
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  /// The program's only overlay plug-in; loaded with the first call, as Dolphin does when it makes its first view.
  KOverlayIconPlugin* overlays();

  /// A new action plug-in, as Dolphin makes one for each window.
  std::unique_ptr<KAbstractFileItemActionPlugin> newActions();

  /// Runs the program until `condition` holds; false after half a minute without.
  static bool waitUntil(const std::function<bool()>& condition);
  /// Runs it until everything that is due has been done.
  static void settle();

 private:
  std::unique_ptr<QApplication> application_;
  KOverlayIconPlugin* overlays_ = nullptr;
};

/// The entries that an action plug-in has for a context menu in the window of `parent`.
QList<QAction*> entriesFor(KAbstractFileItemActionPlugin& plugin, const QList<QUrl>& items, QWidget* parent);

/// Those that are visible: "Share", or "(Share)" for a greyed one.
std::vector<std::string> shown(const QList<QAction*>& entries);

}  // namespace vornet::dolphin
