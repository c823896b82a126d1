#include "BadgeLoader.hpp"

#include <algorithm>
#include <utility>

#include "PathURL.hpp"

namespace vornet::vi {

struct BadgeLoader::State {
  Client& client;
  std::string folder;
  std::function<void(const std::string&, const std::string&)> sink;
  std::deque<std::string> queue;
  std::size_t underWay = 0;
  std::size_t generation = 0;  // answers to an earlier one are dropped
  std::optional<Failure> failure;
};

BadgeLoader::BadgeLoader(Client& client, std::string folder,
                         std::function<void(const std::string&, const std::string&)> sink)
    : state_(std::make_shared<State>(State{client, std::move(folder), std::move(sink), {}, 0, 0, std::nullopt})) {}

BadgeLoader::~BadgeLoader() {
  forget();
}

void BadgeLoader::ask(const std::vector<std::string>& names) {
  state_->queue.insert(state_->queue.end(), names.begin(), names.end());
  pump(state_);
}

void BadgeLoader::retry() {
  if (!state_->failure) {
    return;
  }
  state_->failure.reset();
  pump(state_);
}

void BadgeLoader::forget() {
  ++state_->generation;
  state_->queue.clear();
  state_->underWay = 0;
  state_->failure.reset();
}

bool BadgeLoader::isBusy() const {
  return !state_->failure && (state_->underWay > 0 || !state_->queue.empty());
}

const std::optional<Failure>& BadgeLoader::failure() const {
  return state_->failure;
}

void BadgeLoader::pump(const std::shared_ptr<State>& state) {
  while (!state->failure && state->underWay < WINDOW && !state->queue.empty()) {
    const auto count = std::min(BATCH_SIZE, state->queue.size());
    const auto end = state->queue.begin() + static_cast<std::ptrdiff_t>(count);
    std::vector<std::string> names{std::make_move_iterator(state->queue.begin()), std::make_move_iterator(end)};
    state->queue.erase(state->queue.begin(), end);
    std::vector<std::string> paths;
    paths.reserve(names.size());
    for (const std::string& name : names) {
      paths.push_back(childPath(state->folder, name));
    }
    ++state->underWay;
    state->client.requestBadges(
        paths, [state, generation = state->generation, names = std::move(names)](
                   const std::vector<std::string>& identifiers, const std::optional<Failure>& failure) {
          if (generation != state->generation) {
            return;
          }
          --state->underWay;
          if (failure) {
            if (!state->failure) {
              state->failure.emplace(*failure);
            }
            state->queue.insert(state->queue.end(), names.begin(), names.end());
            return;
          }
          for (std::size_t i = 0; i < names.size(); ++i) {
            state->sink(names[i], identifiers[i]);
          }
          pump(state);
        });
  }
}

}  // namespace vornet::vi
