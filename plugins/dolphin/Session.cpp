#include "Session.hpp"

#include <QApplication>
#include <QThread>

#include <utility>

#include "GLibEvents.hpp"
#include "Views.hpp"
#include "client/Log.hpp"
#include "client/MainLoop.hpp"
#include "client/Plugin.hpp"

namespace vornet::dolphin {

namespace {

// Items requested between two looks at the clock.
constexpr int STEP = 16;

QStringList listOf(const std::string& icon) {
  return icon.empty() ? QStringList() : QStringList(QString::fromStdString(icon));
}

}  // namespace

/// Keeps the URL as Dolphin has it, by which alone it finds the item again.
class Session::Shown : public client::ShownItem {
 public:
  Shown(Session& session, const QUrl& url) : session_(session), url_(url) {}

  void redraw(const std::string&, const std::string& emblem) override {
    client::guarded([&] { session_.redraw(url_, listOf(emblem)); });
  }

 private:
  Session& session_;
  const QUrl url_;
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
  work_ = std::make_unique<client::SlicedWork>(options.context);
  connect(views_.get(), &Views::reappeared, this, [this](const QList<QUrl>& items) { askAgain(items); });
  connect(views_.get(), &Views::selected, this, [this](const KFileItemList& items) { menu(selectionOf(items)); });
}

Session::~Session() = default;

QStringList Session::overlays(const QUrl& url) {
  const auto path = pathOf(url);
  if (path.empty()) return {};
  views_->asked(url);
  return listOf(plugin_->emblem(path, std::make_shared<Shown>(*this, url)));
}

void Session::redraw(const QUrl& url, const QStringList& icons) {
  if (views_->show(url)) Q_EMIT overlaysChanged(url, icons);
}

/// Asks on behalf of Dolphin, which goes on showing the old emblems of these items.
void Session::askAgain(const QList<QUrl>& items) {
  work_->add([this, items, next = 0]() mutable {
    for (int i = 0; i < STEP && next < items.size(); ++i, ++next) redraw(items[next], overlays(items[next]));
    return next < items.size();
  });
}

client::Selection Session::selection(const QList<QUrl>& urls, const QWidget* parent) const {
  if (urls.size() == 1 && views_->isBackground(urls.front(), parent)) return {};
  return selectionOf(urls);
}

client::Menu Session::menu(const client::Selection& selection) {
  return plugin_->menu(selection);
}

void Session::perform(const std::string& action, const client::Selection& selection) {
  plugin_->perform(action, selection);
}

}  // namespace vornet::dolphin
