// Answers, signals and snapshots of an extension, sensible or not: a plug-in shows the latest badge of each item and
// the latest menu.
#include <fuzzer/FuzzedDataProvider.h>
#include <gio/gio.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "client/Paths.hpp"
#include "client/Plugin.hpp"
#include "dbus/GLibPtr.hpp"
#include "dbus/Interface.hpp"
#include "support/PeerBus.hpp"
#include "support/Require.hpp"

namespace vornet::fuzz {
namespace {

using client::Menu;
using client::Plugin;

constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";
const std::string ROOT = "/k";

// Far more than are open at a time: losing one now and then is soon a finding.
constexpr rlim_t MOST_DESCRIPTORS = 200;

// Each input has another folder, because the plug-in remembers what it showed in earlier ones.
std::string folder;
std::array<std::string, 4> items;
std::string lastItem;  // when its change arrives, all before it has arrived

void takeNextFolder() {
  static unsigned count = 0;
  folder = ROOT + "/f" + std::to_string(count++);
  items = {folder + "/a", folder + "/b c", folder + "/\u00e9", folder + "/d"};
  lastItem = folder + "/longer than any name that is made up";
}

const std::map<std::string, std::string> EMBLEMS = {
    {"SYNCED", "emblem-vornet-synced"}, {"PENDING", "emblem-vornet-pending"}, {"SKIPPED", "emblem-vornet-skipped"}};

GMainContext* context() {
  static GMainContext* made = g_main_context_new();
  return made;
}

PeerBus& bus() {
  static PeerBus& made = *new PeerBus(context());
  return made;
}

std::atomic<std::size_t> warnings = 0;

/// Makes redraw() a function.
class Item : public client::ShownItem {
 public:
  explicit Item(std::function<void()> redrawn) : redrawn_(std::move(redrawn)) {}
  void redraw(const std::string&, const std::string&) override { redrawn_(); }

 private:
  std::function<void()> redrawn_;
};

class SilentManager : public client::FileManager {
 public:
  void menuChanged(const client::Selection&) override {}
};

/// Decodes an input; every string may go over the bus.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : data_(data, size) {}

  bool yes() { return data_.ConsumeBool(); }
  bool rarely() { return data_.ConsumeIntegralInRange<int>(0, 7) == 7; }
  int upTo(int most) { return data_.ConsumeIntegralInRange(0, most); }

  std::string text() {
    std::string bytes = data_.ConsumeRandomLengthString(24);
    std::erase(bytes, '\0');
    const std::unique_ptr<gchar, decltype(&g_free)> valid(
        g_utf8_make_valid(bytes.data(), static_cast<gssize>(bytes.size())), g_free);
    return valid.get();
  }

  std::string identifier() {
    const std::array<std::string, 4> known = {"SYNCED", "PENDING", "SKIPPED", ""};
    const auto choice = static_cast<std::size_t>(upTo(4));
    return choice < known.size() ? known[choice] : text();
  }

  std::string name() {
    const auto choice = static_cast<std::size_t>(upTo(static_cast<int>(items.size())));
    return choice < items.size() ? items[choice].substr(folder.size() + 1) : text();
  }

  std::string url() {
    const auto choice = static_cast<std::size_t>(upTo(static_cast<int>(items.size()) + 2));
    if (choice < items.size()) return client::urlOfPath(items[choice]);
    return choice == items.size() ? "file://" + folder + "/" + text() : text();
  }

  /// Values of an unexpected shape.
  std::shared_ptr<GVariant> nonsense() { return GVariantPtr(g_variant_ref_sink(anyShape())); }

 private:
  GVariant* anyShape() {
    switch (upTo(5)) {
      case 0:
        return g_variant_new("()");
      case 1:
        return g_variant_new("(s)", text().c_str());
      case 2:
        return g_variant_new("(v)", g_variant_new_string(text().c_str()));
      case 3:
        return g_variant_new("(ai)", nullptr);
      case 4:
        return g_variant_new("(sas)", text().c_str(), nullptr);
      default:
        return g_variant_new("(a(ss)s)", nullptr, text().c_str());
    }
  }

