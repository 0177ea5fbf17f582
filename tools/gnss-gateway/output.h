/// The services that the gateway offers, and when it sends.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ara/time/slave_time_base.h"
#include "tools/gnss-gateway/fault_plan.h"
#include "tools/gnss-gateway/notification.h"
#include "tools/stop_signal.h"

namespace gateway {

struct Output_options {
  std::uint64_t max_notifications = 0;      ///< 0: no bound
  std::chrono::nanoseconds max_duration{};  ///< 0: no bound
  bool offer_time = false;
  std::uint64_t plt_offset_ns = 0;    ///< in the record of the platform time
  std::string node = "gnss-gateway";  ///< of the manifest
  std::vector<Fault_request> faults;
  bool offer_fault_control = false;
};

/// Offers the services from its construction to its destruction, and makes the faults. One thread
/// at a time.
class Output {
 public:
  /// Throws std::runtime_error when the manifest does not deploy the services.
  Output(tools::Stop_signal& stop_signal, const Output_options& options);
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  /// Waits until `due` or until `input` is readable. Meanwhile it publishes the time and the
  /// notifications that a fault has held. Returns `stopped` also when a bound of the options is
  /// reached.
  [[nodiscard]] tools::Stop_signal::Wake wait_until(std::chrono::steady_clock::time_point due,
                                                    int input = -1);

  /// Whether a bound of the options is reached: publish() is no longer due.
  [[nodiscard]] bool is_done() const;

  /// Publishes the result of `make`, which receives the counter and the time stamp, as far as the
  /// faults let it pass.
  void publish(const std::function<Notification(Context)>& make);

  /// Waits until no fault holds a notification, or until it is stopped.
  void drain();

  /// Number of positions notifications that were sent.
  [[nodiscard]] std::uint64_t notifications() const { return notifications_; }

 private:
  struct Services;
  class Wake_up;

  [[nodiscard]] Fault_time now() const { return std::chrono::steady_clock::now() - start_; }
  void publish_time();
  void advance_faults();
  void follow(const Service_fault& fault);
  void send(const Message& message);

  tools::Stop_signal& stop_signal_;
  const Output_options options_;
  const ara::time::SynchSlaveTimeBase time_base_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point next_time_record_ = start_;
  Fault_plan faults_;
  const std::unique_ptr<Wake_up> wake_up_;  ///< ends a wait when the control changed the faults
  std::unique_ptr<Services> services_;
  std::uint32_t counter_ = 0;  ///< of the messages
  std::uint64_t notifications_ = 0;
};

}  // namespace gateway
