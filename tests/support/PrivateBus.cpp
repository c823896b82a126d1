#include "support/PrivateBus.hpp"

#include <csignal>
#include <stdexcept>

#include "support/Threads.hpp"

namespace vornet::test {

std::filesystem::path PrivateBus::buildTreeServices() {
  return VORNET_TEST_SERVICES;
}

PrivateBus::PrivateBus(const std::filesystem::path& folder, const std::filesystem::path& services) : folder_(folder) {
  std::filesystem::create_directories(folder_);
  const auto configuration = folder_ / "bus.conf";
  writeFile(configuration, R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <auth>EXTERNAL</auth>
  <listen>unix:path=)" + (folder_ / "bus.socket").string() +
                               R"(</listen>
  <servicedir>)" + services.string() +
                               R"(</servicedir>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
  <!-- as the configuration of a user's session has them -->
  <limit name="max_message_size">1000000000</limit>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_match_rules_per_connection">50000</limit>
  <limit name="max_replies_per_connection">50000</limit>
</busconfig>
)");
  address_ = "unix:path=" + (folder_ / "bus.socket").string();
  daemon_ = std::make_unique<StartedProgram>(
      std::vector<std::string>{"dbus-daemon", "--nofork", "--nopidfile", "--print-address",
                               "--config-file=" + configuration.string()},
      std::vector<std::string>{"DBUS_SESSION_BUS_ADDRESS=" + address_}, output());
  const auto listens = [this] { return daemon_->output().find(address_) != std::string::npos; };
  if (!becomesTrue(listens)) throw std::runtime_error("no message bus: " + daemon_->output());
}

PrivateBus::~PrivateBus() {
  stop();
}

void PrivateBus::stop() {
  if (!daemon_) return;
  daemon_->signal(SIGTERM);
  daemon_->signal(SIGCONT);  // when it is frozen
  daemon_->wait();
  daemon_.reset();
}

void PrivateBus::freeze() const {
  daemon_->signal(SIGSTOP);
}

}  // namespace vornet::test
