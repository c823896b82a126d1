#include "GLibEvents.hpp"

#include <QAbstractEventDispatcher>
#include <QSocketNotifier>

#include <algorithm>

namespace vornet::dolphin {
namespace {

/// The descriptors that `context` waits for at `priority` and above, and its next time-out in milliseconds (-1: none).
std::vector<GPollFD> query(GMainContext* context, int priority, int& timeout) {
  std::vector<GPollFD> descriptors(8);
  for (;;) {
    const auto room = static_cast<gint>(descriptors.size());
    const auto count =
        static_cast<std::size_t>(g_main_context_query(context, priority, &timeout, descriptors.data(), room));
    const bool all = count <= descriptors.size();
    descriptors.resize(count);
    if (all) return descriptors;
  }
}

bool sameWait(const GPollFD& one, const GPollFD& other) {
  return one.fd == other.fd && one.events == other.events;
}

}  // namespace

bool GLibEvents::needed() {
  const auto* dispatcher = QAbstractEventDispatcher::instance();
  return !dispatcher || !dispatcher->inherits("QEventDispatcherGlib");
}

GLibEvents::GLibEvents()
    // Nobody owns the context while Qt waits for it; it must wake up then as well.
    : context_(g_main_context_new_with_flags(G_MAIN_CONTEXT_FLAGS_OWNERLESS_POLLING)) {
  timer_.setSingleShot(true);
  timer_.setTimerType(Qt::PreciseTimer);
  connect(&timer_, &QTimer::timeout, this, &GLibEvents::run);
  timer_.start(0);
}

GLibEvents::~GLibEvents() = default;

void GLibEvents::run() {
  if (!g_main_context_acquire(context_.get())) return;
  int priority = 0;
  int timeout = -1;
  g_main_context_prepare(context_.get(), &priority);
  auto descriptors = query(context_.get(), priority, timeout);
  g_poll(descriptors.data(), static_cast<guint>(descriptors.size()), 0);
  if (g_main_context_check(context_.get(), priority, descriptors.data(), static_cast<gint>(descriptors.size())))
    g_main_context_dispatch(context_.get());
  // Sources that are ready at once wait for the next round, so that Qt's events come in between.
  const bool ready = g_main_context_prepare(context_.get(), &priority);
  descriptors = query(context_.get(), priority, timeout);
  g_main_context_release(context_.get());
  waitFor(descriptors, ready ? 0 : timeout);
}

void GLibEvents::waitFor(const std::vector<GPollFD>& descriptors, int milliseconds) {
  if (milliseconds < 0)
    timer_.stop();
  else
    timer_.start(milliseconds);
  const auto same = [](const Notifier& notifier, const GPollFD& descriptor) {
    return sameWait(notifier.descriptor, descriptor);
  };
  if (std::equal(notifiers_.begin(), notifiers_.end(), descriptors.begin(), descriptors.end(), same)) return;

  for (auto& notifier : notifiers_) {
    for (auto& part : notifier.parts) {
      part->setEnabled(false);
      part.release()->deleteLater();  // it may be the one that called
    }
  }
  notifiers_.clear();
  for (const auto& descriptor : descriptors) {
    Notifier notifier{descriptor, {}};
    const auto watch = [&](QSocketNotifier::Type type) {
      auto part = std::make_unique<QSocketNotifier>(descriptor.fd, type);
      connect(part.get(), &QSocketNotifier::activated, this, &GLibEvents::run);
      notifier.parts.push_back(std::move(part));
    };
    if (descriptor.events & (G_IO_IN | G_IO_HUP)) watch(QSocketNotifier::Read);
    if (descriptor.events & G_IO_OUT) watch(QSocketNotifier::Write);
    if (descriptor.events & (G_IO_PRI | G_IO_ERR)) watch(QSocketNotifier::Exception);
    notifiers_.push_back(std::move(notifier));
  }
}

}  // namespace vornet::dolphin
