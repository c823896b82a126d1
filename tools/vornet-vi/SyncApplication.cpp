#include "SyncApplication.hpp"

#include <curl/curl.h>

#include <memory>

namespace vornet::vi {
namespace {

constexpr long LIMIT_MILLISECONDS = 3000;
constexpr const char* COMMAND = "/get_icons_for_folder";
constexpr const char* BODY = R"({"dir_name":"/"})";

struct EasyCleanup {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct ListCleanup {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

std::size_t dropBody(char*, std::size_t size, std::size_t count, void*) {
  return size * count;
}

}  // namespace

SyncApplicationState askSyncApplication(const std::string& address) {
  SyncApplicationState state;
  const std::unique_ptr<CURL, EasyCleanup> handle{curl_easy_init()};
  const std::unique_ptr<curl_slist, ListCleanup> headers{curl_slist_append(nullptr, "Content-Type: application/json")};
  if (!handle || !headers) {
    state.problem = "out of memory";
    return state;
  }
  const std::string url = "http://" + address + COMMAND;
  curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, BODY);
  curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT_MS, LIMIT_MILLISECONDS);
  curl_easy_setopt(handle.get(), CURLOPT_PROXY, "");
  curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, dropBody);
  const CURLcode code = curl_easy_perform(handle.get());

  double seconds = 0;
  curl_easy_getinfo(handle.get(), CURLINFO_TOTAL_TIME, &seconds);
  state.milliseconds = seconds * 1000;
  curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &state.httpStatus);
  switch (code) {
    case CURLE_OK:
      state.outcome = SyncApplicationState::Outcome::answers;
      break;
    case CURLE_COULDNT_CONNECT:
      state.outcome = SyncApplicationState::Outcome::refused;
      break;
    case CURLE_OPERATION_TIMEDOUT:
      state.outcome = SyncApplicationState::Outcome::timedOut;
      break;
    default:
      state.problem = curl_easy_strerror(code);
      break;
  }
  if (state.outcome != SyncApplicationState::Outcome::answers) {
    state.httpStatus = 0;
  }
  return state;
}

}  // namespace vornet::vi
