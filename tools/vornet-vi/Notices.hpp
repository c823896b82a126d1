#pragma once

#include <string>

namespace vornet::vi {

/// The kind of the warning that the sync application does not answer, or answers again.
inline constexpr const char* SILENT = "sync-application-silent";
inline constexpr const char* ANSWERING = "sync-application-answers";

/// Messages on standard error, one line each: text for people, or a JSON object for programs.
class Notices {
 public:
  explicit Notices(bool json) : json_(json) {}

  /// `kind` is for programs (vornet-vi(1) lists them); `message` may hold raw file names.
  void error(const std::string& kind, const std::string& message) const { write("error", kind, message); }
  void warning(const std::string& kind, const std::string& message) const { write("warning", kind, message); }

 private:
  void write(const char* what, const std::string& kind, const std::string& message) const;

  bool json_;
};

}  // namespace vornet::vi
