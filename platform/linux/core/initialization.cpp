#include "ara/core/initialization.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

namespace ara::core {

void Initialize() noexcept {
  std::signal(SIGPIPE, SIG_IGN);
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) >= 0) continue;
    // open() takes the lowest free number, which is this one. Without /dev, a descriptor whose
    // reads and writes all fail keeps the number.
    if (::open("/dev/null", O_RDWR) < 0) (void)::open("/", O_PATH);
  }
}

}  // namespace ara::core
