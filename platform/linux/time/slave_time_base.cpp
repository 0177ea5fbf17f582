#include "ara/time/slave_time_base.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <stdexcept>
#include <system_error>

#include "platform/linux/core/application.h"

namespace ara::time {
namespace {

constexpr std::string_view resource_name = "synchronized";

std::string text_of(int error) {
  return std::generic_category().message(error);
}

}  // namespace

class detail::Clock {
 public:
  explicit Clock(const std::string& name) : name_(name) {
    if (name == "CLOCK_REALTIME") {
      id_ = CLOCK_REALTIME;
    } else if (name == "CLOCK_TAI") {
      id_ = CLOCK_TAI;
    } else {
      fd_ = ::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
      if (fd_ < 0)
        throw std::runtime_error("time base \"" + name + "\" cannot be opened: " + text_of(errno));
      // The kernel's rule for the clock id of an open clock device: the complement of the
      // descriptor, then 3.
      id_ = static_cast<clockid_t>((~static_cast<unsigned>(fd_) << 3U) | 3U);
    }
    timespec now{};
    if (::clock_gettime(id_, &now) != 0) {
      const int error = errno;
      if (fd_ >= 0) ::close(fd_);
      throw std::runtime_error("time base \"" + name +
                               "\" is not a readable clock: " + text_of(error));
    }
  }
  ~Clock() {
    if (fd_ >= 0) ::close(fd_);
  }
  Clock(const Clock&) = delete;
  Clock& operator=(const Clock&) = delete;

  [[nodiscard]] std::chrono::nanoseconds now() const {
    timespec now{};
    if (::clock_gettime(id_, &now) != 0) {
      throw std::runtime_error("time base \"" + name_ +
                               "\" cannot be read any more: " + text_of(errno));
    }
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
  }

 private:
  const std::string name_;
  int fd_ = -1;
  clockid_t id_ = CLOCK_REALTIME;
};

std::chrono::nanoseconds SynchSlaveTimeBase::getCurrentTime() const {
  return clock_->now();
}

SlaveTimeBaseResourceProxy::Resource SlaveTimeBaseResourceProxy::FindResource(
    std::string_view name) {
  if (name != resource_name) {
    throw std::runtime_error("time base resource \"" + std::string(name) +
                             "\" is unknown, there is \"" + std::string(resource_name) + "\"");
  }
  constexpr std::string_view variable = "TIME_BASE";
  std::string clock = core::variable(variable);
  if (clock.empty()) clock = "CLOCK_REALTIME";
  if (clock != "CLOCK_REALTIME" && clock != "CLOCK_TAI" && !clock.starts_with("/dev/")) {
    throw std::runtime_error(
        "environment variable " + core::variable_name(variable) +
        ": expected CLOCK_REALTIME, CLOCK_TAI or the path of a clock such as /dev/ptp0, found \"" +
        clock + "\"");
  }
  return {std::string(name), std::move(clock)};
}

SlaveTimeBaseResourceProxy::SlaveTimeBaseResourceProxy(const Resource& resource)
    : clock_(std::make_shared<const detail::Clock>(resource.clock_)) {}

}  // namespace ara::time
