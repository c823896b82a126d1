// The fatal stop: the same on every system.
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "platform/Foundation.hpp"

namespace vornet::platform {
namespace {

/// The time limit for writing the reason.
constexpr unsigned PATIENCE_SECONDS = 2;

std::atomic<FatalErrorHandler> handler{nullptr};

/// From now on nothing keeps the process from stopping: neither a reader of standard error that does not read, nor a
/// lock that the handler waits for and this thread holds.
void stopInAnyCase() {
  std::signal(SIGALRM, [](int) { std::abort(); });
  sigset_t alarm;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  ::pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
  ::alarm(PATIENCE_SECONDS);
}

}  // namespace

void setFatalErrorHandler(FatalErrorHandler handlerOfReasons) noexcept {
  handler = handlerOfReasons;
}

void fatalError(std::string_view reason) noexcept {
  thread_local bool stopping = false;
  if (stopping) std::abort();  // by what the handler does
  stopping = true;
  stopInAnyCase();
  systemLogFatal(reason);
  if (const auto handle = handler.load()) handle(reason);
  std::fprintf(stderr, "Fatal error: %.*s\n", static_cast<int>(reason.size()), reason.data());
  std::abort();
}

}  // namespace vornet::platform
