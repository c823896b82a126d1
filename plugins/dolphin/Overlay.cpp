#include <KOverlayIconPlugin>
#include <QPointer>

#include "Session.hpp"
#include "client/Log.hpp"

namespace vornet::dolphin {

/// The plug-in that Dolphin asks for the emblems of what it shows. One for the program.
class Overlay : public KOverlayIconPlugin {
  Q_OBJECT
  Q_PLUGIN_METADATA(IID "com.vornet.dolphin.overlay" FILE "overlay.json")
 public:
  explicit Overlay(QObject* parent = nullptr) : KOverlayIconPlugin(parent) {
    client::guarded([this] { session(); });  // from now on views are found as they are shown
  }

  QStringList getOverlays(const QUrl& url) override {
    return client::guarded(QStringList(), [&] {
      Session* const current = session();
      return current ? current->overlays(url) : QStringList();
    });
  }

 private:
  /// Null when the program is ending.
  Session* session() {
    Session* const current = Session::instance();
    if (current && current != session_) {
      session_ = current;
      connect(current, &Session::overlaysChanged, this, &KOverlayIconPlugin::overlaysChanged);
    }
    return current;
  }

  QPointer<Session> session_;
};

}  // namespace vornet::dolphin

#include "Overlay.moc"
