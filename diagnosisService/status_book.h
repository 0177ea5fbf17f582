/// The status bytes of inputs, outputs and system functions, and the rules for their changes.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "diagnosisService/monitor_table.h"

namespace diagnosisService {

/// Holds every status byte and turns it to Error when data is missing. Not thread-safe, except
/// data_received().
class Status_book {
 public:
  using Clock = std::chrono::steady_clock;
  /// In the order of the input status bytes; true: the sensor exists.
  using Sensor_setup = std::array<bool, input_count>;

  struct Change {
    const Monitor* monitor;
    std::uint8_t before;
    std::uint8_t after;
  };

  Status_book();

  /// Returns to the initial statuses, without received data. `timeout` is the longest time without
  /// data before a status turns to Error.
  void reset(std::chrono::microseconds timeout, Clock::time_point now = Clock::now());

  /// Takes effect at the next evaluation. Unknown identifiers are ignored, and before the first
  /// reset() all identifiers. Never blocks.
  void data_received(std::uint32_t identifier, Clock::time_point at) noexcept;
  /// Throws std::out_of_range for a byte above 13.
  void set_system_status(std::size_t byte,
                         std::uint8_t status,
                         Clock::time_point now = Clock::now());
  /// Sets the setup for the next evaluation.
  void set_sensor_setup(const Sensor_setup& setup) { sensors_ = setup; }
  /// Adapts the input statuses to the setup: NotAvailable without the sensor; with it, Init unless
  /// Nominal.
  void apply_sensor_setup(Clock::time_point now = Clock::now());
  /// An input, map-matched or dead-reckoning monitor in Error becomes Nominal as if data had been
  /// received at `at`.
  void clear(std::uint32_t identifier, Clock::time_point at);
  /// One evaluation cycle. Returns its changes, in the order of evaluation.
  [[nodiscard]] std::vector<Change> evaluate(Clock::time_point now);

  /// The monitor's status byte, 0 for an identifier without one.
  [[nodiscard]] std::uint8_t status(std::uint32_t identifier) const;
  [[nodiscard]] const std::array<std::uint8_t, input_count>& inputs() const { return bytes_.input; }
  [[nodiscard]] const std::array<std::uint8_t, output_count>& outputs() const {
    return bytes_.output;
  }
  [[nodiscard]] const std::array<std::uint8_t, system_count>& system() const {
    return bytes_.system;
  }
  /// The time of the last change of a status byte.
  [[nodiscard]] Clock::time_point since(Status_group group, std::size_t byte) const {
    return since_[place(group, byte)];
  }

 private:
  struct Bytes {
    std::array<std::uint8_t, input_count> input{
        Status::init, Status::init, Status::init, Status::init, Status::init, Status::init,
        Status::init, Status::init, Status::init, Status::init, Status::init};
    std::array<std::uint8_t, output_count> output{Status::init, Status::init, Status::nominal};
    std::array<std::uint8_t, system_count> system{
        Status::nominal, Status::init,    Status::nominal, Status::init,    Status::nominal,
        Status::nominal, Status::nominal, Status::nominal, Status::nominal, Status::nominal,
        Status::nominal, Status::nominal, Status::init,    Status::init};
  };
  /// Times of the last data are kept as counts of Clock.
  static constexpr Clock::rep not_in_table = -1;
  static constexpr Clock::rep no_data = 0;

  /// Index in since_; the group is not none.
  [[nodiscard]] static std::size_t place(Status_group group, std::size_t byte);
  [[nodiscard]] std::uint8_t& byte_of(Status_group group, std::size_t byte);
  /// Returns the status before.
  std::uint8_t become(Status_group group,
                      std::size_t byte,
                      std::uint8_t status,
                      Clock::time_point at);
  void forget_data(Clock::rep as);
  [[nodiscard]] std::uint8_t evaluated(std::size_t monitor,
                                       std::uint8_t status,
                                       Clock::time_point now) const;

  /// One per entry of monitor_table. Relaxed: each value is independent, and one evaluation earlier
  /// or later makes no difference.
  std::array<std::atomic<Clock::rep>, monitor_table.size()> last_data_;
  Bytes bytes_;
  std::array<Clock::time_point, input_count + output_count + system_count> since_{};
  Sensor_setup sensors_{};
  std::chrono::microseconds timeout_{};
};

}  // namespace diagnosisService
