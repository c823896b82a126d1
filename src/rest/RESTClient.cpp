#include "rest/RESTClient.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <set>

#include "base/AppConst.hpp"
#include "platform/Foundation.hpp"
#include "platform/Loopback.hpp"

namespace vornet {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr long TIMEOUT_MS = 3000;
// Far above any real reply's; interim replies and trailers count as well.
constexpr std::size_t MAX_HEADER_BYTES = std::size_t{256} << 10;

struct CurlDeleter {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
  void operator()(char* text) const { curl_free(text); }
};
struct DriverDeleter {  // CURLM and CURL are one type
  void operator()(CURLM* driver) const { curl_multi_cleanup(driver); }
};
using CurlText = std::unique_ptr<char, CurlDeleter>;
using CurlList = std::unique_ptr<curl_slist, CurlDeleter>;

void initialiseCurl() {
  static std::once_flag once;  // without TLS: everything stays on this machine
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_NOTHING); });
}

/// The calling thread's handle.
CURL* handleOfThread() {
  initialiseCurl();
  thread_local const std::unique_ptr<CURL, CurlDeleter> handle(curl_easy_init());
  if (handle) curl_easy_reset(handle.get());
  return handle.get();
}

/// Drives the calling thread's requests: unlike a blocking transfer, another thread can wake it.
CURLM* driverOfThread() {
  thread_local const std::unique_ptr<CURLM, DriverDeleter> driver(curl_multi_init());
  return driver.get();
}

/// The requests in flight, and the time when all were told to hurry.
class InFlight {
 public:
  void begin(CURLM* driver) {
    const std::lock_guard guard(lock_);
    drivers_.insert(driver);
  }
  void end(CURLM* driver) {
    const std::lock_guard guard(lock_);
    drivers_.erase(driver);
  }
  void hurry() {
    const std::lock_guard guard(lock_);
    if (!hurried_) hurried_ = Clock::now();
    for (CURLM* driver : drivers_) curl_multi_wakeup(driver);
  }
  /// The time that a request begun at `begun` may still wait; 0 when it is over.
  std::chrono::milliseconds wait(Clock::time_point begun) const {
    const std::lock_guard guard(lock_);
    if (!hurried_) return LONGEST_WAIT;
    const auto left = std::max(begun, *hurried_) + RESTClient::HURRIED_TIMEOUT - Clock::now();
    return std::clamp(std::chrono::ceil<std::chrono::milliseconds>(left), 0ms, LONGEST_WAIT);
  }

 private:
  static constexpr std::chrono::milliseconds LONGEST_WAIT{TIMEOUT_MS};

  mutable std::mutex lock_;
  std::set<CURLM*> drivers_;
  std::optional<Clock::time_point> hurried_;
};

InFlight& inFlight() {
  static auto& all = *new InFlight;  // threads may outlive the end of main
  return all;
}

/// Carries out the request that `handle` describes. True if its answer came in time.
bool perform(CURL* handle) {
  CURLM* const driver = driverOfThread();
  if (!driver || curl_multi_add_handle(driver, handle) != CURLM_OK) return false;
  const auto begun = Clock::now();
  inFlight().begin(driver);
  int running = 1;
  bool works = curl_multi_perform(driver, &running) == CURLM_OK;
  while (works && running > 0) {
    const auto wait = inFlight().wait(begun);
    if (wait == 0ms) break;
    works = curl_multi_poll(driver, nullptr, 0, static_cast<int>(wait.count()), nullptr) == CURLM_OK &&
            curl_multi_perform(driver, &running) == CURLM_OK;
  }
  inFlight().end(driver);
  int left = 0;
  const CURLMsg* message = curl_multi_info_read(driver, &left);
  const bool answered = message && message->msg == CURLMSG_DONE && message->data.result == CURLE_OK;
  curl_multi_remove_handle(driver, handle);
  return answered;
}

void add(CurlList& list, const std::string& line) {
  curl_slist* longer = curl_slist_append(list.get(), line.c_str());
  if (!longer) throw std::bad_alloc();
  (void)list.release();
  list.reset(longer);
}

/// The part of a reply that has come.
struct Reply {
  CURL* handle;
  std::size_t limit;
  std::string body{};
  std::size_t bodyBytes = 0;
  std::size_t headerBytes = 0;
  bool headersEnded = false;  // those of the final reply
};

long statusOf(CURL* handle) {
  long status = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  return status;
}

/// True if another reply follows that of `status`. 101 would leave HTTP, so nothing of it follows.
bool isInterim(long status) {
  return status >= 100 && status < 200 && status != 101;
}

/// Takes a line of the headers, or of the trailers after the body.
std::size_t takeHeader(char* line, std::size_t size, std::size_t count, void* into) {
  auto& reply = *static_cast<Reply*>(into);
  reply.headerBytes += size * count;
  if (reply.headerBytes > MAX_HEADER_BYTES) return 0;  // a short count makes the library give up
  const bool isEmpty = size * count > 0 && (*line == '\r' || *line == '\n');
  if (isEmpty && !isInterim(statusOf(reply.handle))) reply.headersEnded = true;
  return size * count;
}

