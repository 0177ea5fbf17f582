/// The diagnosis service: keeps the status of every input, output and system function and sets it
/// to Error if data is missing. The data identifiers and the monitors provide it.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "ara/log/logger.h"
#include "binding/application_state.h"
#include "diagnosisService/DiagnosticMonitorServiceSkelImpl.h"
#include "diagnosisService/data_bus_faults.h"
#include "diagnosisService/data_identifiers.h"
#include "diagnosisService/evaluation_timer.h"
#include "diagnosisService/map_matched_record.h"
#include "diagnosisService/monitor_table.h"
#include "diagnosisService/status_book.h"

namespace diagnosisService {

/// Evaluates the statuses and serves testers and the event manager. Any thread may call every
/// function, but only one thread calls init() and start_monitors().
class diagnosisServiceImpl {
 public:
  using Clock = Status_book::Clock;
  using Sensor_setup = Status_book::Sensor_setup;

  static constexpr std::uint64_t longest_timeout_ms = 24ULL * 60 * 60 * 1000;

  diagnosisServiceImpl();
  /// Waits for running calls of the data identifiers and monitors.
  ~diagnosisServiceImpl();
  diagnosisServiceImpl(const diagnosisServiceImpl&) = delete;
  diagnosisServiceImpl& operator=(const diagnosisServiceImpl&) = delete;

  /// Sets the initial statuses, starts the evaluation (ten times per time-out: every 500 ms for
  /// 5000) and offers the data identifiers. `timeout_ms`, 1 to longest_timeout_ms, is the
  /// longest time without data before a status turns to Error. Throws std::invalid_argument for
  /// another time-out and std::runtime_error if the manifest lacks an instance. A second call
  /// resets every status, record and last-data time and evaluates with the new time-out.
  void init(std::uint64_t timeout_ms);
  /// Offers one DiagnosticMonitor per monitor, under the instance specifier "DiagnosticMonitor_"
  /// and its name. Earlier results are dropped. Throws std::runtime_error if the manifest lacks an
  /// instance and std::logic_error for a second call.
  void start_monitors();
  /// Ends the evaluation and the offers, for good. Waits for a running evaluation.
  void stop();

  /// Takes effect at the next evaluation. Unknown identifiers are ignored. Never blocks.
  void data_received(std::uint32_t identifier, Clock::time_point at = Clock::now()) noexcept;
  /// Throws std::out_of_range for a byte above 13.
  void set_system_status(std::size_t byte, std::uint8_t status);
  /// `setup` is in the order of the input status bytes. A sensor that is off is NotAvailable from
  /// now on.
  void new_sensor_setup(const Sensor_setup& setup);
  /// Replaces the record of d_14a2.
  void refresh_map_matched_position(const Map_matched_position& position);
  [[nodiscard]] Map_matched_record map_matched_position() const;
  /// Enters into the record of d_1190, d_1191 or d_1192 that a fault appeared or disappeared. Only
  /// a change counts; repeating the present state is cheap.
  void set_data_bus_fault(Data_bus_fault fault, Data_bus_element element, bool present);
  /// Makes this a required service. Until set_data_bus_fault() reports it as available, the first
  /// evaluation later than `since` plus the time-out enters it as not available.
  void require_service(Data_bus_element service, Clock::time_point since = Clock::now());
  /// The number of times that faults of this kind appeared since init, over all elements.
  [[nodiscard]] std::uint32_t data_bus_fault_count(Data_bus_fault fault) const;

  /// An input, map-matched or dead-reckoning monitor in Error becomes Nominal as if data had been
  /// received at `at`.
  void clear(std::uint32_t identifier, Clock::time_point at = Clock::now());
  /// The monitor's status byte, 0 for an identifier without one.
  [[nodiscard]] std::uint8_t status(std::uint32_t identifier) const;
  /// One evaluation cycle. Logs each change and sends the monitor's new result.
  void evaluate(Clock::time_point now);

  /// Sends the monitor's result, kFailed in Error and kPassed otherwise. Returns after it was sent.
  /// A result that changed meanwhile follows, so a monitor's last event is its last result.
  void send_result(std::uint32_t identifier);
  /// Sends one event. Drops it, with a log line, while the monitors are not offered.
  void sendEvent(std::uint32_t identifier, mw::dm::dem::MonitorActionType action);

  /// Every status and fault with the time since its last change.
  [[nodiscard]] binding::Diagnosis_state state(Clock::time_point now = Clock::now()) const;

  [[nodiscard]] const ara::log::Logger& logger() const { return logger_; }

 private:
  struct Data_identifiers;
  class Sending;

  /// The output for Read of its data identifier.
  template <class Output>
  [[nodiscard]] Output read() const;
  [[nodiscard]] bool is_stopped();
  void withdraw();

  const ara::log::Logger& logger_;

  mutable std::mutex mutex_;  ///< guards the members down to the blank line; not data_received()
  Status_book book_;
  Map_matched_record map_matched_;
  Data_bus_faults faults_;

  std::mutex offer_mutex_;  ///< guards the members down to the blank line
  std::condition_variable sent_;
  bool stopped_ = false;
  bool monitors_offered_ = false;
  std::size_t sending_ = 0;  ///< calls of send_result and sendEvent
  /// Filled once, under offer_mutex_, and emptied in the destructor; in between the objects behind
  /// them are safe to use.
  std::unique_ptr<Data_identifiers> identifiers_;
  std::vector<std::unique_ptr<DiagnosticMonitorServiceSkelImpl>> monitors_;

  Evaluation_timer timer_;
};

}  // namespace diagnosisService
