#include "SyncApplication.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "TestListener.hpp"

namespace vornet::vi {
namespace {

using test::Listener;

TEST(SyncApplicationTest, PostsTheQuestionThatTheExtensionPosts) {
  const Listener listener;
  std::string request;
  std::thread server{[&] { request = listener.serve("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}"); }};
  const SyncApplicationState state = askSyncApplication(listener.address());
  server.join();
  EXPECT_EQ(state.outcome, SyncApplicationState::Outcome::answers);
  EXPECT_EQ(state.httpStatus, 200);
  EXPECT_EQ(request.substr(0, request.find("\r\n")), "POST /get_icons_for_folder HTTP/1.1");
  EXPECT_NE(request.find("\r\nContent-Type: application/json\r\n"), std::string::npos);
  EXPECT_EQ(request.substr(request.find("\r\n\r\n") + 4), R"({"dir_name":"/"})");
}

TEST(SyncApplicationTest, AnyStatusIsAnAnswer) {
  const Listener listener;
  std::thread server{[&] { listener.serve("HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\n\r\n"); }};
  const SyncApplicationState state = askSyncApplication(listener.address());
  server.join();
  EXPECT_EQ(state.outcome, SyncApplicationState::Outcome::answers);
  EXPECT_EQ(state.httpStatus, 500);
}

TEST(SyncApplicationTest, ProxiesOfTheEnvironmentAreIgnored) {
  setenv("http_proxy", "http://127.0.0.1:1", 1);
  setenv("ALL_PROXY", "http://127.0.0.1:1", 1);
  const Listener listener;
  std::thread server{[&] { listener.serve("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"); }};
  const SyncApplicationState state = askSyncApplication(listener.address());
  if (state.outcome != SyncApplicationState::Outcome::answers) listener.interrupt();
  EXPECT_EQ(state.outcome, SyncApplicationState::Outcome::answers);
  server.join();
}

TEST(SyncApplicationTest, AClosedPortIsARefusal) {
  std::string address;
  {
    const Listener listener;
    address = listener.address();
  }
  EXPECT_EQ(askSyncApplication(address).outcome, SyncApplicationState::Outcome::refused);
}

TEST(SyncApplicationTest, SilenceIsATimeOut) {
  const Listener listener;  // the system takes the connection; nobody answers
  EXPECT_EQ(askSyncApplication(listener.address()).outcome, SyncApplicationState::Outcome::timedOut);
}

TEST(SyncApplicationTest, WhatIsNotHTTPIsAFailure) {
  const Listener listener;
  std::thread server{[&] { listener.serve("SSH-2.0-x\r\n"); }};
  const SyncApplicationState state = askSyncApplication(listener.address());
  server.join();
  EXPECT_EQ(state.outcome, SyncApplicationState::Outcome::failed);
  EXPECT_FALSE(state.problem.empty());
}

}  // namespace
}  // namespace vornet::vi
