#include "platform/Dispatch.hpp"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>

namespace vornet::platform {
namespace {

constexpr int NICER = 10;  // above the process's own niceness
constexpr int NICEST = 19;

void nameThread(const std::string& name) {
  ::pthread_setname_np(::pthread_self(), name.substr(0, 15).c_str());  // the kernel's limit
}

}  // namespace

struct BackgroundTask::Impl {
  std::thread thread;
  std::once_flag joined;
  ~Impl() {
    // Dropped without a wait: the work holds all it needs, so it may end by itself.
    if (thread.joinable()) thread.detach();
  }
};

BackgroundTask BackgroundTask::start(std::function<void()> work) {
  BackgroundTask task;
  task.impl_ = std::make_shared<Impl>();
  task.impl_->thread = std::thread([work = std::move(work)] {
    nameThread("background");
    // On Linux: of this thread alone. Never lowered, which only root may do.
    const int own = std::max(0, ::getpriority(PRIO_PROCESS, 0));
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), std::min(own + NICER, NICEST));
    work();
  });
  return task;
}

void BackgroundTask::wait() {
  if (impl_) std::call_once(impl_->joined, [this] { impl_->thread.join(); });
}

struct SerialQueue::Impl {
  std::string label;
  std::mutex lock;
  std::condition_variable changed;
  std::deque<std::function<void()>> tasks;
  std::uint64_t given = 0;
  std::uint64_t done = 0;
  bool ending = false;
  std::thread thread;  // started with the first task

  void run() {
    nameThread(label);
    std::unique_lock guard(lock);
    while (true) {
      changed.wait(guard, [this] { return !tasks.empty() || ending; });
      if (tasks.empty()) return;
      auto task = std::move(tasks.front());
      tasks.pop_front();
      guard.unlock();
      task();
      task = nullptr;  // without the lock: what the task held may queue another at its end
      guard.lock();
      ++done;
      changed.notify_all();
    }
  }
};

SerialQueue::SerialQueue(const std::string& label) : impl_(std::make_unique<Impl>()) {
  impl_->label = label;
}

SerialQueue::~SerialQueue() {
  {
    const std::lock_guard guard(impl_->lock);
    impl_->ending = true;
    impl_->changed.notify_all();
  }
  if (impl_->thread.joinable()) impl_->thread.join();
}

void SerialQueue::async(std::function<void()> task) {
  const std::lock_guard guard(impl_->lock);
  impl_->tasks.push_back(std::move(task));
  ++impl_->given;
  if (!impl_->thread.joinable()) impl_->thread = std::thread([this] { impl_->run(); });
  impl_->changed.notify_all();
}

void SerialQueue::drain() {
  std::unique_lock guard(impl_->lock);
  // Does not wait for an empty queue: others may add tasks for ever.
  impl_->changed.wait(guard, [this, given = impl_->given] { return impl_->done >= given; });
}

bool SerialQueue::drain(std::chrono::milliseconds atMost) {
  std::unique_lock guard(impl_->lock);
  return impl_->changed.wait_for(guard, atMost, [this, given = impl_->given] { return impl_->done >= given; });
}

}  // namespace vornet::platform
