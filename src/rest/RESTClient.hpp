#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace vornet {

/// Statuses that callers compare with.
struct HTTPStatusCodeType {
  std::int64_t OK = 200;
  std::int64_t NOT_FOUND = 404;
};
inline constexpr HTTPStatusCodeType HTTPStatusCode;

/// Why a request brought no reply. Thrown by RESTClient.
class HTTPError {
 public:
  /// The server answered with a status other than 200.
  static HTTPError Non200Error(std::int64_t code) { return HTTPError(code); }
  /// No answer could be had: refused, timed out, or broken off.
  static HTTPError ResourceUnavailable() { return HTTPError(std::nullopt); }

  /// The status of a Non200Error; none for ResourceUnavailable.
  std::optional<std::int64_t> code() const noexcept { return code_; }

  /// "Non200Error(500)" or "ResourceUnavailable".
  std::string description() const;

  friend bool operator==(const HTTPError&, const HTTPError&) = default;

 private:
  explicit HTTPError(std::optional<std::int64_t> code) : code_(code) {}
  std::optional<std::int64_t> code_;
};

/// The printed form of the exception being handled: an HTTPError's description, or the kind and text of another. Only
/// within a catch clause.
std::string describeCurrentError();

/// A parsed URL.
class RequestURL {
 public:
  /// None when `text` is not an absolute URL.
  static std::optional<RequestURL> parse(const std::string& text);
  const std::string& text() const noexcept { return text_; }

 private:
  explicit RequestURL(std::string text) : text_(std::move(text)) {}
  std::string text_;
};

/// The transport to the sync application: one synchronous POST an exchange. Without state; any thread; blocks its
/// caller for at most 3 seconds. Proxies in the environment are ignored, redirects are not followed. Logs nothing.
class RESTClient {
 public:
  using Headers = std::map<std::string, std::string>;

  /// Posts to the sync application: base address + "/" + `path`, nothing escaped. See postAtURL.
  static std::optional<std::string> postAtPath(std::string_view path, const std::optional<std::string>& postData,
                                               const std::optional<Headers>& headers = std::nullopt);

  /// Posts `postData` (no body when absent) with the header "Content-Type: application/json" and each of `headers`
  /// added. Returns the reply's body on status 200, possibly empty; none when the reply is not an HTTP one. Throws
  /// HTTPError for any other status (its body is discarded), for a transport failure and after 3 seconds in all.
  static std::optional<std::string> postAtURL(const RequestURL& url, const std::optional<std::string>& postData,
                                              const std::optional<Headers>& headers = std::nullopt);
};

}  // namespace vornet
