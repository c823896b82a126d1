#include "rest/RESTClient.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <mutex>

#include "extension/AppConst.hpp"
#include "platform/Foundation.hpp"

namespace vornet {
namespace {

constexpr long TIMEOUT_MS = 3000;
// Far above any folder's reply; keeps a sender without end from filling the memory within the time-out.
constexpr std::size_t MAX_REPLY_BYTES = std::size_t{256} << 20;

struct CurlDeleter {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using CurlList = std::unique_ptr<curl_slist, CurlDeleter>;

void initialiseCurl() {
  static std::once_flag once;  // without TLS: everything stays on this machine
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_NOTHING); });
}

/// The calling thread's handle: it keeps its connection from one request to the next.
CURL* handleOfThread() {
  initialiseCurl();
  thread_local const std::unique_ptr<CURL, CurlDeleter> handle(curl_easy_init());
  if (handle) curl_easy_reset(handle.get());
  return handle.get();
}

void add(CurlList& list, const std::string& line) {
  curl_slist* longer = curl_slist_append(list.get(), line.c_str());
  if (!longer) throw std::bad_alloc();
  (void)list.release();
  list.reset(longer);
}

struct Reply {
  CURL* handle;
  std::string body;
};

/// Makes room for the whole reply when its length is announced, up to what any real one has.
void makeRoom(Reply& reply) {
  constexpr curl_off_t ENOUGH = 4 << 20;
  curl_off_t length = 0;
  curl_easy_getinfo(reply.handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
  if (length > 0) reply.body.reserve(static_cast<std::size_t>(std::min(length, ENOUGH)));
}

std::size_t collect(char* data, std::size_t size, std::size_t count, void* into) {
  auto& reply = *static_cast<Reply*>(into);
  if (reply.body.size() + size * count > MAX_REPLY_BYTES) return 0;
  try {
    if (reply.body.empty()) makeRoom(reply);
    reply.body.append(data, size * count);
  } catch (const std::exception&) {
    return 0;  // no exception may cross the library's C frames; a short count makes it give up
  }
  return size * count;
}

CurlList headerLines(const std::optional<RESTClient::Headers>& headers) {
  CurlList lines;
  // The library adds these by itself unless told not to; a header of the caller's takes their place again.
  for (const auto* name : {"Accept", "Expect"}) {
    if (!headers || !headers->contains(name)) add(lines, std::string(name) + ":");
  }
  add(lines, "Content-Type: application/json");
  if (headers) {
    for (const auto& [name, value] : *headers) add(lines, value.empty() ? name + ";" : name + ": " + value);
  }
  return lines;
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
  return RequestURL(text);
}

std::optional<std::string> RESTClient::postAtPath(std::string_view path, const std::optional<std::string>& postData,
                                                  const std::optional<Headers>& headers) {
  const auto url = RequestURL::parse(App().PLC_REST_HOST + "/" + std::string(path));
  if (!url) platform::fatalError("a malformed address of the sync application");
  return postAtURL(*url, postData, headers);
}

std::optional<std::string> RESTClient::postAtURL(const RequestURL& url, const std::optional<std::string>& postData,
                                                 const std::optional<Headers>& headers) {
  CURL* const handle = handleOfThread();
  if (!handle) throw HTTPError::ResourceUnavailable();
  const CurlList lines = headerLines(headers);
  Reply reply{handle, {}};

  curl_easy_setopt(handle, CURLOPT_URL, url.text().c_str());
  curl_easy_setopt(handle, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(handle, CURLOPT_POST, 1L);
  curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(postData ? postData->size() : 0));
  curl_easy_setopt(handle, CURLOPT_POSTFIELDS, postData ? postData->data() : "");
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, lines.get());
  curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, TIMEOUT_MS);
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_PROXY, "");
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &collect);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &reply);
  if (curl_easy_perform(handle) != CURLE_OK) throw HTTPError::ResourceUnavailable();

  long status = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  if (status == 0) return std::nullopt;  // answered, but not by HTTP
  if (status != HTTPStatusCode.OK) throw HTTPError::Non200Error(status);
  return std::move(reply.body);
}

}  // namespace vornet