  FuzzedDataProvider data_;
};

GVariant* listOf(const std::vector<std::string>& texts) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_STRING_ARRAY);
  for (const auto& text : texts) g_variant_builder_add(&builder, "s", text.c_str());
  return g_variant_builder_end(&builder);
}

using Changes = std::vector<std::pair<std::string, std::string>>;  // URL and identifier

GVariant* valuesOf(const Changes& changes) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(ss)"));
  for (const auto& [url, identifier] : changes)
    g_variant_builder_add(&builder, "(ss)", url.c_str(), identifier.c_str());
  return g_variant_new("(@a(ss))", g_variant_builder_end(&builder));
}

GVariant* valuesOf(const Menu& menu) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(ssbs)"));
  for (const auto& entry : menu) {
    g_variant_builder_add(&builder, "(ssbs)", entry.title.c_str(), entry.action.c_str(), entry.enabled ? TRUE : FALSE,
                          entry.icon.c_str());
  }
  return g_variant_new("(@a(ssbs))", g_variant_builder_end(&builder));
}

bool isGreyed(const Menu& menu) {
  return std::none_of(menu.begin(), menu.end(), [](const auto& entry) { return entry.enabled; });
}

/// Lets the plug-in work until `condition` holds.
template <typename Condition>
void waitFor(Condition condition, const char* what) {
  bool late = false;
  const GSourcePtr deadline(g_timeout_source_new_seconds(30));
  g_source_set_callback(
      deadline.get(), [](gpointer flag) -> gboolean { return !(*static_cast<bool*>(flag) = true); }, &late, nullptr);
  g_source_attach(deadline.get(), context());
  while (!condition()) {
    require(!late, what);
    g_main_context_iteration(context(), TRUE);
  }
  g_source_destroy(deadline.get());
}

/// The plug-in. Making one costs more than an input does, so it is kept from one input to the next.
std::optional<Plugin>& plugin() {
  static SilentManager manager;
  static std::optional<Plugin>& made = *new std::optional<Plugin>;
  if (made) return made;
  Plugin::Options options;
  options.context = context();
  options.gathering = std::chrono::milliseconds(0);
  made.emplace(manager, options);
  return made;
}

/// A folder that the plug-in shows, and a process of the extension that does what the input says.
class Session {
 public:
  Session(const std::uint8_t* data, std::size_t size) : input_(data, size) {
    takeNextFolder();
    if (input_.rarely()) nonsenseProperty_ = input_.nonsense();
    const bool sendsSnapshots = input_.yes();
    isNewProcess_ = std::exchange(endsProcess_, false) || nonsenseProperty_ || sendsSnapshots != sendsSnapshots_;
    sendsSnapshots_ = sendsSnapshots;
    if (isNewProcess_) bus().restart();
    std::vector<std::string> folders;
    for (int others = input_.upTo(3); others > 0; --others) folders.push_back(input_.url());
    folders.push_back("file://" + ROOT);
    bus().on("GetAll", [this, folders](GVariant*) {
      if (nonsenseProperty_) return g_variant_ref(nonsenseProperty_.get());
      const char* properties = sendsSnapshots_
                                   ? "({'ObservedFolders': <%@as>, 'InterfaceVersion': <uint32 2>, 'Badges': "
                                     "<[('SYNCED', '', ''), ('PENDING', '', ''), ('SKIPPED', '', '')]>},)"
                                   : "({'ObservedFolders': <%@as>},)";
      return g_variant_new_parsed(properties, listOf(folders));
    });

    refusesToObserve_ = input_.rarely();
    if (!refusesToObserve_) bus().on("BeginObserving", [](GVariant*) { return g_variant_new("()"); });
    bus().on("EndObserving", [](GVariant*) { return g_variant_new("()"); });
    hasStream_ = sendsSnapshots_ && !input_.rarely();
    if (hasStream_) bus().on("RequestSnapshot", [this](GVariant* arguments) { return beginStream(arguments); });

    if (input_.rarely()) nonsenseBadges_ = input_.nonsense();
    for (int count = input_.upTo(4); count >= 0; --count) badges_.push_back(input_.identifier());
    if (input_.rarely()) wrongCount_ = static_cast<std::size_t>(input_.upTo(6));
    bus().on("RequestBadges", [this](GVariant* urls) { return badgesOf(urls); });

    if (input_.rarely()) nonsenseMenu_ = input_.nonsense();
    const int repetitions = input_.rarely() ? 40 : 1;
    for (int count = input_.upTo(4); count > 0; --count) {
      const client::MenuEntry entry{input_.text(), input_.text(), input_.yes(), input_.yes() ? "vornet-vi" : ""};
      menu_.insert(menu_.end(), static_cast<std::size_t>(repetitions), entry);
    }
    bus().on("GetMenu",
             [this](GVariant*) { return nonsenseMenu_ ? g_variant_ref(nonsenseMenu_.get()) : valuesOf(menu_); });
  }

