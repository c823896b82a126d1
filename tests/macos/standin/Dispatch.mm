#import <Foundation/Foundation.h>
#include <dispatch/dispatch.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "Finder.hpp"

namespace {

std::atomic<std::ptrdiff_t> live = 0;

/// A queue or a group; counted.
struct DispatchObject {
  DispatchObject() { ++live; }
  ~DispatchObject() { --live; }
  DispatchObject(const DispatchObject&) = delete;
  DispatchObject& operator=(const DispatchObject&) = delete;
};

/// The number of pieces of work in flight; shared by the group and its work.
struct Counter {
  std::mutex lock;
  std::condition_variable changed;
  std::size_t count = 0;

  void change(std::size_t by) {
    const std::lock_guard guard(lock);
    count += by;
    changed.notify_all();
  }
  void waitUntilNone() {
    std::unique_lock guard(lock);
    changed.wait(guard, [this] { return count == 0; });
  }
};

/// Runs `body` on a new thread that Foundation knows from the start.
template <class Body>
void startThread(Body body) {
  std::thread([body = std::move(body)] {
    GSRegisterCurrentThread();
    body();
    GSUnregisterCurrentThread();
  }).detach();
}

struct Task {
  dispatch_function_t work;
  void* context;
};

/// A serial queue's tasks; shared by the queue and its thread, which ends when the queue is released and all is run.
struct Tasks {
  std::mutex lock;
  std::condition_variable changed;
  std::deque<Task> waiting;
  bool released = false;

  void run() {
    std::unique_lock guard(lock);
    while (true) {
      changed.wait(guard, [this] { return !waiting.empty() || released; });
      if (waiting.empty()) return;
      const Task task = waiting.front();
      waiting.pop_front();
      guard.unlock();
      task.work(task.context);
      guard.lock();
    }
  }
};

}  // namespace

std::ptrdiff_t vornet::standin::liveDispatchObjects() {
  return live;
}

struct dispatch_group_s : DispatchObject {
  std::shared_ptr<Counter> counter = std::make_shared<Counter>();
};

struct dispatch_queue_s : DispatchObject {
  std::shared_ptr<Tasks> tasks = std::make_shared<Tasks>();
};

dispatch_queue_t dispatch_get_global_queue(std::intptr_t priority, std::uintptr_t) {
  if (priority != DISPATCH_QUEUE_PRIORITY_BACKGROUND) std::abort();  // no other is asked for
  static dispatch_queue_s background;
  return &background;
}

dispatch_queue_t dispatch_queue_create(const char*, dispatch_queue_attr_t) {
  auto queue = std::make_unique<dispatch_queue_s>();
  startThread([tasks = queue->tasks] { tasks->run(); });
  return queue.release();
}

void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  const std::lock_guard guard(queue->tasks->lock);
  queue->tasks->waiting.push_back({work, context});
  queue->tasks->changed.notify_all();
}

void dispatch_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  struct Call {
    dispatch_function_t work;
    void* context;
    Counter done;
  } call{work, context, {}};
  call.done.change(1);
  dispatch_async_f(queue, &call, [](void* given) {
    auto& waiting = *static_cast<Call*>(given);
    waiting.work(waiting.context);
    waiting.done.change(std::size_t(-1));
  });
  call.done.waitUntilNone();
}

dispatch_group_t dispatch_group_create() {
  return std::make_unique<dispatch_group_s>().release();
}

void dispatch_group_async_f(dispatch_group_t group, dispatch_queue_t, void* context, dispatch_function_t work) {
  group->counter->change(1);
  startThread([counter = group->counter, work, context] {
    work(context);
    counter->change(std::size_t(-1));
  });
}

std::intptr_t dispatch_group_wait(dispatch_group_t group, dispatch_time_t) {
  group->counter->waitUntilNone();
  return 0;
}

void dispatch_release(dispatch_group_t group) {
  const std::unique_ptr<dispatch_group_s> owned(group);
}

void dispatch_release(dispatch_queue_t queue) {
  const std::unique_ptr<dispatch_queue_s> owned(queue);
  const std::lock_guard guard(queue->tasks->lock);
  queue->tasks->released = true;
  queue->tasks->changed.notify_all();
}
