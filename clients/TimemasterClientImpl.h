/// The application's consumer of the Time service.
#pragma once

#include <functional>

#include "clients/GeneralClientImpl.h"
#include "clients/Time.h"
#include "clients/data_faults.h"

namespace TimemasterClient {

/// Set the callback before init(). One thread calls init() and stop(), never the callback.
class TimemasterClientImpl {
 public:
  using Times = lumo::services::time::datatypes::DT_times_struct;

  TimemasterClientImpl();
  TimemasterClientImpl(const TimemasterClientImpl&) = delete;
  TimemasterClientImpl& operator=(const TimemasterClientImpl&) = delete;

  /// Called with each record of a `times` notification, one at a time, on a thread of the
  /// middleware.
  void set_times_callback(std::function<void(const Times&)> callback) {
    on_times_ = std::move(callback);
  }

  /// Called when the faults in the content of `times` change.
  void set_data_faults_callback(std::function<void(const clients::Data_faults&)> callback) {
    times_faults_.set_callback(std::move(callback));
  }
  /// Called when the service becomes available or unavailable.
  void set_availability_callback(std::function<void(bool available)> callback) {
    client_.set_availability_callback(std::move(callback));
  }

  /// Starts the search for the service and returns at once. Throws std::runtime_error if the
  /// service is not deployed.
  void init();
  /// Ends search and subscriptions and waits for a running callback; none runs afterwards.
  void stop() { client_.stop(); }

 private:
  void set_up(lumo::services::time::proxy::TimeProxy& proxy);

  const ara::log::Logger& logger_;
  std::function<void(const Times&)> on_times_;
  clients::Fault_watch times_faults_;
  /// Last member, so that it is destroyed first: its handlers use the members above.
  GeneralClientImpl<lumo::services::time::proxy::TimeProxy> client_;
};

}  // namespace TimemasterClient
