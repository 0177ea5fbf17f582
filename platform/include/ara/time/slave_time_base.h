/// Time bases that are synchronized with a master elsewhere in the vehicle.
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

  /// Time since the epoch of the time base (1970-01-01 for every one offered here). Does not block.
  /// Throws std::runtime_error if the clock is gone, such as an unplugged network card.
  [[nodiscard]] std::chrono::nanoseconds getCurrentTime() const;

 private:
  std::shared_ptr<const detail::Clock>
      clock_;  ///< shared by the copies: the last copy closes the device
};

class SlaveTimeBaseResourceProxy {
 public:
  /// The result of FindResource. Its only use is to construct a proxy.
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

  /// The one resource is "synchronized". In the application "pos" the environment variable
  /// POS_TIME_BASE names its clock: "CLOCK_REALTIME" (also if unset), "CLOCK_TAI", or the path of a
  /// PTP hardware clock, "/dev/ptp0". Throws std::runtime_error for another resource name and for
  /// another value of the variable.
  [[nodiscard]] static Resource FindResource(std::string_view name);

  /// Opens the clock and reads it once. Throws std::runtime_error with the clock's name and the
  /// reason if that fails.
  explicit SlaveTimeBaseResourceProxy(const Resource& resource);

  [[nodiscard]] SynchSlaveTimeBase asSynchSlave() const { return SynchSlaveTimeBase(clock_); }

 private:
  std::shared_ptr<const detail::Clock> clock_;
};

}  // namespace ara::time
