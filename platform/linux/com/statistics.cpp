#include "mw/com/statistics.h"

#include <sys/timex.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "tq/com/runtime.h"

namespace mw::com::runtime {

namespace {

// Fields of /proc/self/stat, numbered as in proc(5).
constexpr int first_after_name = 3;
constexpr int threads_field = 20;
constexpr int start_time_field = 22;
constexpr int resident_pages_field = 24;

/// The fastest discipline in use slews the clock by 83 ms a second. A greater change between two
/// looks is a step.
constexpr std::chrono::milliseconds smallest_step{100};

std::chrono::nanoseconds now_of(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

std::uint64_t milliseconds_since_boot() {
  using std::chrono::milliseconds;
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<milliseconds>(now_of(CLOCK_BOOTTIME)).count());
}

}  // namespace

std::vector<Counter> counters() {
  std::vector<Counter> result;
  for (const auto& [name, value] : tq::com::Runtime::instance().counters()) {
    result.push_back({.name = std::string(name), .value = value});
  }
  return result;
}

Process_usage process_usage() {
  std::ifstream file("/proc/self/stat");
  std::string text;
  std::getline(file, text);
  // The name before the last parenthesis may hold anything.
  const auto name_end = text.rfind(')');
  if (name_end == std::string::npos) throw std::runtime_error("/proc/self/stat cannot be read");
  std::istringstream fields(text.substr(name_end + 1));

  Process_usage usage;
  std::string field;
  for (int number = first_after_name; number <= resident_pages_field && fields >> field; ++number) {
    if (number == threads_field) {
      usage.threads = static_cast<std::uint32_t>(std::stoul(field));
    } else if (number == start_time_field) {
      const auto ticks = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
      const auto now = milliseconds_since_boot();
      const auto start = std::stoull(field) * 1000 / ticks;
      usage.uptimeMs = now > start ? now - start : 0;
    } else if (number == resident_pages_field) {
      usage.residentBytes = std::stoull(field) * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    }
  }
  return usage;
}

void Clock_watch::look() {
  timex kernel{};
  const int state = ::adjtimex(&kernel);
  const auto before = now_of(CLOCK_BOOTTIME);
  const auto ahead = now_of(CLOCK_REALTIME) - before;
  // A thread that lost the processor between the readings has read no step.
  const bool precise = now_of(CLOCK_BOOTTIME) - before < smallest_step / 10;
  const bool known = ahead_of_boot_ != std::chrono::nanoseconds{};
  const bool stepped = precise && known && std::chrono::abs(ahead - ahead_of_boot_) > smallest_step;
  if (precise) ahead_of_boot_ = ahead;
  const std::lock_guard lock(mutex_);
  if (stepped) ++state_.steps;
  state_.synchronised = state >= 0 && state != TIME_ERROR && (kernel.status & STA_UNSYNC) == 0;
  state_.estimatedErrorUs = static_cast<std::uint64_t>(kernel.esterror);
  state_.maximumErrorUs = static_cast<std::uint64_t>(kernel.maxerror);
  state_.taiOffsetS = kernel.tai;
}

Clock_state Clock_watch::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

Peers peers() {
  return tq::com::Runtime::instance().peers();
}

}  // namespace mw::com::runtime
