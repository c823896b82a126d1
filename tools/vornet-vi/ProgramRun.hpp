#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "dbus/GLibPtr.hpp"
#include "support/FakeExtension.hpp"
#include "support/LoopbackServer.hpp"
#include "support/MainContext.hpp"
#include "support/PrivateBus.hpp"
#include "support/TemporaryFolder.hpp"

/// For tests: the program on a private message bus, with an extension that does what a test says. All runs in the
/// default main context of the test's only thread.
namespace vornet::vi::test {

using vornet::test::LoopbackServer;
using vornet::test::runUntil;
using vornet::test::urlOf;
using vornet::test::WireReply;
using vornet::test::WireRequest;

/// A temporary folder, to be shown.
class ShownTestFolder {
 public:
  std::string path() const { return folder_.path().string(); }
  /// Makes the file, or the folder, `name`; its path.
  std::string file(const std::string& name, const std::string& content = "") const {
    vornet::test::writeFile(folder_.path() / name, content);
    return folder_ / name;
  }
  std::string folder(const std::string& name) const {
    std::filesystem::create_directory(folder_.path() / name);
    return folder_ / name;
  }

 private:
  vornet::test::TemporaryFolder folder_;
};

/// A private bus.
class TestBus : private vornet::test::TemporaryFolder, public vornet::test::PrivateBus {
 public:
  /// `startCommand`: what the bus runs, by a shell, for calls to the extension's name while nobody owns it; "" for
  /// nothing.
  explicit TestBus(const std::string& startCommand = "");

  /// A command that ends with this object.
  static constexpr const char* STAYS = "while [ -e \"$0\" ]; do sleep 0.1; done";

  /// Has the bus run `startCommand` for calls that come soon after this returns.
  void install(const std::string& startCommand) const;

  /// How often the bus has run a command.
  std::size_t starts() const { return vornet::test::readFile(TemporaryFolder::path() / "starts").size(); }
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
    std::map<std::string, std::string> environment{};
    std::vector<std::string> wrapper{};  ///< what runs it: a program, and arguments before its own
    int terminalColumns = 0;             ///< its output is a terminal of this width; 0: a pipe
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
  /// Reads nothing of its output until released.
  void holdOutput() { output_.stop(); }
  void releaseOutput() { output_.start(); }

  std::string output;  ///< so far
  std::string errors;
  std::vector<std::string> lines() const;

 private:
  /// One of its outputs, of which all is appended to `text` as it comes.
  struct Reading {
    explicit Reading(std::string& into) : text(into) {}
    ~Reading() { stop(); }
    void start();
    void stop();

    std::string& text;
    GObjectPtr<GInputStream> stream{};
    guint source = 0;  ///< 0 when the output has ended, or is not read
  };
  Reading output_{output};
  Reading errors_{errors};
  bool ended_ = false;
  GObjectPtr<GSubprocess> process_;
};

/// The program on a bus without an extension, except one that `startCommand` starts (see TestBus).
class ProgramTest : public ::testing::Test {
 protected:
  explicit ProgramTest(const std::string& startCommand = "") : bus(startCommand) {}

  /// Runs the program to its end; its standard error is exactly one line, or empty when it succeeds.
  int run(const std::vector<std::string>& arguments);
  /// The output of a run that succeeds.
  std::string outputOf(const std::vector<std::string>& arguments);
  /// What a run that fails says, without the program's name.
  std::string failureOf(const std::vector<std::string>& arguments);

  static bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  }

  TestBus bus;
  ShownTestFolder root;
  ProgramRun::Settings settings{.busAddress = bus.address()};
  std::string output;
  std::vector<std::string> lines;
  std::string errors;
};

/// With an extension that observes the root.
class ServedTest : public ProgramTest {
 protected:
  TestExtension extension{bus, root.path()};
};

}  // namespace vornet::vi::test
