#include "Printer.hpp"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace vornet::vi {
namespace {

constexpr std::size_t MUCH = 64 * 1024;

}  // namespace

void Output::write(std::string_view text) {
  pending_.append(text);
  if (pending_.size() >= MUCH) flush();
}

void Output::flush() {
  const std::string text = std::exchange(pending_, {});
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t written = ::write(descriptor_, text.data() + done, text.size() - done);
    if (written >= 0) {
      done += static_cast<std::size_t>(written);
    } else if (errno == EAGAIN) {
      pollfd ready{descriptor_, POLLOUT, 0};
      poll(&ready, 1, -1);
    } else if (errno == EPIPE) {
      throw BrokenPipe{};
    } else if (errno != EINTR) {
      throw fileFailure("cannot write the output", errno);
    }
  }
}

std::string Printer::labelOf(const std::string& identifier) const {
  for (const Badge& badge : badges_)
    if (badge.identifier == identifier) return badge.label;
  return identifier;
}

}  // namespace vornet::vi
