#pragma once

#include <chrono>
#include <cstddef>
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
  /// There was no answer: refused, timed out, broken off, given up, too long, or another user's.
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

  /// The port, where the host is 127.0.0.1.
  std::optional<std::uint16_t> loopbackPort() const noexcept { return loopbackPort_; }

 private:
  explicit RequestURL(std::string text) : text_(std::move(text)) {}
  std::string text_;
  std::optional<std::uint16_t> loopbackPort_;
};

/// The transport to the sync application: one synchronous POST an exchange, each on a new connection. A request is
/// never sent twice. Without state, but for hurry(); any thread; blocks its caller for at most 3 seconds, whatever the
/// server does. Proxies in the environment are ignored, redirects are not followed. Logs nothing.
class RESTClient {
 public:
  using Headers = std::map<std::string, std::string>;

  /// The largest body of a reply, in bytes, unless a caller allows for more.
  static constexpr std::size_t REPLY_LIMIT = std::size_t{1} << 20;

  /// Enough for an application that answers, and to send what it need not answer.
  static constexpr std::chrono::milliseconds HURRIED_TIMEOUT{250};

  /// Posts to the sync application: base address + "/" + `path`, nothing escaped. See postAtURL.
  static std::optional<std::string> postAtPath(std::string_view path, const std::optional<std::string>& postData,
                                               const std::optional<Headers>& headers = std::nullopt,
                                               std::size_t replyLimit = REPLY_LIMIT);

  /// Posts `postData` (no body when absent) with the header "Content-Type: application/json" and each of `headers`
  /// added. Returns the reply's body on status 200, possibly empty; none when the reply is not an HTTP one. Throws
  /// HTTPError::Non200Error for any other status, once the whole reply is there (its body is discarded), and
  /// ResourceUnavailable for a transport failure, after 3 seconds in all, for a reply that ends within its headers, for
  /// one whose body is longer than `replyLimit` bytes, and, with nothing sent, when the host is 127.0.0.1 and another
  /// user's process listens there.
  static std::optional<std::string> postAtURL(const RequestURL& url, const std::optional<std::string>& postData,
                                              const std::optional<Headers>& headers = std::nullopt,
                                              std::size_t replyLimit = REPLY_LIMIT);

  /// For a process that is to end: from now on a request, those in flight included, is given up HURRIED_TIMEOUT from
  /// now, or from its beginning, unless its answer has come: it throws ResourceUnavailable. Does not wait. Cannot be
  /// taken back.
  static void hurry();
};

}  // namespace vornet
