#include "Reappearance.hpp"

#include <QElapsedTimer>

#include <chrono>
#include <utility>

#include "client/Guarded.hpp"

namespace vornet::dolphin {
namespace {

using namespace std::chrono_literals;
constexpr qint64 PORTION_MILLISECONDS = 4;
constexpr auto PATIENCE = 1s;

QUrl taken(std::deque<QUrl>& urls) {
  QUrl first = std::move(urls.front());
  urls.pop_front();
  return first;
}

}  // namespace

Reappearance::Reappearance(std::function<bool(const QUrl&)> ask, std::function<void(const QUrl&)> tell)
    : ask_(std::move(ask)), tell_(std::move(tell)) {
  connect(&portion_, &QTimer::timeout, this, [this] { client::guarded([this] { goOn(); }); });
  patience_.setSingleShot(true);
  connect(&patience_, &QTimer::timeout, this, [this] {
    client::guarded([this] {
      toTell_.insert(toTell_.end(), unknown_.begin(), unknown_.end());
      unknown_.clear();
      portion_.start(0);
    });
  });
}

Reappearance::~Reappearance() = default;

void Reappearance::add(const QList<QUrl>& items) {
  toAsk_.insert(toAsk_.end(), items.begin(), items.end());
  portion_.start(0);
}

void Reappearance::goOn() {
  QElapsedTimer elapsed;
  elapsed.start();
  while (!toAsk_.empty() || !toTell_.empty()) {
    if (elapsed.hasExpired(PORTION_MILLISECONDS)) return;
    if (toAsk_.empty()) {
      tell_(taken(toTell_));
      continue;
    }
    const QUrl url = taken(toAsk_);
    if (ask_(url)) {
      tell_(url);
    } else {
      unknown_.push_back(url);
      patience_.start(PATIENCE);
    }
  }
  portion_.stop();
}

}  // namespace vornet::dolphin
