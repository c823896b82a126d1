#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/LoopbackServer.hpp"

namespace vornet::test {

/// A sync application on the fixed port. It knows statuses, and answers other commands with "{}" unless a test sets an
/// answer. Any thread.
class SyncApplication {
 public:
  SyncApplication() : server_([this](const WireRequest& request) { return answer(request); }) {}

  void setStatus(const std::string& cloudPath, int code);

  /// What is answered to `of`: a command, or the folder ("/d/") whose statuses are asked for.
  void setAnswer(const std::string& of, LoopbackServer::Answer answer);
  void setBody(const std::string& of, std::string body);

  /// Requests to `of` get no reply from now on.
  void stall(const std::string& of);

  /// The bodies of the requests to `command`.
  std::vector<std::string> bodies(const std::string& command) const;

  /// Waits until the answer to a request to `command` with `body` is chosen; false after a minute without.
  bool waitForAnswer(const std::string& command, const std::string& body) const;

  /// Waits until at least `count` requests have come; false after half a minute without.
  bool waitForRequests(std::size_t count) const { return server_.waitForRequests(count); }

 private:
  WireReply answer(const WireRequest& request);
  std::string statusesIn(const std::string& folder) const;

  mutable std::mutex lock_;
  std::map<std::string, int> statuses_;
  std::map<std::string, LoopbackServer::Answer> answers_;
  std::set<std::pair<std::string, std::string>> answered_;  // commands and bodies
  LoopbackServer server_;
};

}  // namespace vornet::test
