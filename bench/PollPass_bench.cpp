// One pass of the worker over a folder: request, decode, diff, replace, push. Each way runs on a thread of background
// priority and asks the same server.
#include <curl/curl.h>

#include <atomic>
#include <boost/json.hpp>
#include <boost/unordered/unordered_flat_map.hpp>
#include <unordered_map>

#include "base/AppConst.hpp"
#include "cache/DirCache.hpp"
#include "extension/FinderSync.hpp"
#include "logging/Logging.hpp"
#include "paths/JSON.hpp"
#include "platform/Dispatch.hpp"
#include "platform/linux/FinderSyncHost.hpp"
#include "rest/RESTClient.hpp"
#include "rest/RESTPollingManager.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/Items.hpp"
#include "support/PassClock.hpp"
#include "support/PreparedServer.hpp"
#include "support/RunBenchmarks.hpp"

namespace vornet::bench {
namespace {

const std::string KEY = folderKeyOf(0);
constexpr const char* URL = "http://127.0.0.1:8806/get_icons_for_folder";

/// The sync application. One item in a hundred changes between two requests.
struct Application {
  test::Environment environment;
  std::string root = environment.folder() / "Kelvane";
  const PreparedServer::Reply replies[2] = {std::make_shared<const std::string>(replyFor(KEY)),
                                            std::make_shared<const std::string>(replyFor(KEY, true))};
  std::size_t requests = 0;
  PreparedServer server{[this](const std::string&) { return replies[requests++ % 2]; }};
  std::string request = toJSON({{"dir_name", KEY}});

  Application() { setupLogger("INFO"); }  // as the extension does: no message is built below that level
};

void measure(benchmark::State& state, PassClock& clock) {
  while (state.KeepRunningBatch(PassClock::BATCH)) {
    const double taken = clock.nextBatch();
    if (taken < 0) return state.SkipWithError("no passes");
    state.SetIterationTime(taken);
  }
}

/// Makes passes on a thread of background priority while the benchmark runs.
template <class Pass>
void measurePasses(benchmark::State& state, Pass pass) {
  PassClock clock;
  std::atomic<bool> ending{false};
  auto task = platform::BackgroundTask::start([&] {
    while (!ending) {
      pass();
      clock.passed();
    }
  });
  measure(state, clock);
  ending = true;
  task.wait();
}

// --- Ours -----------------------------------------------------------------------------------------------------------

/// The extension's controller. It knows how many pushes make a pass.
class CountingController : public FinderSync {
 public:
  explicit CountingController(PassClock& clock) : clock_(clock) {}
  void setFileSyncStatus(const platform::FileURL& url, std::int64_t status) override {
    FinderSync::setFileSyncStatus(url, status);
    if (++pushes_ % CHANGES == 0) clock_.passed();
  }

 private:
  PassClock& clock_;
  std::size_t pushes_ = 0;
};

void ours(benchmark::State& state) {
  const std::string folder = fixture<Application>()->root + KEY.substr(0, KEY.size() - 1);
  platform::host::folderShown(folder);
  PassClock clock;
  CountingController controller(clock);
  const auto manager = std::make_shared<RESTPollingManager>(std::chrono::seconds(0));  // one pass after another
  manager->setFinderSync(&controller);
  manager->enableVI(fixture<Application>()->root);
  manager->dirEnter(folder);
  manager->start_listener();
  measure(state, clock);
  manager->stop_listener();
  platform::host::folderHidden(folder);
}

void oursRequest(benchmark::State& state) {
  measurePasses(state, [&] {
    benchmark::DoNotOptimize(RESTClient::postAtPath("get_icons_for_folder", fixture<Application>()->request));
  });
}

// --- The limit ------------------------------------------------------------------------------------------------------

std::size_t append(char* data, std::size_t size, std::size_t count, void* body) {
  static_cast<std::string*>(body)->append(data, size * count);
  return size * count;
}

curl_slist* contentType() {
  static curl_slist* const line = curl_slist_append(nullptr, "Content-Type: application/json");
  return line;
}

CURL* newHandle() {
  CURL* handle = curl_easy_init();
  curl_easy_setopt(handle, CURLOPT_URL, URL);
  curl_easy_setopt(handle, CURLOPT_POSTFIELDS, fixture<Application>()->request.c_str());
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, contentType());
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_PROXY, "");
  curl_easy_setopt(handle, CURLOPT_FRESH_CONNECT, 1L);  // as ours: a new connection for each request
  curl_easy_setopt(handle, CURLOPT_FORBID_REUSE, 1L);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &append);
  return handle;
}

