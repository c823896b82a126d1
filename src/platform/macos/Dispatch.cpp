#include "platform/Dispatch.hpp"

#include <dispatch/dispatch.h>

#include <future>

namespace vornet::platform {
namespace {

using Work = std::function<void()>;

/// Runs, and then deletes, the work that `context` points to.
void runWork(void* context) {
  const std::unique_ptr<Work> work(static_cast<Work*>(context));
  (*work)();
}

void doNothing(void*) {}

}  // namespace

struct BackgroundTask::Impl {
  Impl() = default;
  ~Impl() { dispatch_release(group); }  // work that still runs keeps the group
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  dispatch_group_t const group = dispatch_group_create();
};

BackgroundTask BackgroundTask::start(std::function<void()> work) {
  BackgroundTask task;
  task.impl_ = std::make_shared<Impl>();
  dispatch_group_async_f(task.impl_->group, dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_BACKGROUND, 0),
                         std::make_unique<Work>(std::move(work)).release(), &runWork);
  return task;
}

void BackgroundTask::wait() {
  if (impl_) dispatch_group_wait(impl_->group, DISPATCH_TIME_FOREVER);
}

struct SerialQueue::Impl {
  explicit Impl(const std::string& label) : queue(dispatch_queue_create(label.c_str(), DISPATCH_QUEUE_SERIAL)) {}
  ~Impl() { dispatch_release(queue); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  dispatch_queue_t const queue;
};

SerialQueue::SerialQueue(const std::string& label) : impl_(std::make_unique<Impl>(label)) {}

SerialQueue::~SerialQueue() {
  drain();
}

void SerialQueue::async(std::function<void()> task) {
  dispatch_async_f(impl_->queue, std::make_unique<Work>(std::move(task)).release(), &runWork);
}

void SerialQueue::drain() {
  dispatch_sync_f(impl_->queue, nullptr, &doNothing);
}

bool SerialQueue::drain(std::chrono::milliseconds atMost) {
  const auto reached = std::make_shared<std::promise<void>>();  // the queue's too: it may get there later
  const auto result = reached->get_future();
  async([reached] { reached->set_value(); });
  return result.wait_for(atMost) == std::future_status::ready;
}

}  // namespace vornet::platform