/// Makes room for the whole reply when its length is announced; the library has compared it with the limit.
void makeRoom(Reply& reply) {
  curl_off_t length = 0;
  curl_easy_getinfo(reply.handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
  if (length > 0) reply.body.reserve(static_cast<std::size_t>(length));
}

std::size_t collect(char* data, std::size_t size, std::size_t count, void* into) {
  auto& reply = *static_cast<Reply*>(into);
  const bool isFirst = reply.bodyBytes == 0;
  reply.bodyBytes += size * count;
  if (reply.bodyBytes > reply.limit) return 0;
  if (const long status = statusOf(reply.handle); status != 0 && status != HTTPStatusCode.OK) return size * count;
  try {
    if (isFirst) makeRoom(reply);
    reply.body.append(data, size * count);
  } catch (const std::exception&) {
    return 0;  // no exception may cross the library's C frames
  }
  return size * count;
}

/// Called once the connection is made, before the request goes out; 0 lets it go.
int checkPeer(void*, char*, char*, int port, int localPort) {
  const bool own = platform::isOwnLoopbackPeer(static_cast<std::uint16_t>(port), static_cast<std::uint16_t>(localPort));
  return own ? 0 : 1;
}

/// Ensures that only a server that the user owns receives the request.
void checkServer(CURL* handle, std::uint16_t port) {
  if (!platform::isOwnLoopbackListener(port)) throw HTTPError::ResourceUnavailable();
  // Looked up by name: libcurl has it since 7.80; with an older one the check above must suffice.
  if (const auto* option = curl_easy_option_by_name("PREREQFUNCTION")) curl_easy_setopt(handle, option->id, &checkPeer);
}

CurlList headerLines(const std::optional<RESTClient::Headers>& headers) {
  CurlList lines;
  // The library adds these by itself unless told not to; a header of the caller's takes their place again.
  for (const auto* name : {"Accept", "Expect"})
    if (!headers || !headers->contains(name)) add(lines, std::string(name) + ":");
  add(lines, "Content-Type: application/json");
  if (headers)
    for (const auto& [name, value] : *headers) add(lines, value.empty() ? name + ";" : name + ": " + value);
  return lines;
}

std::string partOf(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, CURLU_DEFAULT_PORT) != CURLUE_OK) return {};
  const CurlText owned(text);
  return text;
}

}  // namespace

std::string HTTPError::description() const {
  return code_ ? "Non200Error(" + std::to_string(*code_) + ")" : "ResourceUnavailable";
}

std::string describeCurrentError() {
  try {
    throw;
  } catch (const HTTPError& error) {
    return error.description();
  } catch (const std::exception& error) {
    return "Error(\"" + std::string(error.what()) + "\")";
  } catch (...) {
    return "Error";
  }
}

std::optional<RequestURL> RequestURL::parse(const std::string& text) {
  initialiseCurl();
  const std::unique_ptr<CURLU, CurlDeleter> url(curl_url());
  if (!url || curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) return std::nullopt;
  RequestURL parsed(text);
  const std::string port = partOf(url.get(), CURLUPART_PORT);
  if (partOf(url.get(), CURLUPART_HOST) == "127.0.0.1" && !port.empty())
    parsed.loopbackPort_ = static_cast<std::uint16_t>(std::stoul(port));
  return parsed;
}

std::optional<std::string> RESTClient::postAtPath(std::string_view path, const std::optional<std::string>& postData,
                                                  const std::optional<Headers>& headers, std::size_t replyLimit) {
  const auto url = RequestURL::parse(App().PLC_REST_HOST + "/" + std::string(path));
  if (!url) platform::fatalError("a malformed address of the sync application");
  return postAtURL(*url, postData, headers, replyLimit);
}

std::optional<std::string> RESTClient::postAtURL(const RequestURL& url, const std::optional<std::string>& postData,
                                                 const std::optional<Headers>& headers, std::size_t replyLimit) {
  CURL* const handle = handleOfThread();
  if (!handle) throw HTTPError::ResourceUnavailable();
  const CurlList lines = headerLines(headers);
  Reply reply{handle, replyLimit};
  if (const auto port = url.loopbackPort()) checkServer(handle, *port);

  curl_easy_setopt(handle, CURLOPT_URL, url.text().c_str());
  curl_easy_setopt(handle, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(handle, CURLOPT_POST, 1L);
  curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(postData ? postData->size() : 0));
  curl_easy_setopt(handle, CURLOPT_POSTFIELDS, postData ? postData->data() : "");
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, lines.get());
  curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  // On a kept connection the library repeats a request by itself, with a new time-out; and a kept connection shuts
  // others out of a server that serves one at a time.
  curl_easy_setopt(handle, CURLOPT_FRESH_CONNECT, 1L);
  curl_easy_setopt(handle, CURLOPT_FORBID_REUSE, 1L);
  curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, TIMEOUT_MS);
  curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(replyLimit));
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_PROXY, "");
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &takeHeader);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, &reply);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &collect);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &reply);
  if (!perform(handle)) throw HTTPError::ResourceUnavailable();

  const long status = statusOf(handle);
  if (status == 0) return std::nullopt;  // a reply that is not HTTP
  if (!reply.headersEnded) throw HTTPError::ResourceUnavailable();
  if (status != HTTPStatusCode.OK) throw HTTPError::Non200Error(status);
  return std::move(reply.body);
}

void RESTClient::hurry() {
  inFlight().hurry();
}

}  // namespace vornet
