#include "phm/sleep.h"

#include <cerrno>
#include <ctime>

void sleepResumed(std::chrono::nanoseconds time) noexcept {
  if (time <= std::chrono::nanoseconds::zero()) return;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  timespec remaining{};
  remaining.tv_sec = seconds.count();
  remaining.tv_nsec = (time - seconds).count();
  while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}
