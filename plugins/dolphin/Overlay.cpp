#include "Overlay.hpp"

#include "client/Guarded.hpp"

namespace vornet::dolphin {

Overlay::Overlay(QObject* parent) : KOverlayIconPlugin(parent) {
  client::guarded([this] { session(); });  // from now on views are found as they are shown
}

QStringList Overlay::getOverlays(const QUrl& url) {
  return client::guarded(QStringList(), [&] {
    Session* const current = session();
    return current ? current->overlays(url) : QStringList();
  });
}

Session* Overlay::session() {
  Session* const current = Session::instance();
  if (current && current != session_) {
    session_ = current;
    connect(current, &Session::overlaysChanged, this, &KOverlayIconPlugin::overlaysChanged);
  }
  return current;
}

}  // namespace vornet::dolphin
