#include "MainLoop.hpp"

#include <utility>

#include "Log.hpp"

namespace vornet::client {
namespace {

// A frame of the window takes 16 ms; this leaves most of it to the file manager.
constexpr gint64 SLICE_MICROSECONDS = 2'000;

// After painting (GDK paints at 120), before what waits for an idle moment.
constexpr gint SLICE_PRIORITY = G_PRIORITY_HIGH_IDLE + 50;

void end(GSource*& source) {
  if (!source) return;
  g_source_destroy(source);
  g_source_unref(source);
  source = nullptr;
}

}  // namespace

void Timer::start(std::chrono::milliseconds delay, std::function<void()> function) {
  stop();
  function_ = std::move(function);
  source_ = g_timeout_source_new(static_cast<guint>(delay.count()));
  const auto expired = +[](gpointer self) -> gboolean {
    auto& timer = *static_cast<Timer*>(self);
    end(timer.source_);
    const auto due = std::move(timer.function_);  // it may start the timer again
    const TracedCall traced("timer");
    guarded(due);
    return G_SOURCE_REMOVE;
  };
  g_source_set_callback(source_, expired, this, nullptr);
  g_source_attach(source_, context_);
}

void Timer::stop() {
  end(source_);
}

SlicedWork::~SlicedWork() {
  end(source_);
}

void SlicedWork::add(std::function<bool()> step) {
  steps_.push_back(std::move(step));
  if (source_) return;
  source_ = g_idle_source_new();
  g_source_set_priority(source_, SLICE_PRIORITY);
  const auto run = +[](gpointer self) -> gboolean { return static_cast<SlicedWork*>(self)->runSlice(); };
  g_source_set_callback(source_, run, this, nullptr);
  g_source_attach(source_, context_);
}

bool SlicedWork::runSlice() {
  const TracedCall traced("work");
  const gint64 end_of_slice = g_get_monotonic_time() + SLICE_MICROSECONDS;
  while (!steps_.empty()) {
    if (!guarded(false, steps_.front())) steps_.pop_front();
    if (g_get_monotonic_time() >= end_of_slice && !steps_.empty()) return G_SOURCE_CONTINUE;
  }
  end(source_);
  return G_SOURCE_REMOVE;
}

Disposal::~Disposal() {
  end(source_);
  for (GVariant* value : values_) g_variant_unref(value);
}

void Disposal::add(GVariant* value) {
  values_.push_back(g_variant_ref(value));
  if (source_) return;
  source_ = g_idle_source_new();
  g_source_set_priority(source_, G_PRIORITY_HIGH);
  const auto run = +[](gpointer self) -> gboolean {
    guarded([self] { static_cast<Disposal*>(self)->free(); });
    return G_SOURCE_REMOVE;
  };
  g_source_set_callback(source_, run, this, nullptr);
  g_source_attach(source_, context_);
}

void Disposal::free() {
  end(source_);
  const ContextScope scope(context_);  // where the tasks report their end; the default context may never run
  const auto unref =
      +[](GTask*, gpointer, gpointer value, GCancellable*) { g_variant_unref(static_cast<GVariant*>(value)); };
  for (GVariant* value : std::exchange(values_, {})) {
    GTask* task = g_task_new(nullptr, nullptr, nullptr, nullptr);
    g_task_set_task_data(task, value, nullptr);
    g_task_run_in_thread(task, unref);
    g_object_unref(task);
  }
}

}  // namespace vornet::client
