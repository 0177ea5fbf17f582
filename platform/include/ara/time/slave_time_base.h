/// Time bases that are kept in step with a master elsewhere in the vehicle.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace ara::time {

namespace detail {
class Clock;
}

/// A readable time base. Copies share the clock behind it; any thread may read.
class SynchSlaveTimeBase {
 public:
  explicit SynchSlaveTimeBase(std::shared_ptr<const detail::Clock> clock)
      : clock_(std::move(clock)) {}

  /// Time since the epoch of the time base (1970-01-01 for all that are offered). Does not block.
  /// Throws std::runtime_error when the clock has gone, such as a network card that was unplugged.
  [[nodiscard]] std::chrono::nanoseconds getCurrentTime() const;

 private:
  std::shared_ptr<const detail::Clock>
      clock_;  ///< shared by the copies: the last one closes the device
};

class SlaveTimeBaseResourceProxy {
 public:
  /// What FindResource found; only good for constructing a proxy.
  class Resource {
   public:
    [[nodiscard]] const std::string& name() const { return name_; }

   private:
    friend class SlaveTimeBaseResourceProxy;
    Resource(std::string name, std::string clock)
        : name_(std::move(name)), clock_(std::move(clock)) {}
    std::string name_;
    std::string clock_;
  };

  /// The one resource is "synchronized". Its clock is named by the environment variable
  /// POS_TIME_BASE: "CLOCK_REALTIME" (also when unset), "CLOCK_TAI", or the path of a PTP hardware
  /// clock, "/dev/ptp0". Throws std::runtime_error for another resource name and for another value
  /// of the variable.
  [[nodiscard]] static Resource FindResource(std::string_view name);

  /// Opens the clock and reads it once. Throws std::runtime_error with the clock's name and the
  /// reason when that fails.
  explicit SlaveTimeBaseResourceProxy(const Resource& resource);

  [[nodiscard]] SynchSlaveTimeBase asSynchSlave() const { return SynchSlaveTimeBase(clock_); }

 private:
  std::shared_ptr<const detail::Clock> clock_;
};

}  // namespace ara::time
