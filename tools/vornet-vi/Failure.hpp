#pragma once

#include <gio/gio.h>

#include <stdexcept>
#include <string>

namespace vornet::vi {

/// What went wrong, as far as a caller treats it differently.
enum class FailureKind {
  noBus,         ///< there is no session bus, or it went away
  notInstalled,  ///< nobody owns the extension's bus name and the bus cannot start it
  notStarted,    ///< the bus could not start the extension
  gone,          ///< the extension left the bus before it answered
  timedOut,      ///< no answer in time
  interrupted,   ///< Client::interrupt was called
  outside,       ///< the folder lies outside the observed ones
  busy,          ///< the extension, or the bus, has too much to do; later it may not
  noRoom,        ///< the extension observes as many folders as it takes; the badges can be asked for all the same
  refused,       ///< the extension refused the call for another reason, or answered wrongly
  local,         ///< the disk, the output, the arguments
};

/// A command's failure. what() is one line for the user, in which file names stand raw: escape it before showing it.
class Failure : public std::runtime_error {
 public:
  Failure(FailureKind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}
  FailureKind kind() const { return kind_; }

 private:
  FailureKind kind_;
};

/// The failure that a D-Bus call's `error` means. `subject`: what the call was about (a path, an action), or empty.
/// `timeoutSeconds`: the limit that a time-out ran into.
Failure failureOf(const GError& error, const std::string& subject, double timeoutSeconds);

/// The failure of a file operation on `path`; `number`: its errno.
Failure fileFailure(const std::string& path, int number);

/// "the extension did not answer within 2.5 s".
Failure timeoutFailure(double seconds);

}  // namespace vornet::vi
