#include "tools/stop_signal.h"

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

namespace tools {
namespace {

/// At most an hour: a far end (time_point::max()) would overflow on its way to a timespec.
std::chrono::nanoseconds time_left(std::chrono::steady_clock::time_point due) {
  using namespace std::chrono;
  const auto now = steady_clock::now();
  if (due <= now) return 0s;
  return due > now + hours(1) ? nanoseconds(hours(1)) : nanoseconds(due - now);
}

}  // namespace

Stop_signal::Stop_signal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  const int error = pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  if (error != 0)
    throw std::system_error(error, std::generic_category(), "cannot block the stop signals");
  descriptor_ = signalfd(-1, &signals, SFD_CLOEXEC);
  if (descriptor_ < 0)
    throw std::system_error(errno, std::generic_category(),
                            "cannot create a descriptor for the stop signals");
}

Stop_signal::~Stop_signal() {
  close(descriptor_);
}

Stop_signal::Wake Stop_signal::wait_until(std::chrono::steady_clock::time_point due,
                                          int input,
                                          int alarm) {
  using namespace std::chrono;
  std::array<pollfd, 3> descriptors{
      {{descriptor_, POLLIN, 0}, {input, POLLIN, 0}, {alarm, POLLIN, 0}}};
  while (!stopped_) {
    const auto left = time_left(due);
    const auto whole = floor<seconds>(left);
    const timespec timeout{.tv_sec = whole.count(), .tv_nsec = (left - whole).count()};
    const int ready = ppoll(descriptors.data(), descriptors.size(), &timeout, nullptr);
    if (ready < 0 && errno != EINTR)
      throw std::system_error(errno, std::generic_category(),
                              "cannot wait for input and stop signals");
    if (ready > 0 && descriptors[0].revents != 0) stopped_ = true;
    if (ready > 0 && !stopped_) return descriptors[1].revents != 0 ? Wake::readable : Wake::due;
    if (ready == 0 && steady_clock::now() >= due) return Wake::due;
  }
  return Wake::stopped;
}

}  // namespace tools
