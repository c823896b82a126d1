#include "Failure.hpp"

#include <array>
#include <cerrno>
#include <cstdio>
#include <string_view>

#include "GLibPtr.hpp"

namespace vornet::vi {
namespace {

constexpr std::string_view ERROR_PREFIX = "com.vornet.FinderSync1.Error.";

std::string about(const std::string& subject, const std::string& text) {
  return subject.empty() ? text : subject + ": " + text;
}

/// A refusal in the extension's own vocabulary. `name`: what follows the prefix.
Failure refusalOf(std::string_view name, const std::string& subject, const std::string& detail) {
  if (name == "OutsideObservedFolders") {
    return {FailureKind::outside, about(subject, "outside the folder that the sync application keeps in step")};
  }
  if (name == "NotAFolder") {
    return {FailureKind::refused, about(subject, "not a folder")};
  }
  if (name == "InvalidURL") {
    return {FailureKind::refused, about(subject, "the extension refuses the path as invalid")};
  }
  if (name == "TooManyURLs") {
    return {FailureKind::refused, "too many paths at once (the extension takes 10,000)"};
  }
  if (name == "NotObserving") {
    return {FailureKind::refused, about(subject, "the extension does not observe this folder for us")};
  }
  if (name == "UnknownAction") {
    return {FailureKind::refused, about(subject, "the extension knows no such action")};
  }
  if (name == "TooManyFolders") {
    return {FailureKind::noRoom, about(subject, "the extension observes as many folders as it takes")};
  }
  if (name == "Busy") {
    return {FailureKind::busy, "the extension is too busy; try again later"};
  }
  return {FailureKind::refused, about(subject, "the extension refused: " + detail)};
}

}  // namespace

Failure timeoutFailure(double seconds) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "the extension did not answer within %g s", seconds);
  return {FailureKind::timedOut, text.data()};
}

Failure failureOf(const GError& error, const std::string& subject, double timeoutSeconds) {
  const GErrorPtr stripped{g_error_copy(&error)};
  g_dbus_error_strip_remote_error(stripped.get());
  const std::string detail = stripped->message;

  if (const GCharPtr remote{g_dbus_error_get_remote_error(&error)}) {
    const std::string_view name = remote.get();
    if (name.substr(0, ERROR_PREFIX.size()) == ERROR_PREFIX) {
      return refusalOf(name.substr(ERROR_PREFIX.size()), subject, detail);
    }
    if (name.find(".Spawn.") != std::string_view::npos) {
      return {FailureKind::notStarted, "the extension could not be started: " + detail};
    }
  }
  if (g_error_matches(&error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
      g_error_matches(&error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER)) {
    return {FailureKind::notInstalled, "the extension is not installed (the session bus knows no such service)"};
  }
  if (g_error_matches(&error, G_DBUS_ERROR, G_DBUS_ERROR_NO_REPLY)) {
    return {FailureKind::gone, "the extension ended before it answered"};
  }
  if (g_error_matches(&error, G_DBUS_ERROR, G_DBUS_ERROR_TIMED_OUT) ||
      g_error_matches(&error, G_DBUS_ERROR, G_DBUS_ERROR_TIMEOUT) ||
      g_error_matches(&error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT)) {
    return timeoutFailure(timeoutSeconds);
  }
  if (g_error_matches(&error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    return {FailureKind::interrupted, "interrupted"};
  }
  if (g_error_matches(&error, G_IO_ERROR, G_IO_ERROR_CLOSED) ||
      g_error_matches(&error, G_DBUS_ERROR, G_DBUS_ERROR_DISCONNECTED)) {
    return {FailureKind::noBus, "the session bus went away"};
  }
  if (g_error_matches(&error, G_DBUS_ERROR, G_DBUS_ERROR_LIMITS_EXCEEDED)) {
    return {FailureKind::busy, "the session bus does not take so many calls at once; try again later"};
  }
  if (g_error_matches(&error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED)) {
    return {FailureKind::refused, "the session bus does not allow it: " + detail};
  }
  return {FailureKind::refused, about(subject, "the extension failed: " + detail)};
}

Failure fileFailure(const std::string& path, int number) {
  switch (number) {
    case ENOENT:
      return {FailureKind::local, about(path, "no such file or folder")};
    case ENOTDIR:
      return {FailureKind::local, about(path, "not a folder")};
    default:
      return {FailureKind::local, about(path, g_strerror(number))};
  }
}

}  // namespace vornet::vi
