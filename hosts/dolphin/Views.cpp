#include "Views.hpp"

#include <KCoreDirLister>
#include <QApplication>
#include <QEvent>

#include <algorithm>

#include "plugin/Guarded.hpp"

namespace vornet::dolphin {
namespace {

bool isView(const QObject& object) {
  return object.inherits("DolphinView") || object.inherits("FoldersPanel");
}

}  // namespace

Views::Views(plugin::Plugin& plugin) : plugin_(plugin) {
  for (auto* widget : QApplication::allWidgets()) {
    if (isView(*widget) && widget->isVisible()) add(*widget);
  }
  QCoreApplication::instance()->installEventFilter(this);
}

Views::~Views() = default;

bool Views::show(const QUrl& url) const {
  if (views_.empty()) return !KCoreDirLister::cachedItemForUrl(url).isNull();
  return std::any_of(views_.begin(), views_.end(), [&url](const auto& view) { return view.second->shows(url); });
}

void Views::asked(const QUrl& url) {
  for (const auto& [widget, view] : views_) view->asked(url);
}

bool Views::isBackground(const QUrl& url, const QWidget* parent) const {
  const QWidget* window = parent ? parent->window() : nullptr;
  const QWidget* focus = QApplication::focusWidget();
  const auto inUse = [focus](const auto& view) { return view.second->widget().isAncestorOf(focus); };
  const bool known = focus && std::any_of(views_.begin(), views_.end(), inUse);
  return std::any_of(views_.begin(), views_.end(), [&](const auto& view) {
    const QWidget& widget = view.second->widget();
    if (!widget.inherits("DolphinView") || !widget.isVisible() || (window && widget.window() != window)) return false;
    return (!known || inUse(view)) && view.second->url().matches(url, QUrl::StripTrailingSlash);
  });
}

bool Views::eventFilter(QObject* object, QEvent* event) {
  const bool shown = event->type() == QEvent::Show;
  if ((shown || event->type() == QEvent::Hide) && object->isWidgetType()) {
    plugin::guarded([&] {
      const auto known = views_.find(object);
      if (known != views_.end()) {
        known->second->visibilityChanged();
      } else if (shown && isView(*object)) {
        add(static_cast<QWidget&>(*object));
      }
    });
  }
  return QObject::eventFilter(object, event);
}

void Views::add(QWidget& widget) {
  auto view = std::make_unique<View>(widget, plugin_);
  connect(view.get(), &View::selected, this, &Views::selected);
  connect(view.get(), &View::reappeared, this, &Views::reappeared);
  connect(&widget, &QObject::destroyed, this, [this](const QObject* gone) { views_.erase(gone); });
  views_.emplace(&widget, std::move(view));
}

}  // namespace vornet::dolphin
