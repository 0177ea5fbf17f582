/// The application's consumer of the Time service.
#pragma once

#include <functional>

#include "clients/GeneralClientImpl.h"
#include "clients/Time.h"
#include "clients/data_faults.h"

namespace TimemasterClient {

/// Set the callback before init(); init() and stop() come from one thread, not from the callback.
class TimemasterClientImpl {
 public:
  using Times = lumo::services::time::datatypes::DT_times_struct;

  TimemasterClientImpl();
  TimemasterClientImpl(const TimemasterClientImpl&) = delete;
  TimemasterClientImpl& operator=(const TimemasterClientImpl&) = delete;

  /// Gets each record of a `times` notification, one at a time, on a thread of the middleware.
  void setTimesCallback(std::function<void(const Times&)> callback) {
    on_times_ = std::move(callback);
  }

  /// Told when the faults of the content of `times` change.
  void setDataFaultsCallback(std::function<void(const clients::Data_faults&)> callback) {
    times_faults_.set_callback(std::move(callback));
  }
  /// Told when the service goes and comes.
  void setAvailabilityCallback(std::function<void(bool available)> callback) {
    client_.setAvailabilityCallback(std::move(callback));
  }

  /// Starts the search for the service and returns at once. Throws std::runtime_error when the
  /// service is not deployed.
  void init();
  /// Ends search and subscriptions and waits for a callback that runs; none runs afterwards.
  void stop() { client_.stop(); }

 private:
  void set_up(lumo::services::time::proxy::TimeProxy& proxy);

  const ara::log::Logger& logger_;
  std::function<void(const Times&)> on_times_;
  clients::Fault_watch times_faults_;
  /// Last, so that it ends first: its handlers use the above.
  GeneralClientImpl<lumo::services::time::proxy::TimeProxy> client_;
};

}  // namespace TimemasterClient
