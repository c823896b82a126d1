#pragma once

#include <QList>
#include <QObject>
#include <QTimer>
#include <QUrl>

#include <deque>
#include <functional>

namespace vornet::dolphin {

/// Items that are on screen again after a while: Dolphin goes on showing the emblems that they had, and does not ask
/// again. Asks in its place, in portions of a few milliseconds. An emblem that is not known yet leaves the former one
/// for a second, so that none flickers. Main thread.
class Reappearance : public QObject {
  Q_OBJECT
 public:
  /// `ask`: has the library look for the emblem, and tells whether it has one. `tell`: tells Dolphin, whatever it is.
  Reappearance(std::function<bool(const QUrl&)> ask, std::function<void(const QUrl&)> tell);
  ~Reappearance() override;

  void add(const QList<QUrl>& items);

 private:
  void goOn();

  std::function<bool(const QUrl&)> ask_;
  std::function<void(const QUrl&)> tell_;
  std::deque<QUrl> toAsk_;
  std::deque<QUrl> toTell_;
  std::deque<QUrl> unknown_;
  QTimer portion_;
  QTimer patience_;
};

}  // namespace vornet::dolphin
