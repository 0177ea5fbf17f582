/// The services that the gateway offers, and when it sends.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "ara/time/slave_time_base.h"
#include "tools/gnss-gateway/notification.h"
#include "tools/stop_signal.h"

namespace gateway {

struct Output_options {
  std::uint64_t max_notifications = 0;      ///< 0: no bound
  std::chrono::nanoseconds max_duration{};  ///< 0: no bound
  bool offer_time = false;
  std::uint64_t plt_offset_ns = 0;  ///< in the record of the platform time
};

/// Offers the services from its construction to its destruction. One thread at a time.
class Output {
 public:
  /// Throws std::runtime_error when the manifest does not deploy the services.
  Output(tools::Stop_signal& stop_signal, const Output_options& options);
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  /// Waits until `due` or until `input` is readable, and publishes the time meanwhile. Returns
  /// `stopped` also when a bound of the options is reached.
  [[nodiscard]] tools::Stop_signal::Wake wait_until(std::chrono::steady_clock::time_point due,
                                                    int input = -1);

  /// Whether a bound of the options is reached: publish() is no longer due.
  [[nodiscard]] bool is_done() const;

  /// Publishes the result of `make`, which receives the counter and the time stamp.
  void publish(const std::function<Notification(Context)>& make);

  /// Number of positions notifications.
  [[nodiscard]] std::uint64_t notifications() const { return notifications_; }

 private:
  struct Services;

  void publish_time();

  tools::Stop_signal& stop_signal_;
  const Output_options options_;
  const ara::time::SynchSlaveTimeBase time_base_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point next_time_record_ = start_;
  std::unique_ptr<Services> services_;
  std::uint64_t notifications_ = 0;
};

}  // namespace gateway
