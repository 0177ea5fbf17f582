/// The application's consumer of the GNSS service.
#pragma once

#include <functional>
#include <vector>

#include "binding/position_ages.h"
#include "clients/GNSS.h"
#include "clients/GeneralClientImpl.h"
#include "clients/data_faults.h"
#include "clients/position_selection.h"
#include "clients/timeutils.h"

namespace gnssClient {

/// Finds the GNSS service and passes at most one position per notification to the application. Set
/// all callbacks and options before init(). One thread calls init() and stop(), never a callback.
/// The callbacks run on threads of the middleware: those of one field one at a time, those of
/// different fields possibly at once.
///
/// Context "GNSS" has the lines of the client itself. Received records and replaced timestamps are
/// logged in the application's default context, like "Sending …". So the path of a position reads
/// as one text, and its level is set in one place.
class gnssClientImpl {
 public:
  using Position = lumo::services::gnss::datatypes::DT_positions_struct;
  using Quality = lumo::services::gnss::datatypes::DT_positionsQuality_struct;
  using Satellite = lumo::services::gnss::datatypes::DT_posGnssSatInfos_struct;

  explicit gnssClientImpl(const timeutils& time = timeutils::instance());
  gnssClientImpl(const gnssClientImpl&) = delete;
  gnssClientImpl& operator=(const gnssClientImpl&) = delete;

  /// True logs each received position and quality record. Off until set.
  void set_received_gnss_data_logging(bool on) { log_received_ = on; }
  /// True replaces the timestamp of a forwarded position with the time at which its handler began.
  /// Off until set.
  void set_ignore_gnss_timestamps(bool on) { replace_timestamps_ = on; }
  /// True forwards GNSS-DR positions instead of GNSS ones. Off until set.
  void set_use_gnss_dr(bool on) { wanted_ = on ? Position_type::gnss_dr : Position_type::gnss; }

  /// Receives the arrival of each notification of positions. None until set.
  void set_position_ages(binding::Position_ages& ages) { ages_ = &ages; }

  /// Called with at most one position per notification: the last one of the wanted type, completed
  /// from the last one of the other type. A notification without positions changes nothing.
  void set_position_callback(std::function<void(const Position&)> callback) {
    on_position_ = std::move(callback);
  }
  /// Called with each record of a notification.
  void set_positions_quality_callback(std::function<void(const Quality&)> callback) {
    on_quality_ = std::move(callback);
  }
  /// Called with a whole notification.
  void set_sat_infos_callback(std::function<void(const std::vector<Satellite>&)> callback) {
    on_satellites_ = std::move(callback);
  }

  enum class Field { positions, positionsQuality, posGnssSatInfos };
  /// Called when the faults of a field's content change, before the other callbacks see the
  /// content.
  void set_data_faults_callback(
      const std::function<void(Field, const clients::Data_faults&)>& callback);
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
  using Position_type = lumo::services::Position_type;

  void set_up(lumo::services::gnss::proxy::GNSSProxy& proxy);
  void receive(const std::vector<Position>& samples);
  void receive(const std::vector<Quality>& records);
  void receive(const std::vector<Satellite>& satellites);
  void replace_timestamp(Position& position, std::uint64_t now_us) const;

  const timeutils& time_;
  const ara::log::Logger& logger_;
  bool log_received_ = false;
  bool replace_timestamps_ = false;
  Position_type wanted_ = Position_type::gnss;
  binding::Position_ages* ages_ = nullptr;
  std::function<void(const Position&)> on_position_;
  std::function<void(const Quality&)> on_quality_;
  std::function<void(const std::vector<Satellite>&)> on_satellites_;
  clients::Fault_watch positions_faults_;
  clients::Fault_watch quality_faults_;
  clients::Fault_watch satellites_faults_;
  /// Last member, so that it is destroyed first: its handlers use all members above.
  GeneralClientImpl<lumo::services::gnss::proxy::GNSSProxy> client_;
};

}  // namespace gnssClient
