#include "Session.hpp"

#include <QApplication>
#include <QThread>

#include <utility>

#include "GLibEvents.hpp"
#include "Locations.hpp"
#include "Reappearance.hpp"
#include "Views.hpp"
#include "client/Guarded.hpp"
#include "client/Plugin.hpp"

namespace vornet::dolphin {

/// Keeps the URL as Dolphin has it, by which alone it finds the item again.
class Session::Shown : public client::ShownItem {
 public:
  Shown(Session& session, const QUrl& url) : session_(session), url_(url) {}

  void redraw(const std::string&) override {
    const QUrl url = url_;  // this object gives way to another while the emblem is asked for
    client::guarded([&session = session_, &url] { session.redraw(url); });
  }

 private:
  Session& session_;
  QUrl url_;
};

Session* Session::session_ = nullptr;

Session* Session::instance() {
  const auto* application = qobject_cast<QApplication*>(QCoreApplication::instance());
  if (!application || application->thread() != QThread::currentThread()) return nullptr;
  if (!session_ && !QCoreApplication::closingDown()) {
    session_ = new Session;
    qAddPostRoutine([] { delete std::exchange(session_, nullptr); });
  }
  return session_;
}

Session::Session() {
  client::Plugin::Options options;
  if (GLibEvents::needed()) {
    events_ = std::make_unique<GLibEvents>();
    options.context = events_->context();
  }
  plugin_ = std::make_unique<client::Plugin>(static_cast<client::FileManager&>(*this), options);
  views_ = std::make_unique<Views>(*plugin_);
  reappearance_ = std::make_unique<Reappearance>([this](const QUrl& url) { return !overlays(url).isEmpty(); },
                                                 [this](const QUrl& url) { redraw(url); });
  connect(views_.get(), &Views::reappeared, reappearance_.get(), &Reappearance::add);
  connect(views_.get(), &Views::selected, this, [this](const KFileItemList& items) { menu(selectionOf(items)); });
}

Session::~Session() = default;

QStringList Session::overlays(const QUrl& url) {
  const auto path = pathOf(url);
  if (path.empty() || !views_->asked(url)) return {};
  const auto icon = plugin_->emblem(path, std::make_unique<Shown>(*this, url));
  return icon.empty() ? QStringList() : QStringList(QString::fromStdString(icon));
}

void Session::redraw(const QUrl& url) {
  if (views_->show(url)) Q_EMIT overlaysChanged(url, overlays(url));
}

client::Selection Session::selection(const QList<QUrl>& urls, const QWidget* parent) const {
  if (urls.size() == 1 && views_->isBackground(urls.front(), parent)) return {};
  return selectionOf(urls);
}

client::Menu Session::menu(const client::Selection& selection) {
  selection_ = selection;
  return plugin_->menu(selection);
}

void Session::perform(const std::string& action, const client::Selection& selection) {
  plugin_->perform(action, selection);
}

}  // namespace vornet::dolphin
