#pragma once

#include <QObject>
#include <QStringList>
#include <QUrl>

#include <memory>
#include <string>

#include "client/FileManager.hpp"
#include "client/Menu.hpp"

#ifdef VORNET_DOLPHIN_LIBRARY
#define VORNET_DOLPHIN_API Q_DECL_EXPORT
#else
#define VORNET_DOLPHIN_API Q_DECL_IMPORT
#endif

class QWidget;

namespace vornet::client {
class Plugin;
}

namespace vornet::dolphin {

class GLibEvents;
class Reappearance;
class Views;

/// The program's one session with the extension, which both plug-ins use: what is selected in a window is known to it
/// before the action plug-in is asked for the first time. Main thread. Nothing here waits.
class VORNET_DOLPHIN_API Session : public QObject, private client::FileManager {
  Q_OBJECT
 public:
  /// Made when it is first asked for; it ends with the application object. Null without one.
  static Session* instance();

  /// The icon names of the emblems of the item at `url`. When they are others later, overlaysChanged tells.
  QStringList overlays(const QUrl& url);

  /// What a menu in the window of `parent` (null: unknown) is opened for, as menu() and perform() take it; empty where
  /// no entries belong: on a view's background, and for items that are not on this machine's disk.
  client::Selection selection(const QList<QUrl>& urls, const QWidget* parent) const;

  /// The entries for `selection`, which from now on is what the user has selected.
  client::Menu menu(const client::Selection& selection);

  /// Whether `selection` is that still. What is selected in a view takes its place.
  bool isSelected(const client::Selection& selection) const { return selection == selection_; }

  void perform(const std::string& action, const client::Selection& selection);

 Q_SIGNALS:
  void overlaysChanged(const QUrl& url, const QStringList& icons);

  /// The entries for what is selected are others now.
  void entriesChanged();

 private:
  class Shown;

  Session();
  ~Session() override;

  void menuChanged() override { Q_EMIT entriesChanged(); }
  void redraw(const QUrl& url);

  static Session* session_;

  std::unique_ptr<GLibEvents> events_;
  std::unique_ptr<client::Plugin> plugin_;
  std::unique_ptr<Views> views_;
  std::unique_ptr<Reappearance> reappearance_;
  client::Selection selection_;
};

}  // namespace vornet::dolphin
