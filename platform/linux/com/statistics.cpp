#include "mw/com/statistics.h"

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

std::uint64_t milliseconds_since_boot() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  const auto time = std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
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

}  // namespace mw::com::runtime
