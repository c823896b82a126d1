#include "SyncApplication.hpp"

#include <httplib.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace vornet::test {
namespace {

constexpr const char* HOST = "127.0.0.1";
constexpr int PORT = 8806;
constexpr std::chrono::seconds PATIENCE{30};

/// Alone on the port: without the library's own options, which share it with any other server that has them.
void takeThePortAlone(socket_t socket) {
  const int yes = 1;
  ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

}  // namespace

struct SyncApplication::Impl {
  httplib::Server server;
  std::thread thread;
  mutable std::mutex lock;
  mutable std::condition_variable changed;
  std::map<std::string, std::string> answers;
  std::vector<Request> requests;

  void respond(const httplib::Request& request, httplib::Response& response) {
    const std::lock_guard guard(lock);
    const std::string command = request.path.substr(1);
    const auto found = answers.find(command);
    if (found == answers.end())
      response.status = 404;
    else
      response.set_content(found->second, "application/json");
    requests.push_back({command, request.body});
    changed.notify_all();
  }
};

SyncApplication::SyncApplication() : impl_(std::make_unique<Impl>()) {
  impl_->server.Post("/.*", [this](const auto& request, auto& response) { impl_->respond(request, response); });
  impl_->server.set_socket_options(&takeThePortAlone);
  const auto end = std::chrono::steady_clock::now() + PATIENCE;
  while (!impl_->server.bind_to_port(HOST, PORT)) {
    if (std::chrono::steady_clock::now() > end) throw std::runtime_error("the sync application's port is taken");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  impl_->thread = std::thread([this] { impl_->server.listen_after_bind(); });
  while (!impl_->server.is_running()) std::this_thread::yield();
}

SyncApplication::~SyncApplication() {
  impl_->server.stop();
  impl_->thread.join();
}

void SyncApplication::answer(const std::string& command, const std::string& body) {
  const std::lock_guard guard(impl_->lock);
  impl_->answers[command] = body;
}

std::vector<SyncApplication::Request> SyncApplication::requests() const {
  const std::lock_guard guard(impl_->lock);
  return impl_->requests;
}

std::vector<std::string> SyncApplication::bodies(const std::string& command) const {
  std::vector<std::string> found;
  for (const auto& request : requests())
    if (request.command == command) found.push_back(request.body);
  return found;
}

bool SyncApplication::waitFor(const Request& request, std::size_t times) const {
  std::unique_lock guard(impl_->lock);
  return impl_->changed.wait_for(guard, PATIENCE, [&] {
    const auto& all = impl_->requests;
    return std::count(all.begin(), all.end(), request) >= static_cast<std::ptrdiff_t>(times);
  });
}

}  // namespace vornet::test
