#include "support/ExtensionTest.hpp"

#include <gmock/gmock.h>

#include <cstdio>
#include <string_view>

#include "support/Databases.hpp"

namespace vornet::test {

namespace fs = std::filesystem;

ExtensionTest::ExtensionTest(const std::vector<std::string>& items) {
  for (const auto& item : items)
    if (item.ends_with("/"))
      fs::create_directories(root + "/" + item);
    else
      writeFile(root + "/" + item, "content");
  fs::create_directories(environment.folder() / "output");
}

ExtensionTest::~ExtensionTest() {
  // The extension ends with its bus; only then may its folders go.
  const int last = bus ? BusClient(bus->address()).extensionProcess() : 0;
  client.reset();
  bus.reset();
  EXPECT_TRUE(waitForEnd(last));
  EXPECT_THAT(output(), testing::Not(testing::HasSubstr("Sanitizer")));
  if (HasFailure()) std::fputs(output().c_str(), stderr);
}

void ExtensionTest::configure(const std::string& folder) const {
  writePreferences(container / "new", folder);
  fs::rename(container / "new", container / "VornetKelvane.plist");
}

void ExtensionTest::makeDatabase(const Rows& rows) const {
  fs::create_directories(container);
  makeSyncDatabase(database(), rows);
}

void ExtensionTest::start(const fs::path& services) {
  bus.emplace(environment.folder().path() / "bus", services);
  client.emplace(bus->address());
}

void ExtensionTest::startConfigured(const Rows& rows) {
  if (!rows.empty()) makeDatabase(rows);
  configure();
  start();
}

void ExtensionTest::startObserving(const Rows& rows, const std::string& folder) {
  startConfigured(rows);
  ASSERT_TRUE(client->beginObserving(url(folder)));
}

std::unique_ptr<StartedProgram> ExtensionTest::launch(std::vector<std::string> arguments,
                                                      std::vector<std::string> variables, const fs::path& output) {
  if (bus) variables.push_back("DBUS_SESSION_BUS_ADDRESS=" + bus->address());
  const fs::path own = environment.folder().path() / "output" / std::to_string(++launched_);
  return std::make_unique<StartedProgram>(std::move(arguments), std::move(variables), output.empty() ? own : output);
}

ExtensionTest::Ended ExtensionTest::run(std::vector<std::string> arguments, std::vector<std::string> variables) {
  const auto program = launch(std::move(arguments), std::move(variables));
  const int status = program->wait();
  return {status, program->output()};
}

int ExtensionTest::process() {
  EXPECT_EQ(client->property("Version"), "'" VORNET_VERSION "'");
  return client->extensionProcess();
}

int ExtensionTest::waitForProcess(int former) {
  int found = 0;
  const auto isAnother = [&] { return (found = client->extensionProcess()) != 0 && found != former; };
  return client->waitUntil(isAnother) ? found : 0;
}

std::vector<std::string> ExtensionTest::urls(const std::vector<std::string>& names) const {
  std::vector<std::string> result;
  for (const auto& name : names) result.push_back(url(name));
  return result;
}

std::vector<std::string> ExtensionTest::badges(const std::vector<std::string>& names) {
  auto texts = client->requestBadges(urls(names)).texts();
  EXPECT_EQ(texts.size(), names.size()) << "no answer";
  texts.resize(names.size(), "no answer");
  return texts;
}

bool ExtensionTest::waitForBadge(const std::string& name, const std::string& identifier) {
  return client->waitUntil([&] { return badge(name) == identifier; });
}

std::vector<MenuEntry> ExtensionTest::menu(const std::vector<std::string>& names) {
  std::vector<MenuEntry> entries;
  EXPECT_EQ(client->menu(urls(names), entries).error, "");
  return entries;
}

void ExtensionTest::askForMenu(const std::string& name, std::function<void(const BusReply&)> done) {
  client->call("GetMenu", BusClient::urlArguments({url(name)}), std::move(done));
}

std::size_t ExtensionTest::logged(const std::string& text) const {
  const auto log = logText();
  std::size_t count = 0;
  for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
  return count;
}

bool ExtensionTest::waitForLog(const std::string& text, std::size_t times) {
  return client->waitUntil([&] { return logged(text) >= times; });
}

/// The output of the bus, and of all that it or the test started.
std::string ExtensionTest::output() const {
  std::string all = readFile(environment.folder().path() / "bus/bus.output");
  for (const auto& file : fs::directory_iterator(environment.folder() / "output")) all += readFile(file.path());
  return all;
}

}  // namespace vornet::test
