// The limit of emblems in Dolphin: as Gtk.cpp.
#include <KOverlayIconPlugin>
#include <QUrl>
#include <cstdio>

class ConstantOverlay : public KOverlayIconPlugin {
  Q_OBJECT
  Q_PLUGIN_METADATA(IID "com.vornet.bench.overlay" FILE "overlay.json")
 public:
  using KOverlayIconPlugin::KOverlayIconPlugin;

  QStringList getOverlays(const QUrl& url) override {
    static const bool spies = qEnvironmentVariableIsSet("VORNET_BENCH_SPY");
    if (!spies) return {QStringLiteral("emblem-vornet-synced")};
    std::fprintf(stderr, "asked for %s\n", url.toEncoded().constData());
    return {};
  }
};

#include "Dolphin.moc"
