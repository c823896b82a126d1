#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "support/StartedProgram.hpp"

namespace vornet::test {

/// A private message bus, which starts the extension on demand: that of the build tree, unless told otherwise. What it
/// starts sees the environment that this process had when the bus was made.
class PrivateBus {
 public:
  /// `folder`: where its files go. `services`: the folder of the files that say what it starts.
  explicit PrivateBus(const std::filesystem::path& folder, const std::filesystem::path& services = buildTreeServices());
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  static std::filesystem::path buildTreeServices();

  const std::string& address() const { return address_; }

  /// The file with the standard output and standard error of the bus and the programs that it started.
  std::filesystem::path output() const { return folder_ / "bus.output"; }

  /// Ends the bus.
  void stop();

  /// From now on the bus takes connections and does nothing.
  void freeze() const;

 private:
  std::filesystem::path folder_;
  std::string address_;
  std::unique_ptr<StartedProgram> daemon_;
};

}  // namespace vornet::test
