#include "support/RunningExtension.hpp"

#include <csignal>
#include <filesystem>
#include <stdexcept>

#include "base/AppConst.hpp"
#include "dbus/Interface.hpp"
#include "platform/Foundation.hpp"
#include "support/Databases.hpp"
#include "support/ProcessFigures.hpp"

namespace vornet::bench {
namespace {

constexpr const char* BARE_NAME = "com.vornet.Bench";

PreparedServer::Reply answerTo(const std::string& request, std::size_t entries) {
  const auto from = request.find('/');
  const auto until = request.rfind('"');
  return std::make_shared<const std::string>(replyFor(request.substr(from, until - from), false, entries));
}

void require(bool condition, const char* failure) {
  if (!condition) throw std::runtime_error(failure);
}

}  // namespace

RunningExtension::RunningExtension()
    : root_(environment_.folder() / "Kelvane"),
      server_([this](const std::string& request) { return answerTo(request, entries_); }),
      bus_(environment_.folder().path() / "bus") {
  for (std::size_t i = 0; i < FOLDERS; ++i) std::filesystem::create_directories(root_ + folderKeyOf(i));
  test::writePreferences(environment_.container() / App().KELVANE_PLIST, root_);
  bare_ = std::make_unique<test::StartedProgram>(std::vector<std::string>{VORNET_BENCH_SERVICE, BARE_NAME},
                                                 std::vector<std::string>{"DBUS_SESSION_BUS_ADDRESS=" + bus_.address()},
                                                 environment_.folder() / "bare.output");
  connection_ = test::connectToBus(bus_.address());
  restart();
  require(client_->waitUntil([this] { return echo({"file:///a"}) == 1; }), "the bare service does not answer");
}

void RunningExtension::restart(std::size_t entries) {
  entries_ = entries;
  if (process_ != 0) {
    ::kill(process_, SIGTERM);  // its name is free before it has ended, and a second one beside it would end itself
    require(client_->waitUntil([this] { return residentMemory(process_) == 0; }), "the extension does not end");
  }
  client_ = std::make_unique<test::BusClient>(bus_.address());
  if (client_->property("Version").empty())
    throw std::runtime_error("the extension does not start: " + test::readFile(bus_.output()));
  process_ = client_->extensionProcess();
}

void RunningExtension::observe(std::size_t number) {
  const auto folder = platform::FileURL::fileURLWithPath(root_ + folderKeyOf(number)).description();
  const auto reply = client_->beginObserving(folder);
  require(static_cast<bool>(reply), "the folder cannot be observed");
  const std::vector<std::string> one = {urls(number).back()};
  require(client_->waitUntil([&] { return requestBadges(one) == 1; }), "the folder's badges do not come");
}

std::vector<std::string> RunningExtension::urls(std::size_t number) const {
  auto texts = itemsOf(folderKeyOf(number), entries_);
  for (auto& text : texts) text = platform::FileURL::fileURLWithPath(root_ + text).description();
  return texts;
}

std::size_t RunningExtension::call(bool echo, const std::vector<std::string>& urls) {
  const GVariantPtr reply(g_dbus_connection_call_sync(
      connection_.get(), echo ? BARE_NAME : dbus::BUS_NAME, echo ? "/com/vornet/Bench" : dbus::OBJECT_PATH,
      echo ? "com.vornet.Bench" : dbus::INTERFACE, echo ? "Echo" : "RequestBadges", test::BusClient::urlArguments(urls),
      nullptr, G_DBUS_CALL_FLAGS_NONE, 30'000, nullptr, nullptr));
  if (!reply) return 0;
  std::size_t synced = 0;
  GVariantIter* iterator = nullptr;
  g_variant_get(reply.get(), "(as)", &iterator);
  for (const gchar* text; g_variant_iter_next(iterator, "&s", &text);) synced += text == statusSynced ? 1 : 0;
  g_variant_iter_free(iterator);
  return synced;
}

}  // namespace vornet::bench
