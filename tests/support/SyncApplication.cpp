#include "support/SyncApplication.hpp"

#include <memory>
#include <utility>

#include "paths/JSON.hpp"
#include "support/Threads.hpp"

namespace vornet::test {

void SyncApplication::setStatus(const std::string& cloudPath, int code) {
  const std::lock_guard guard(lock_);
  statuses_[cloudPath] = code;
}

void SyncApplication::setAnswer(const std::string& of, LoopbackServer::Answer answer) {
  const std::lock_guard guard(lock_);
  answers_[of] = std::move(answer);
}

void SyncApplication::setBody(const std::string& of, std::string body) {
  const auto shared = std::make_shared<const std::string>(std::move(body));
  setAnswer(of, [shared](const WireRequest&) { return WireReply{.body = *shared}; });
}

void SyncApplication::stall(const std::string& of) {
  setAnswer(of, [](const WireRequest&) { return WireReply{.manner = WireReply::Manner::stall}; });
}

std::vector<std::string> SyncApplication::bodies(const std::string& command) const {
  std::vector<std::string> result;
  for (const auto& request : server_.requests())
    if (request.target == "/" + command) result.push_back(request.body);
  return result;
}

bool SyncApplication::waitForAnswer(const std::string& command, const std::string& body) const {
  return becomesTrue([&] {
    const std::lock_guard guard(lock_);
    return answered_.contains({command, body});
  });
}

WireReply SyncApplication::answer(const WireRequest& request) {
  const std::string command = request.target.substr(1);
  const bool asksForStatuses = command == "get_icons_for_folder";
  const std::string folder(asksForStatuses ? fromJSON(request.body).at("dir_name").as_string() : "");
  LoopbackServer::Answer answer;
  {
    const std::lock_guard guard(lock_);
    answered_.emplace(command, request.body);
    auto found = answers_.find(command);
    if (found == answers_.end()) found = answers_.find(folder);
    if (found == answers_.end()) return {.body = asksForStatuses ? statusesIn(folder) : "{}"};
    answer = found->second;
  }
  return answer(request);
}

/// With the lock held.
std::string SyncApplication::statusesIn(const std::string& folder) const {
  std::string body;
  for (const auto& [path, code] : statuses_) {
    const bool isChild = path.starts_with(folder) && path.find('/', folder.size()) == std::string::npos;
    if (isChild) body += (body.empty() ? "\"" : ",\"") + path + "\":" + std::to_string(code);
  }
  return "{" + body + "}";
}

}  // namespace vornet::test