/// A handle that is made and set up once.
class KeptHandle {
 public:
  KeptHandle() : handle_(newHandle()) {}
  ~KeptHandle() { curl_easy_cleanup(handle_); }
  KeptHandle(const KeptHandle&) = delete;
  KeptHandle& operator=(const KeptHandle&) = delete;

  void fetch(std::string& body) {
    body.clear();
    curl_easy_setopt(handle_, CURLOPT_WRITEDATA, &body);
    curl_easy_perform(handle_);
  }

 private:
  CURL* handle_;
};

using Views = boost::unordered_flat_map<std::string_view, int, TextHash, std::equal_to<>>;

/// Knows that the texts hold no escapes and that everything is well-formed; copies nothing.
void scan(const std::string& body, Views& items) {
  items.clear();
  for (const char* at = body.data() + 1; *at == '"'; ++at) {
    const char* key = at + 1;
    at = static_cast<const char*>(std::memchr(key, '"', static_cast<std::size_t>(body.data() + body.size() - key)));
    items.emplace(std::string_view(key, static_cast<std::size_t>(at - key)), at[2] - '0');
    at += 3;
  }
}

template <class Map>
std::size_t countChanges(const Map& old, const Map& now) {
  std::size_t changes = 0;
  for (const auto& [path, code] : now) {
    const auto before = old.find(path);
    if (before == old.end() || before->second != code) ++changes;
  }
  return changes;
}

void limit(benchmark::State& state) {
  KeptHandle handle;
  std::string oldBody, body;
  Views oldItems, items;
  measurePasses(state, [&] {
    handle.fetch(body);
    scan(body, items);
    benchmark::DoNotOptimize(countChanges(oldItems, items));
    oldBody.swap(body);
    oldItems.swap(items);
  });
}

void limitRequest(benchmark::State& state) {
  KeptHandle handle;
  std::string body;
  measurePasses(state, [&] { handle.fetch(body); });
}

// --- The straightforward way ----------------------------------------------------------------------------------------

std::string fetchWithNewHandle() {
  std::string body;
  CURL* handle = newHandle();
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &body);
  curl_easy_perform(handle);
  curl_easy_cleanup(handle);
  return body;
}

void straightforward(benchmark::State& state) {
  using Items = std::unordered_map<std::string, std::int64_t>;
  Items old;
  measurePasses(state, [&] {
    const auto value = boost::json::parse(fetchWithNewHandle());
    Items items;
    for (const auto& member : value.as_object()) items[member.key()] = member.value().as_int64();
    benchmark::DoNotOptimize(countChanges(old, items));
    old = std::move(items);
  });
}

void straightforwardRequest(benchmark::State& state) {
  measurePasses(state, [] { benchmark::DoNotOptimize(fetchWithNewHandle()); });
}

BENCHMARK(ours)->Name("PollPass/ours")->UseManualTime();
BENCHMARK(limit)->Name("PollPass/limit")->UseManualTime();
BENCHMARK(straightforward)->Name("PollPass/straightforward")->UseManualTime();
BENCHMARK(oursRequest)->Name("PollRequest/ours")->UseManualTime();
BENCHMARK(limitRequest)->Name("PollRequest/limit")->UseManualTime();
BENCHMARK(straightforwardRequest)->Name("PollRequest/straightforward")->UseManualTime();

}  // namespace
}  // namespace vornet::bench

int main(int argc, char** argv) {
  return vornet::bench::runBenchmarks<vornet::bench::Application>(argc, argv);
}
