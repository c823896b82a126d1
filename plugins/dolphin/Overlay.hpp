#pragma once

#include <KOverlayIconPlugin>
#include <QPointer>
#include <QStringList>
#include <QUrl>

#include "Session.hpp"

namespace vornet::dolphin {

/// The plug-in that Dolphin asks for the emblems of what it shows. One for the program.
class Overlay : public KOverlayIconPlugin {
  Q_OBJECT
  Q_PLUGIN_METADATA(IID "com.vornet.dolphin.overlay" FILE "overlay.json")
 public:
  explicit Overlay(QObject* parent = nullptr);

  QStringList getOverlays(const QUrl& url) override;

 private:
  /// Null when the program is ending.
  Session* session();

  QPointer<Session> session_;
};

}  // namespace vornet::dolphin
