#pragma once

#include <FinderSync1.h>

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "client/GLibPtr.hpp"

/// For tests: a message bus of its own, and an extension on it that answers as it is told and records what it is asked.
/// Both live in the default main context of the test's only thread.
namespace vornet::vi::test {

/// Runs the default main context until `done`, for at most a minute. False when it never was.
template <typename Condition>
bool waitUntil(const Condition& done) {
  bool late = false;
  const guint timer = g_timeout_add_seconds(
      60,
      [](gpointer flag) -> gboolean {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_CONTINUE;
      },
      &late);
  while (!late && !done()) {
    g_main_context_iteration(nullptr, TRUE);
  }
  g_source_remove(timer);
  return !late;
}

/// A folder of its own below the system's temporary one, removed with all it holds.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name, const std::string& content = "") const;
  std::string folder(const std::string& name) const;

 private:
  std::string path_;
};

/// A private dbus-daemon.
class TestBus {
 public:
  /// `startCommand`: what the bus runs, by a shell, for calls to the extension's name while nobody owns it; "" for
  /// nothing.
  explicit TestBus(const std::string& startCommand = "");
  ~TestBus();
  TestBus(const TestBus&) = delete;
  TestBus& operator=(const TestBus&) = delete;

  const std::string& address() const { return address_; }
  void stop();
  /// It takes connections and does nothing any more.
  void freeze();

 private:
  TemporaryFolder folder_;
  client::GObjectPtr<GSubprocess> daemon_;
  std::string address_;
};

/// The extension's side of the interface.
class TestExtension {
 public:
  TestExtension(const TestBus& bus, std::string observedFolder);
  ~TestExtension();
  TestExtension(const TestExtension&) = delete;
  TestExtension& operator=(const TestExtension&) = delete;

  std::map<std::string, std::string> badges;  ///< path -> identifier
  /// Badges that change, told by signal, just before the answer to the first request.
  std::vector<std::pair<std::string, std::string>> changesBeforeAnswer;
  std::vector<std::pair<std::string, bool>> menu;  ///< selector, enabled; titles are the usual ones
  std::string refusal;           ///< the error (its name after the prefix) that BeginObserving answers; empty: none
  std::size_t busyRequests = 0;  ///< so many RequestBadges are refused with Busy
  bool frozen = false;           ///< takes calls and never answers
  bool diesInRequest = false;    ///< leaves the bus when badges are asked

  std::vector<std::string> calls;         ///< "BeginObserving file:///…", "PerformAction copyLink: file:///…", …
  std::vector<std::size_t> requestSizes;  ///< items of each RequestBadges

  std::size_t count(const std::string& call) const;
  /// Tells the observers of changed badges.
  void tell(const std::vector<std::pair<std::string, std::string>>& changes);
  /// Leaves the bus as a crashed process does.
  void die();

 private:
  /// Records the call; true when it is to be left unanswered.
  bool take(GDBusMethodInvocation* invocation, const std::string& call);
  static gboolean begin(VornetFinderSync1*, GDBusMethodInvocation*, const gchar*, gpointer);
  static gboolean end(VornetFinderSync1*, GDBusMethodInvocation*, const gchar*, gpointer);
  static gboolean request(VornetFinderSync1*, GDBusMethodInvocation*, const gchar* const*, gpointer);
  static gboolean getMenu(VornetFinderSync1*, GDBusMethodInvocation*, const gchar* const*, gpointer);
  static gboolean perform(VornetFinderSync1*, GDBusMethodInvocation*, const gchar*, const gchar* const*, gpointer);

  std::string observedFolder_;
  client::GObjectPtr<GDBusConnection> connection_;
  client::GObjectPtr<VornetFinderSync1> skeleton_;
  std::vector<std::string> observers_;
  std::vector<client::GObjectPtr<GDBusMethodInvocation>> unanswered_;
};

/// A run of the program.
class ProgramRun {
 public:
  struct Settings {
    std::string busAddress;
    std::string locale = "C.UTF-8";
    std::string currentFolder = "/";
    std::map<std::string, std::string> environment;
    int terminalColumns = 0;  ///< its output is a terminal of this width; 0: a pipe
  };
  ProgramRun(const Settings& settings, const std::vector<std::string>& arguments);
  ~ProgramRun();
  ProgramRun(const ProgramRun&) = delete;
  ProgramRun& operator=(const ProgramRun&) = delete;

  /// Runs the main context until the program ended: its exit code; -1 when a signal ended it or it never ended.
  int wait();
  void sendSignal(int number);
  /// Stops reading its output, as head does when it has enough.
  void closeOutput();

  std::string output;  ///< what came so far
  std::string errors;
  std::vector<std::string> lines() const;

 private:
  struct Reading;
  void read(GInputStream* stream, std::string* into);
  static void takeBytes(GObject* stream, GAsyncResult* result, gpointer data);
  bool ended_ = false;
  std::size_t openStreams_ = 0;
  client::GObjectPtr<GSubprocess> process_;
  client::GObjectPtr<GInputStream> outputStream_;
  client::GObjectPtr<GCancellable> cancellable_{g_cancellable_new()};
};

}  // namespace vornet::vi::test
