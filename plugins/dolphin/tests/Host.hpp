#pragma once

#include <KAbstractFileItemActionPlugin>
#include <KOverlayIconPlugin>
#include <KPluginFactory>
#include <KPluginMetaData>
#include <QAction>
#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QPluginLoader>
#include <QTimer>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace vornet::dolphin {

/// A program that loads the built plug-ins as KDE's programs do. One at a time.
class Host {
 public:
  Host() { QApplication::setQuitOnLastWindowClosed(false); }
  ~Host() {
    settle();  // abandoned jobs of KDE
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  /// The program's only overlay plug-in; loaded with the first call, as Dolphin does when it makes its first view.
  KOverlayIconPlugin* overlays() {
    if (overlays_) return overlays_;
    QPluginLoader loader(QStringLiteral(VORNET_DOLPHIN_PLUGINS "/overlayicon/vornetoverlay.so"));
    overlays_ = qobject_cast<KOverlayIconPlugin*>(loader.instance());
    if (!overlays_) throw std::runtime_error(loader.errorString().toStdString());
    return overlays_;
  }

  /// A new action plug-in, as Dolphin makes one for each window.
  static std::unique_ptr<KAbstractFileItemActionPlugin> newActions() {
    const KPluginMetaData data(QStringLiteral(VORNET_DOLPHIN_PLUGINS "/kfileitemaction/vornetaction.so"));
    auto result = KPluginFactory::instantiatePlugin<KAbstractFileItemActionPlugin>(data);
    if (!result) throw std::runtime_error(result.errorString.toStdString());
    return std::unique_ptr<KAbstractFileItemActionPlugin>(result.plugin);
  }

  /// Runs the program until `condition` holds; false after half a minute without.
  static bool waitUntil(const std::function<bool()>& condition) {
    QElapsedTimer elapsed;
    elapsed.start();
    while (!condition()) {
      if (elapsed.hasExpired(30'000)) return false;
      runFor(2);
    }
    return true;
  }
  static void runFor(int milliseconds) {
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
  }
  /// Runs it until everything that is due has been done.
  static void settle() {
    for (int round = 0; round < 3; ++round) {
      QCoreApplication::sendPostedEvents();
      QCoreApplication::processEvents();
    }
  }

 private:
  int count_ = 1;
  char name_[5] = "host";
  char* arguments_[2] = {name_, nullptr};
  QApplication application_{count_, arguments_};
  KOverlayIconPlugin* overlays_ = nullptr;
};

/// The visible ones of `entries`: "Share", or "(Share)" for a greyed one.
inline std::vector<std::string> shown(const QList<QAction*>& entries) {
  std::vector<std::string> result;
  for (const auto* entry : entries) {
    if (!entry->isVisible()) continue;
    const auto text = entry->text().toStdString();
    result.push_back(entry->isEnabled() ? text : "(" + text + ")");
  }
  return result;
}

}  // namespace vornet::dolphin
