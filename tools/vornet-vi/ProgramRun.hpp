#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "client/GLibPtr.hpp"
#include "support/FakeExtension.hpp"
#include "support/PrivateBus.hpp"
#include "support/TemporaryFolder.hpp"

/// For tests: the program, run against a message bus of its own and an extension that does what a test says. All lives
/// in the default main context of the test's only thread.
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
  while (!late && !done()) g_main_context_iteration(nullptr, TRUE);
  g_source_remove(timer);
  return !late;
}

/// A folder of its own, to be shown.
class ShownTestFolder {
 public:
  std::string path() const { return folder_.path().string(); }
  /// Makes the file, or the folder, `name`; its path.
  std::string file(const std::string& name, const std::string& content = "") const;
  std::string folder(const std::string& name) const;

 private:
  vornet::test::TemporaryFolder folder_;
};

/// A private bus.
class TestBus : private vornet::test::TemporaryFolder, public vornet::test::PrivateBus {
 public:
  /// `startCommand`: what the bus runs, by a shell, for calls to the extension's name while nobody owns it; "" for
  /// nothing.
  explicit TestBus(const std::string& startCommand = "");

  /// From soon on the bus runs `startCommand`.
  void install(const std::string& startCommand) const;
};

/// An extension with the usual badges and menu; observes `folder`, or nothing when it is "".
class TestExtension : public vornet::test::FakeExtension {
 public:
  TestExtension(const TestBus& bus, const std::string& folder);

  /// The number of items of each RequestBadges.
  std::vector<std::size_t> requestSizes() const;
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
