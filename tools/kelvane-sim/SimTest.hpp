#pragma once

#include <httplib.h>

#include <boost/json.hpp>
#include <memory>
#include <string>

#include "kelvane-sim/KelvaneSim.hpp"
#include "kelvane-sim/TestFolder.hpp"

namespace vornet::sim::testing {

/// A test with a folder to keep, a container and a stand-in on a free port.
class SimTest : public ::testing::Test {
 protected:
  SimTest() { files_.makeFolder("/root"); }

  KelvaneSim::Options options() const {
    KelvaneSim::Options options;
    options.root = files_.path("/root");
    options.container = files_.path("/container");
    options.port = 0;
    options.transferTime = std::chrono::milliseconds(0);
    return options;
  }

  /// Starts one and waits until it has seen everything.
  void start(KelvaneSim::Options chosen) {
    sim_ = std::make_unique<KelvaneSim>(std::move(chosen));
    sim_->start();
  }
  void start() { start(options()); }

  /// Posts with an independent HTTP client.
  httplib::Result post(const std::string& command, const std::string& body) const {
    httplib::Client client("127.0.0.1", sim_->port());
    return client.Post("/" + command, body, "application/json");
  }

  /// The body of a reply with status 200.
  boost::json::value ask(const std::string& command, const std::string& body) const {
    const auto reply = post(command, body);
    EXPECT_TRUE(reply);
    if (!reply) return nullptr;
    EXPECT_EQ(reply->status, 200) << reply->body;
    EXPECT_EQ(reply->get_header_value("Content-Type"), "application/json");
    return boost::json::parse(reply->body);
  }

  TestFolder files_;
  std::unique_ptr<KelvaneSim> sim_;
};

}  // namespace vornet::sim::testing
