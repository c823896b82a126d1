#include "Extension.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <set>
#include <string_view>

#include "client/MenuPrefetch.hpp"
#include "client/Paths.hpp"
#include "dbus/GLibPtr.hpp"
#include "dbus/Interface.hpp"

namespace vornet::vi {
namespace {

using client::CallError;
using client::urlsOf;

constexpr std::chrono::milliseconds FIRST_RETRY{1000};
constexpr std::chrono::milliseconds LAST_RETRY{30'000};

std::string about(const std::string& subject, const std::string& text) {
  return subject.empty() ? text : subject + ": " + text;
}

std::vector<std::string> textsOf(GVariant* list) {
  std::vector<std::string> texts;
  for (gsize i = 0; i < g_variant_n_children(list); ++i) texts.emplace_back(textOf(childOf(list, i)));
  return texts;
}

std::string textIn(GVariant* properties, const char* name) {
  const gchar* text = nullptr;
  return g_variant_lookup(properties, name, "&s", &text) ? text : "";
}

std::string subjectOf(const client::Selection& selection) {
  return selection.size() == 1 ? selection.front() : std::string();
}

}  // namespace

Failure failureOf(const CallError& error, const std::string& subject) {
  namespace its = dbus::error;
  struct Meaning {
    const char* name;
    FailureKind kind;
    std::string text;
  };
  const std::array meanings{
      Meaning{its::OUTSIDE_OBSERVED_FOLDERS, FailureKind::outside,
              about(subject, "outside the folder that the sync application keeps in step")},
      Meaning{its::NOT_A_FOLDER, FailureKind::refused, about(subject, "not a folder")},
      Meaning{its::INVALID_URL, FailureKind::refused, about(subject, "the extension refuses the path as invalid")},
      Meaning{its::TOO_MANY_URLS, FailureKind::refused, "too many paths at once (the extension takes 10,000)"},
      Meaning{its::NOT_OBSERVING, FailureKind::refused,
              about(subject, "the extension does not observe this folder for us")},
      Meaning{its::UNKNOWN_ACTION, FailureKind::refused, about(subject, "the extension knows no such action")},
      Meaning{its::TOO_MANY_FOLDERS, FailureKind::noRoom,
              about(subject, "the extension observes as many folders as it takes")},
      Meaning{its::BUSY, FailureKind::busy, "the extension is too busy; try again later"},
      Meaning{client::INVALID_REPLY, FailureKind::refused, "the extension answered wrongly: " + error.message},
      Meaning{client::DISCONNECTED, FailureKind::noBus, "the session bus went away"},
      Meaning{"org.freedesktop.DBus.Error.ServiceUnknown", FailureKind::notInstalled,
              "the extension is not installed (the session bus knows no such service)"},
      Meaning{"org.freedesktop.DBus.Error.NameHasNoOwner", FailureKind::notInstalled,
              "the extension is not installed (the session bus knows no such service)"},
      Meaning{"org.freedesktop.DBus.Error.NoReply", FailureKind::gone, "the extension ended before it answered"},
      Meaning{"org.freedesktop.DBus.Error.LimitsExceeded", FailureKind::busy,
              "the session bus does not take so many calls at once; try again later"},
      Meaning{"org.freedesktop.DBus.Error.AccessDenied", FailureKind::refused,
              "the session bus does not allow it: " + error.message},
  };
  const auto found = std::find_if(meanings.begin(), meanings.end(),
                                  [&error](const Meaning& meaning) { return error.name == meaning.name; });
  if (found != meanings.end()) return {found->kind, found->text};
  if (error.name.find(".Spawn.") != std::string::npos)
    return {FailureKind::notStarted, "the extension could not be started: " + error.message};
  const bool isItsOwn = error.name.find('.') == std::string::npos;
  return {FailureKind::refused,
          about(subject, (isItsOwn ? "the extension refused: " : "the extension failed: ") + error.message)};
}

Extension::Extension(std::chrono::milliseconds timeout)
    : timeout_(timeout), link_(nullptr, {FIRST_RETRY, LAST_RETRY}, *this) {
  link_.open();
  try {
    waitUntil([this] { return isOpen_ || isBusGone(); });
  } catch (const Failure& late) {
    throw Failure(FailureKind::noBus, "the session bus does not answer");
  }
  if (!isOpen_) throw Failure(FailureKind::noBus, "no session bus: " + *busProblem_);
}

// --- Waiting --------------------------------------------------------------------------------------------------------

void Extension::waitUntil(const std::function<bool()>& done, std::optional<std::chrono::milliseconds> limit) {
  bool late = false;
  client::Timer timer(nullptr);
  timer.start(limit.value_or(timeout_), [&late] { late = true; });
  interrupted_ = false;
  while (!done()) {
    if (interrupted_) throw Failure(FailureKind::interrupted, "interrupted");
    if (late) throw timeoutFailure();
    g_main_context_iteration(nullptr, TRUE);
  }
}

Failure Extension::timeoutFailure() const {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "the extension did not answer within %g s",
                std::chrono::duration<double>(timeout_).count());
  return {FailureKind::timedOut, text.data()};
}

/// Waits for the call that `begin` starts; its values.
GVariantPtr Extension::await(const std::function<void(client::ExtensionLink::Done)>& begin, const std::string& subject,
                             std::optional<std::chrono::milliseconds> limit) {
  struct Answer {
    bool isThere = false;
    GVariantPtr values;
    CallError error;
  };
  const auto answer = std::make_shared<Answer>();  // it may come after the time-out
  begin([answer](GVariant* values, const CallError& error) {
    answer->isThere = true;
    if (values) answer->values.reset(g_variant_ref(values));
    answer->error = error;
  });
  waitUntil([&answer] { return answer->isThere; }, limit);
  if (!answer->values) throw failureOf(answer->error, subject);
  return std::move(answer->values);
}

GVariantPtr Extension::call(const char* method, GVariant* arguments, const char* type, const std::string& subject) {
  return await([&](auto done) { link_.call(method, arguments, type, std::move(done)); }, subject);
}

// --- Operations -----------------------------------------------------------------------------------------------------

ExtensionInfo Extension::readInfo(bool mayStart) {
  const auto reply = await([&](auto done) { link_.readAllProperties(mayStart, std::move(done)); }, "");
  const auto properties = childOf(reply.get(), 0);
  ExtensionInfo info;
  info.version = textIn(properties.get(), "Version");
  info.logFile = textIn(properties.get(), "LogFile");
  if (gint64 since = 0; g_variant_lookup(properties.get(), "SyncApplicationSilentSince", "x", &since))
    info.silentSince = since;
  if (const GVariantPtr folders{
          g_variant_lookup_value(properties.get(), "ObservedFolders", G_VARIANT_TYPE_STRING_ARRAY)}) {
    for (const auto& url : textsOf(folders.get()))
      info.observedFolders.push_back(client::pathOfURL(url.c_str()).value_or(url));
  }
  if (const GVariantPtr badges{g_variant_lookup_value(properties.get(), "Badges", G_VARIANT_TYPE("a(sss)"))}) {
    for (gsize i = 0; i < g_variant_n_children(badges.get()); ++i) {
      const auto badge = childOf(badges.get(), i);
      info.badges.push_back({textOf(childOf(badge.get(), 0)), textOf(childOf(badge.get(), 1)),  //
                             textOf(childOf(badge.get(), 2))});
    }
  }
  return info;
}

/// Why `selection`, which holds an item outside the observed folders, is not served.
Failure Extension::outsideFailure(const client::Selection& selection) {
  const auto observed = info().observedFolders;
  if (observed.empty())
    return {FailureKind::outside, "the sync application is not configured, so no folder is observed"};
  const auto isOutside = [&observed](const std::string& path) {
    return std::none_of(observed.begin(), observed.end(),
                        [&path](const std::string& folder) { return client::isWithin(folder, path); });
  };
  const auto found = std::find_if(selection.begin(), selection.end(), isOutside);
  std::string folders;
  for (const auto& folder : observed) folders.append(folders.empty() ? "" : ", ").append(folder);
  return {FailureKind::outside,
          (found == selection.end() ? selection.front() : *found) + ": outside the observed folder " + folders};
}

void Extension::beginObserving(const std::string& folder) {
  try {
    call("BeginObserving", g_variant_new("(s)", client::urlOfPath(folder).c_str()), "()", folder);
  } catch (const Failure& failure) {
    if (failure.kind() == FailureKind::outside) throw outsideFailure({folder});
    throw;
  }
}

void Extension::endObserving(const std::string& folder, std::optional<std::chrono::milliseconds> limit) {
  const auto begin = [&](auto done) {
    link_.call("EndObserving", g_variant_new("(s)", client::urlOfPath(folder).c_str()), "()", std::move(done));
  };
  await(begin, folder, limit);
}

client::Menu Extension::menu(const client::Selection& selection) {
  const auto reply = call("GetMenu", g_variant_new("(@as)", urlsOf(selection)), "(a(ssbs))", subjectOf(selection));
  client::Menu menu = client::menuOf(childOf(reply.get(), 0).get());
  if (menu.empty()) throw outsideFailure(selection);
  return menu;
}

void Extension::performAction(const std::string& action, const client::Selection& selection) {
  call("PerformAction", g_variant_new("(s@as)", action.c_str(), urlsOf(selection)), "()", subjectOf(selection));
}

void Extension::start() {
  const auto begin = [this](auto done) {
    link_.callBus("StartServiceByName", g_variant_new("(su)", dbus::BUS_NAME, 0U), "(u)", std::move(done));
  };
  await(begin, "");
}

std::optional<std::uint32_t> Extension::process() {
  return processOf(dbus::BUS_NAME);
}

std::optional<std::uint32_t> Extension::processOf(const std::string& busName) {
  const auto begin = [&](auto done) {
    link_.callBus("GetConnectionUnixProcessID", g_variant_new("(s)", busName.c_str()), "(u)", std::move(done));
  };
  try {
    return g_variant_get_uint32(childOf(await(begin, "").get(), 0).get());
  } catch (const Failure& failure) {
    if (failure.kind() == FailureKind::notInstalled) return std::nullopt;
    throw;
  }
}

bool Extension::canBeStarted() {
  const auto begin = [this](auto done) { link_.callBus("ListActivatableNames", nullptr, "(as)", std::move(done)); };
  const auto names = textsOf(childOf(await(begin, "").get(), 0).get());
  return std::find(names.begin(), names.end(), dbus::BUS_NAME) != names.end();
}

std::vector<std::uint32_t> Extension::processesOnBus() {
  const auto begin = [this](auto done) { link_.callBus("ListNames", nullptr, "(as)", std::move(done)); };
  std::set<std::uint32_t> processes;
  for (const auto& name : textsOf(childOf(await(begin, "").get(), 0).get()))
    if (const auto process = name.starts_with(':') ? processOf(name) : std::nullopt) processes.insert(*process);
  return {processes.begin(), processes.end()};
}

// --- What happens ---------------------------------------------------------------------------------------------------

void Extension::extensionGone() {
  if (keepsRunning_ && !isBusGone()) link_.restartWithBackoff();
}

void Extension::startFailed(const CallError&, bool, bool willRetry) {
  if (keepsRunning_ && !willRetry && !isBusGone()) link_.restartWithBackoff();
}

}  // namespace vornet::vi
