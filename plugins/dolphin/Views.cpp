#include "Views.hpp"

#include <KCoreDirLister>
#include <QApplication>
#include <QEvent>
#include <QFile>
#include <QMetaObject>
#include <QPointer>
#include <QSet>
#include <QVariant>

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>
#include <vector>

#include "client/Log.hpp"

namespace vornet::dolphin {
namespace {

template <typename Items, typename Location>
client::Selection pathsOf(const Items& items, const Location& location) {
  const auto read = std::min(static_cast<std::size_t>(items.size()), client::Plugin::LARGEST_SELECTION + 1);
  client::Selection selection;
  selection.reserve(read);
  for (auto item = items.begin(); selection.size() < read; ++item) {
    auto path = pathOf(location(*item));
    if (path.empty()) return {};
    selection.push_back(std::move(path));
  }
  return selection;
}

bool isView(const QObject& object) {
  return object.inherits("DolphinView") || object.inherits("FoldersPanel");
}

bool hasSignal(const QObject& object, const char* signature) {
  return object.metaObject()->indexOfSignal(signature) >= 0;
}

}  // namespace

std::string pathOf(const QUrl& url) {
  if (!url.isLocalFile() || !url.host().isEmpty()) return {};
  std::string path = QFile::encodeName(url.toLocalFile()).toStdString();
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

client::Selection selectionOf(const QList<QUrl>& urls) {
  return pathsOf(urls, [](const QUrl& url) { return url; });
}

client::Selection selectionOf(const KFileItemList& items) {
  return pathsOf(items, [](const KFileItem& item) { return item.url(); });
}

// --- One view -------------------------------------------------------------------------------------------------------

/// One of Dolphin's views (a tab, a side of a split window, the panel of folders): reports which folders it holds,
/// whether it is on screen, and what is selected in it. It knows the widget by signals' names, properties and the
/// directory listers among its children, and does without any of them that is missing. Main thread.
class View : public QObject {
  Q_OBJECT
 public:
  /// Both outlive it.
  View(QWidget& widget, client::Plugin& plugin);
  /// Closes the folders that it holds.
  ~View() override;

  /// The widget was shown or hidden.
  void visibilityChanged();

  /// The folder that it shows; a tree's topmost.
  QUrl url() const;
  const QWidget& widget() const { return widget_; }

  /// True if it lists a folder that holds the item at `url`, even while hidden.
  bool lists(const QUrl& url) const;
  /// True if the item at `url` is a result of the search whose results it shows on screen.
  bool showsResult(const QUrl& url) const;

  /// The emblem of the item at `url`, which no view lists, was asked for.
  void askedForResult(const QUrl& url);

 Q_SIGNALS:
  void selected(const KFileItemList& items);

  /// It is on screen again, with results for which nobody asks again.
  void reappeared(const QList<QUrl>& items);

 private Q_SLOTS:
  void onURLChanged(const QUrl& url);
  void onSelectionChanged(const KFileItemList& items);

 private:
  /// True if it shows the results of a search, which are in folders that it does not list.
  bool showsResults() const;
  void findListers();
  void follow(KCoreDirLister& lister);
  /// Compares soon, after the event that is being handled.
  void compareSoon();
  void compare();
  std::multiset<std::string> listedFolders() const;
  void report(std::multiset<std::string> folders, bool visible);

  QWidget& widget_;
  client::Plugin& plugin_;
  std::vector<QPointer<KCoreDirLister>> listers_;
  QUrl url_;                            ///< as the widget reports it
  std::multiset<std::string> folders_;  ///< as reported to the library
  bool shows_ = false;                  ///< on screen, as reported to the library
  QSet<QUrl> results_;                  ///< results of a search whose emblems were asked for since they were listed
  bool comparing_ = false;              ///< a comparison is due
};

View::View(QWidget& widget, client::Plugin& plugin)
    : widget_(widget), plugin_(plugin), url_(widget.property("url").toUrl()) {
  if (hasSignal(widget, "urlChanged(QUrl)")) connect(&widget, SIGNAL(urlChanged(QUrl)), this, SLOT(onURLChanged(QUrl)));
  if (hasSignal(widget, "selectionChanged(KFileItemList)"))
    connect(&widget, SIGNAL(selectionChanged(KFileItemList)), this, SLOT(onSelectionChanged(KFileItemList)));
  compareSoon();
}

View::~View() {
  client::guarded([this] { report({}, false); });
}

void View::visibilityChanged() {
  if (widget_.isVisible()) return compareSoon();
  report(folders_, false);
}

QUrl View::url() const {
  for (const auto& lister : listers_)
    if (lister) return lister->url();
  return url_;
}

bool View::lists(const QUrl& url) const {
  return std::any_of(listers_.begin(), listers_.end(),
                     [&url](const auto& lister) { return lister && !lister->findByUrl(url).isNull(); });
}

bool View::showsResults() const {
  return std::any_of(listers_.begin(), listers_.end(),
                     [](const auto& lister) { return lister && !lister->url().isLocalFile(); });
}

bool View::showsResult(const QUrl& url) const {
  // The results are not in a folder that it lists.
  return widget_.isVisible() && results_.contains(url) && showsResults();
}

void View::askedForResult(const QUrl& url) {
  if (widget_.isVisible() && showsResults()) results_.insert(url);
}

void View::onURLChanged(const QUrl& url) {
  client::guarded([&] {
    url_ = url;
    if (const auto path = pathOf(url); widget_.isVisible() && !path.empty()) plugin_.folderExpected(path);
    compareSoon();
  });
}

void View::onSelectionChanged(const KFileItemList& items) {
  client::guarded([&] {
    if (widget_.isVisible()) Q_EMIT selected(items);
  });
}

void View::findListers() {
  listers_.erase(std::remove(listers_.begin(), listers_.end(), nullptr), listers_.end());
  for (auto* lister : widget_.findChildren<KCoreDirLister*>()) {
    if (std::find(listers_.begin(), listers_.end(), lister) != listers_.end()) continue;
    listers_.emplace_back(lister);
    follow(*lister);
  }
}

void View::follow(KCoreDirLister& lister) {
  const auto compared = [this] { compareSoon(); };
  connect(&lister, &KCoreDirLister::started, this, compared);
  connect(&lister, qOverload<>(&KCoreDirLister::completed), this, compared);
  connect(&lister, &KCoreDirLister::listingDirCompleted, this, compared);
  connect(&lister, qOverload<>(&KCoreDirLister::canceled), this, compared);
  connect(&lister, &KCoreDirLister::listingDirCanceled, this, compared);
  connect(&lister, qOverload<const QUrl&, const QUrl&>(&KCoreDirLister::redirection), this, compared);
  connect(&lister, &QObject::destroyed, this, compared);
  connect(&lister, qOverload<>(&KCoreDirLister::clear), this, [this] {
    results_.clear();
    compareSoon();
  });
  connect(&lister, &KCoreDirLister::clearDir, this, compared);
  connect(&lister, &KCoreDirLister::itemsDeleted, this, [this](const KFileItemList& items) {
    for (const auto& item : items) results_.remove(item.url());
    compareSoon();
  });
}

void View::compareSoon() {
  if (std::exchange(comparing_, true)) return;
  QMetaObject::invokeMethod(this, [this] { client::guarded([this] { compare(); }); }, Qt::QueuedConnection);
}

void View::compare() {
  comparing_ = false;
  findListers();
  const bool visible = widget_.isVisible();
  const bool appears = visible && !shows_;
  report(listedFolders(), visible);
  if (appears && !results_.isEmpty()) Q_EMIT reappeared(results_.values());
}

std::multiset<std::string> View::listedFolders() const {
  std::multiset<std::string> folders;
  const auto add = [&folders](const QUrl& folder) {
    if (auto path = pathOf(folder); !path.empty()) folders.insert(std::move(path));
  };
  for (const auto& lister : listers_) {
    if (!lister) continue;
    for (const auto& folder : lister->directories()) add(folder);
  }
  if (listers_.empty()) add(url_);
  return folders;
}

/// Adds before it removes, so that a folder in both sets does not leave the screen in between.
void View::report(std::multiset<std::string> folders, bool visible) {
  std::vector<std::string> come;
  std::vector<std::string> gone;
  std::set_difference(folders.begin(), folders.end(), folders_.begin(), folders_.end(), std::back_inserter(come));
  std::set_difference(folders_.begin(), folders_.end(), folders.begin(), folders.end(), std::back_inserter(gone));
  const auto before = std::exchange(folders_, std::move(folders));
  const bool showed = std::exchange(shows_, visible);
  for (const auto& folder : come) plugin_.folderOpened(folder);
  if (visible && showed) {
    for (const auto& folder : come) plugin_.folderShown(folder);
    for (const auto& folder : gone) plugin_.folderHidden(folder);
  } else if (visible) {
    for (const auto& folder : folders_) plugin_.folderShown(folder);
  } else if (showed) {
    for (const auto& folder : before) plugin_.folderHidden(folder);
  }
  for (const auto& folder : gone) plugin_.folderClosed(folder);
}

// --- All views ------------------------------------------------------------------------------------------------------

Views::Views(client::Plugin& plugin) : plugin_(plugin) {
  for (auto* widget : QApplication::allWidgets())
    if (isView(*widget)) findSoon(*widget);
  QCoreApplication::instance()->installEventFilter(this);
}

Views::~Views() = default;

bool Views::show(const QUrl& url) const {
  if (views_.empty()) return !KCoreDirLister::cachedItemForUrl(url).isNull();
  return std::any_of(views_.begin(), views_.end(),
                     [&url](const auto& view) { return view.second->lists(url) || view.second->showsResult(url); });
}

void Views::asked(const QUrl& url) {
  const auto lists = [&url](const auto& view) { return view.second->lists(url); };
  if (std::any_of(views_.begin(), views_.end(), lists)) return;
  for (const auto& [object, view] : views_) view->askedForResult(url);
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

/// Its constructor may still be running.
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

#include "Views.moc"
