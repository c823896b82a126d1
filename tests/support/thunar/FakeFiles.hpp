#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Thunarx.hpp"

namespace vornet::thunar {

/// Files as Thunar hands them to a plug-in.
class FakeFiles {
 public:
  /// Files with these URLs.
  explicit FakeFiles(const std::vector<std::string>& urls);
  ~FakeFiles();
  FakeFiles(const FakeFiles&) = delete;
  FakeFiles& operator=(const FakeFiles&) = delete;

  GList* list() const { return list_; }

 private:
  GList* list_ = nullptr;
};

}  // namespace vornet::thunar