  ~Session() { bus().reset(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void run() {
    showFolder();
    play();
    leave();
  }

 private:
  void showFolder() {
    const bool isConnected = std::exchange(isConnected_, true);
    if (isConnected && isNewProcess_) bus().start();
    if (!isConnected) plugin_.folderShown(folder);
    if (isNewProcess_) waitFor([] { return bus().calls("GetAll") > 0; }, "the plug-in asks for the folders");
    if (isConnected) plugin_.folderShown(folder);
  }

  void play() {
    if (nonsenseProperty_) return checkThatNothingIsShown();
    waitFor([] { return bus().calls("BeginObserving") > 0; }, "the plug-in observes the folder");
    const bool changesFolders = input_.yes();
    if (changesFolders) changeProperties();
    if (sendsSnapshots_)
      waitFor([] { return bus().calls("RequestSnapshot") > 0; }, "the plug-in requests the folder's snapshot");
    for (const auto& item : items) show(item, [] {});
    const bool asks = input_.yes() && !refusesToObserve_ && !sendsSnapshots_;
    const bool wantsMenu = input_.yes();
    if (wantsMenu) plugin_.menu({items[0]});
    for (int signals = input_.upTo(4); signals > 0; --signals) sendChanges();
    if (asks) waitFor([this] { return allAreAskedFor(); }, "the plug-in asks for every item");
    if (wantsMenu) waitFor([] { return bus().calls("GetMenu") > 0; }, "the plug-in asks for the menu");
    for (int signals = input_.upTo(2); signals > 0; --signals) sendChanges();
    awaitLastChange();
    // A stream may end when the folder is not observed, and another may begin when the folders change.
    const bool hasCertainStream = !refusesToObserve_ && !changesFolders;
    if (!sendsSnapshots_ || hasCertainStream)
      for (const auto& item : items) checkEmblem(item);
    if (wantsMenu) checkMenu();
  }

  /// Sometimes ends the plug-in, or the extension, while calls are in flight. Else both stay, and all calls are
  /// answered.
  void leave() {
    endsProcess_ = input_.rarely() || nonsenseProperty_;
    if (input_.rarely()) {
      plugin().reset();
      isConnected_ = false;
      endsProcess_ = true;
      return;
    }
    plugin_.folderHidden(folder);
    plugin_.menu({});
    if (!endsProcess_) awaitFailedAction();
  }

  /// A failed action is logged. All earlier calls are answered before it.
  void awaitFailedAction() {
    const auto before = warnings.load();
    plugin_.perform("share:", {items[0]});
    waitFor([before] { return warnings.load() > before; }, "a failed action is logged");
  }

  void show(const std::string& path, std::function<void()> redrawn) {
    plugin_.emblem(path, std::make_unique<Item>(std::move(redrawn)));
  }

  /// The extension's answer for the items asked for: badges_, repeated. An answer of another length or shape counts as
  /// none.
  GVariant* badgesOf(GVariant* arguments) {
    const std::lock_guard guard(mutex_);
    std::vector<std::string> paths;
    const gchar* url = nullptr;
    GVariantIter* urls = nullptr;
    g_variant_get(arguments, "(as)", &urls);
    while (g_variant_iter_next(urls, "&s", &url)) paths.push_back(client::pathOfURL(url).value_or(""));
    g_variant_iter_free(urls);
    asked_.insert(paths.begin(), paths.end());
    if (nonsenseBadges_) return g_variant_ref(nonsenseBadges_.get());

    std::vector<std::string> answer(wrongCount_.value_or(paths.size()));
    for (std::size_t i = 0; i < answer.size(); ++i) answer[i] = badges_[i % badges_.size()];
    if (answer.size() == paths.size()) {
      for (std::size_t i = 0; i < paths.size(); ++i) {
        if (paths[i] == lastItem) answer[i] = "SYNCED";  // as awaitLastChange() sends it
        told_[paths[i]] = answer[i];
      }
    }
    return g_variant_new("(@as)", listOf(answer));
  }

  bool allAreAskedFor() {
    const std::lock_guard guard(mutex_);
    return std::all_of(items.begin(), items.end(), [this](const auto& item) { return asked_.contains(item); });
  }

  void changeProperties() {
    GVariantBuilder properties;
    g_variant_builder_init(&properties, G_VARIANT_TYPE_VARDICT);
    if (input_.yes()) g_variant_builder_add(&properties, "{sv}", input_.text().c_str(), g_variant_new_string("x"));
    GVariant* folders =
        input_.yes() ? listOf({input_.url(), "file://" + ROOT + "/"}) : g_variant_new_string(input_.text().c_str());
    g_variant_builder_add(&properties, "{sv}", "ObservedFolders", folders);
    bus().send(PROPERTIES, "PropertiesChanged", g_variant_new("(sa{sv}as)", dbus::INTERFACE, &properties, nullptr),
               [] {});
  }

  GVariant* beginStream(GVariant* arguments) {
    const std::lock_guard guard(mutex_);
    g_variant_get(arguments, "(&st)", nullptr, &stream_);
    return g_variant_new("()");
  }

  void sendChanges() {
    if (input_.rarely()) {
      const auto values = input_.nonsense();
      return bus().send(dbus::INTERFACE, input_.yes() ? "BadgesChanged" : "FolderBadges", g_variant_ref(values.get()),
                        [] {});
    }
    if (sendsSnapshots_ && input_.yes()) return sendFolderBadges();
    Changes changes;
    for (int count = input_.upTo(6); count > 0; --count) changes.emplace_back(input_.url(), input_.identifier());
    send(changes);
  }

  /// A message of the folder's stream, or of another; there may be more names than badges, or fewer.
  void sendFolderBadges() {
    const auto flags =
        static_cast<guchar>(input_.upTo(input_.rarely() ? 255 : dbus::SNAPSHOT_BEGINS | dbus::SNAPSHOT_ENDS));
    const bool isOther = input_.rarely();
    std::vector<std::string> names;
    for (int count = input_.upTo(6); count > 0; --count) names.push_back(input_.name());
    std::vector<guchar> badges;
    for (int count = input_.rarely() ? input_.upTo(8) : static_cast<int>(names.size()); count > 0; --count)
      badges.push_back(static_cast<guchar>(input_.upTo(input_.rarely() ? 255 : 3)));
    const auto count = names.size();
    if (count == badges.size() && input_.rarely()) {  // more than are read at once
      for (std::size_t i = 0; i < 20 * count; ++i) {
        names.push_back(std::string(names[i]));
        badges.push_back(guchar(badges[i]));
      }
    }
    std::string joined;
    for (const auto& name : names) joined += (joined.empty() ? "" : "/") + name;
    const auto stream = [&] {
      const std::lock_guard guard(mutex_);
      return isOther ? stream_ + 1 : stream_;
    }();
    GVariant* list = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, badges.data(), badges.size(), 1);
    bus().send(dbus::INTERFACE, "FolderBadges", g_variant_new("(tys@ay)", stream, flags, joined.c_str(), list), [&] {
      if (!isOther) noteFolderBadges(flags, joined, badges);
    });
  }

  void noteFolderBadges(guchar flags, std::string_view names, const std::vector<guchar>& badges) {
    const std::array<std::string, 4> identifiers = {"", "SYNCED", "PENDING", "SKIPPED"};
    const std::lock_guard guard(mutex_);
    if (flags & dbus::NO_SNAPSHOT) hasStream_ = false;
    if (!hasStream_) return;
    if (flags & dbus::SNAPSHOT_BEGINS) named_.emplace();
    for (const auto badge : badges) {
      const auto path = folder + "/" + std::string(names.substr(0, names.find('/')));
      names.remove_prefix(std::min(names.size(), path.size() - folder.size()));
      told_[path] = badge < identifiers.size() ? identifiers[badge] : "";
      if (named_) named_->insert(path);
    }
    if (!(flags & dbus::SNAPSHOT_ENDS) || !named_) return;
    for (auto& [path, identifier] : told_)
      if (!named_->contains(path)) identifier.clear();
  }

  void send(const Changes& changes) {
    bus().send(dbus::INTERFACE, "BadgesChanged", valuesOf(changes), [&] {
      const std::lock_guard guard(mutex_);
      for (const auto& [url, identifier] : changes)
        if (const auto path = client::pathOfURL(url.c_str())) told_[*path] = identifier;
    });
  }

  /// When the last change has arrived, so has all that was sent before it.
  void awaitLastChange() {
    bool redrawn = false;
    show(lastItem, [&redrawn] { redrawn = true; });
    send({{client::urlOfPath(lastItem), "SYNCED"}});
    waitFor([&redrawn] { return redrawn; }, "a change is shown");
    show(lastItem, [] {});
  }

  void checkEmblem(const std::string& path) {
    const auto isShown = [this, &path] {
      const std::string emblem = plugin_.emblem(path, std::make_unique<Item>([] {}));
      const std::lock_guard guard(mutex_);
      const auto told = told_.find(path);
      const auto known = told == told_.end() ? EMBLEMS.end() : EMBLEMS.find(told->second);
      return emblem == (known == EMBLEMS.end() ? "" : known->second);
    };
    waitFor(isShown, "an item has the emblem that was told last");
  }

  void checkMenu() {
    if (nonsenseMenu_) return require(isGreyed(plugin_.menu({items[0]})), "without an answer the menu is greyed");
    const auto isShown = [this] {
      const Menu shown = plugin_.menu({items[0]});
      return shown.size() <= menu_.size() && shown.size() >= std::min<std::size_t>(menu_.size(), 100) &&
             std::equal(shown.begin(), shown.end(), menu_.begin());
    };
    waitFor(isShown, "the menu has the entries that were answered");
  }

  /// After an answer that names no folders.
  void checkThatNothingIsShown() {
    awaitFailedAction();
    require(plugin_.emblem(items[0], std::make_unique<Item>([] {})).empty(), "without folders there are no emblems");
    require(isGreyed(plugin_.menu({items[0]})), "without folders no entry can be chosen");
  }

  Input input_;
  Plugin& plugin_ = *plugin();
  bool isNewProcess_ = false;

  // From one input to the next.
  static inline bool isConnected_ = false;
  static inline bool endsProcess_ = true;
  static inline bool sendsSnapshots_ = false;

  // The extension's answers; nonsense where it is set.
  bool refusesToObserve_ = false;
  std::shared_ptr<GVariant> nonsenseProperty_, nonsenseBadges_, nonsenseMenu_;
  std::vector<std::string> badges_;
  std::optional<std::size_t> wrongCount_;
  Menu menu_;

  std::mutex mutex_;
  std::set<std::string> asked_;              ///< paths of items
  std::map<std::string, std::string> told_;  ///< path -> identifier that was sent last
  guint64 stream_ = 0;
  bool hasStream_ = false;                      ///< its messages count
  std::optional<std::set<std::string>> named_;  ///< paths, since a snapshot began
};

}  // namespace
}  // namespace vornet::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  using namespace vornet::fuzz;
  const auto take = +[](const gchar*, GLogLevelFlags level, const gchar* message, gpointer) {
    require((level & G_LOG_LEVEL_MASK) > G_LOG_LEVEL_CRITICAL, message);
    ++warnings;
  };
  g_log_set_default_handler(take, nullptr);
  // GLib's threads stay: what one of them is about to free as it ends would count as a leak at the end of the process.
  g_thread_pool_set_max_idle_time(0);
  g_thread_pool_set_max_unused_threads(-1);
  ::setenv("DBUS_SESSION_BUS_ADDRESS", bus().address().c_str(), 1);
  const rlimit few = {MOST_DESCRIPTORS, MOST_DESCRIPTORS};
  require(::setrlimit(RLIMIT_NOFILE, &few) == 0, "descriptors can be limited");
  return 0;
}

/// An input: choices and texts, as FuzzedDataProvider reads them.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vornet::fuzz::Session(data, size).run();
  return 0;
}
