#pragma once

#include <QList>
#include <QObject>
#include <QStringList>
#include <QUrl>

#include <memory>
#include <string>

#include "client/FileManager.hpp"

#ifdef VORNET_DOLPHIN_LIBRARY
#define VORNET_DOLPHIN_API Q_DECL_EXPORT
#else
#define VORNET_DOLPHIN_API Q_DECL_IMPORT
#endif

class QWidget;

namespace vornet::client {
class Plugin;
class SlicedWork;
}  // namespace vornet::client

namespace vornet::dolphin {

class GLibEvents;
class Views;

/// The program's one session with the extension, which both plug-ins use: what is selected in a window is known to it
/// before the action plug-in is asked for the first time. Main thread. Nothing here waits.
class VORNET_DOLPHIN_API Session : public QObject, private client::FileManager {
  Q_OBJECT
 public:
  /// Made when it is first asked for; it ends with the application object. Null without one.
  static Session* instance();

  /// The icon names of the emblems of the item at `url`. When they change, overlaysChanged reports it.
  QStringList overlays(const QUrl& url);

  /// What a menu in the window of `parent` (null: unknown) is opened for, as menu() and perform() take it; empty where
  /// no entries belong: on a view's background, and for items that are not on this machine's disk.
  client::Selection selection(const QList<QUrl>& urls, const QWidget* parent) const;

  /// As client::Plugin has them. When the menu of a selection changes, menuUpdated reports it.
  client::Menu menu(const client::Selection& selection);
  void perform(const std::string& action, const client::Selection& selection);

 Q_SIGNALS:
  void overlaysChanged(const QUrl& url, const QStringList& icons);

  void menuUpdated(const client::Selection& selection);

 private:
  class Shown;

  Session();
  ~Session() override;

  void menuChanged(const client::Selection& selection) override { Q_EMIT menuUpdated(selection); }
  void redraw(const QUrl& url, const QStringList& icons);
  void askAgain(const QList<QUrl>& items);

  static Session* session_;

  std::unique_ptr<GLibEvents> events_;
  std::unique_ptr<client::Plugin> plugin_;
  std::unique_ptr<Views> views_;
  std::unique_ptr<client::SlicedWork> work_;
};

}  // namespace vornet::dolphin
