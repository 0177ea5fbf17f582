#include "tools/gnss-gateway/say.h"

#include <poll.h>
#include <unistd.h>

namespace gateway {

void say(const std::string& text) {
  const std::string line = "gnss-gateway: " + text + "\n";
  pollfd error{STDERR_FILENO, POLLOUT, 0};
  if (poll(&error, 1, 0) == 1 && (error.revents & POLLOUT) != 0) {
    [[maybe_unused]] const auto written = write(STDERR_FILENO, line.data(), line.size());
  }
}

}  // namespace gateway
