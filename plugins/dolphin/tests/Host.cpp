#include "Host.hpp"

#include <KFileItem>
#include <KFileItemListProperties>
#include <KPluginFactory>
#include <KPluginMetaData>
#include <QElapsedTimer>
#include <QEvent>
#include <QEventLoop>
#include <QPluginLoader>
#include <QTimer>

#include <stdexcept>

namespace vornet::dolphin {
namespace {

constexpr int PATIENCE_MILLISECONDS = 30'000;
constexpr int GLANCE_MILLISECONDS = 2;

}  // namespace

Host::Host() {
  static int count = 1;
  static char name[] = "host";
  static char* arguments[] = {name, nullptr};
  application_ = std::make_unique<QApplication>(count, arguments);
  QApplication::setQuitOnLastWindowClosed(false);
}

Host::~Host() {
  settle();  // abandoned jobs of KDE
  QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

KOverlayIconPlugin* Host::overlays() {
  if (overlays_) return overlays_;
  QPluginLoader loader(QStringLiteral(VORNET_DOLPHIN_PLUGINS "/overlayicon/vornetoverlay.so"));
  overlays_ = qobject_cast<KOverlayIconPlugin*>(loader.instance());
  if (!overlays_) throw std::runtime_error(loader.errorString().toStdString());
  return overlays_;
}

std::unique_ptr<KAbstractFileItemActionPlugin> Host::newActions() {
  const KPluginMetaData data(QStringLiteral(VORNET_DOLPHIN_PLUGINS "/kfileitemaction/vornetaction.so"));
  auto result = KPluginFactory::instantiatePlugin<KAbstractFileItemActionPlugin>(data);
  if (!result) throw std::runtime_error(result.errorString.toStdString());
  return std::unique_ptr<KAbstractFileItemActionPlugin>(result.plugin);
}

bool Host::waitUntil(const std::function<bool()>& condition) {
  QElapsedTimer elapsed;
  elapsed.start();
  while (!condition()) {
    if (elapsed.hasExpired(PATIENCE_MILLISECONDS)) return false;
    QEventLoop loop;
    QTimer::singleShot(GLANCE_MILLISECONDS, &loop, &QEventLoop::quit);
    loop.exec();
  }
  return true;
}

void Host::settle() {
  for (int round = 0; round < 3; ++round) {
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
  }
}

QList<QAction*> entriesFor(KAbstractFileItemActionPlugin& plugin, const QList<QUrl>& items, QWidget* parent) {
  KFileItemList list;
  for (const auto& item : items) list.append(KFileItem(item));
  return plugin.actions(KFileItemListProperties(list), parent);
}

std::vector<std::string> shown(const QList<QAction*>& entries) {
  std::vector<std::string> result;
  for (const auto* entry : entries) {
    if (!entry->isVisible()) continue;
    const auto text = entry->text().toStdString();
    result.push_back(entry->isEnabled() ? text : "(" + text + ")");
  }
  return result;
}

}  // namespace vornet::dolphin
