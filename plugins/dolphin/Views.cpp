#include "Views.hpp"

#include <KCoreDirLister>
#include <QApplication>
#include <QEvent>
#include <QPointer>

#include <algorithm>
#include <vector>

#include "client/Guarded.hpp"

namespace vornet::dolphin {
namespace {

bool isView(const QObject& object) {
  return object.inherits("DolphinView") || object.inherits("FoldersPanel");
}

}  // namespace

Views::Views(client::Plugin& plugin) : plugin_(plugin) {
  for (auto* widget : QApplication::allWidgets()) {
    if (isView(*widget)) findSoon(*widget);
  }
  QCoreApplication::instance()->installEventFilter(this);
}

Views::~Views() = default;

bool Views::show(const QUrl& url) const {
  if (views_.empty()) return !KCoreDirLister::cachedItemForUrl(url).isNull();
  return std::any_of(views_.begin(), views_.end(), [&url](const auto& view) { return view.second->shows(url); });
}

bool Views::asked(const QUrl& url) {
  bool visible = false;
  bool hidden = false;
  for (const auto& [object, view] : views_) {
    if (view->asked(url)) (view->widget().isVisible() ? visible : hidden) = true;
  }
  if (visible || hidden) return visible;
  for (const auto& [object, view] : views_) view->askedForResult(url);
  return true;
}

bool Views::isBackground(const QUrl& url, const QWidget* parent) const {
  std::vector<const View*> candidates;
  for (const auto& [object, view] : views_) {
    const QWidget& widget = view->widget();
    const bool inWindow = !parent || widget.window() == parent->window();
    if (inWindow && widget.isVisible() && widget.inherits("DolphinView")) candidates.push_back(view.get());
  }
  const auto inUse = [focus = QApplication::focusWidget()](const View* view) {
    return focus && view->widget().isAncestorOf(focus);
  };
  const auto used = std::find_if(candidates.begin(), candidates.end(), inUse);
  if (used != candidates.end()) candidates = {*used};
  return std::any_of(candidates.begin(), candidates.end(),
                     [&url](const View* view) { return view->url().matches(url, QUrl::StripTrailingSlash); });
}

bool Views::eventFilter(QObject* object, QEvent* event) {
  const auto type = event->type();
  if ((type == QEvent::Show || type == QEvent::Hide || type == QEvent::ChildAdded) && object->isWidgetType()) {
    client::guarded([&] {
      const auto known = views_.find(object);
      if (known == views_.end()) {
        if (isView(*object)) findSoon(static_cast<QWidget&>(*object));
      } else if (type != QEvent::ChildAdded) {
        known->second->visibilityChanged();
      }
    });
  }
  return QObject::eventFilter(object, event);
}

/// Its constructor may be at work still.
void Views::findSoon(QWidget& widget) {
  const auto find = [this, found = QPointer<QWidget>(&widget)] {
    client::guarded([&] {
      if (found && views_.count(found) == 0) add(*found);
    });
  };
  QMetaObject::invokeMethod(this, find, Qt::QueuedConnection);
}

void Views::add(QWidget& widget) {
  auto view = std::make_unique<View>(widget, plugin_);
  connect(view.get(), &View::selected, this, &Views::selected);
  connect(view.get(), &View::reappeared, this, &Views::reappeared);
  connect(&widget, &QObject::destroyed, this, [this](const QObject* gone) { views_.erase(gone); });
  views_.emplace(&widget, std::move(view));
}

}  // namespace vornet::dolphin
