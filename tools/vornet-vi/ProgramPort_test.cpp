#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <thread>

#include "ProgramRun.hpp"
#include "TestListener.hpp"

/// The program's question to the sync application, on the port that the sync application has.
namespace vornet::vi::test {
namespace {

constexpr std::uint16_t PORT = 8806;

boost::json::object statusOf(const TestBus& bus) {
  ProgramRun::Settings settings;
  settings.busAddress = bus.address();
  settings.environment = {{"http_proxy", "http://127.0.0.1:1"}};
  ProgramRun program{settings, {"status", "--json"}};
  EXPECT_EQ(program.wait(), 0) << program.errors;
  return boost::json::parse(program.output).as_object().at("sync_application").as_object();
}

TEST(StatusOfSyncApplicationTest, AnyReplyIsAnAnswer) {
  const TestBus bus;
  const Listener listener{PORT};
  std::thread server{[&] { listener.serve("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n"); }};
  const auto state = statusOf(bus);
  listener.interrupt();
  server.join();
  EXPECT_EQ(state.at("outcome"), "answers");
  EXPECT_EQ(state.at("http_status"), 404);
}

TEST(StatusOfSyncApplicationTest, SilenceAndRefusalAreToldApart) {
  const TestBus bus;
  {
    const Listener listener{PORT};
    EXPECT_EQ(statusOf(bus).at("outcome"), "timed out");
  }
  EXPECT_EQ(statusOf(bus).at("outcome"), "refused");
}

}  // namespace
}  // namespace vornet::vi::test
