/// The application's consumer of the GNSS service.
#pragma once

#include <functional>
#include <vector>

#include "clients/GNSS.h"
#include "clients/GeneralClientImpl.h"
#include "clients/data_faults.h"
#include "clients/position_selection.h"
#include "clients/timeutils.h"

namespace gnssClient {

/// Set everything before init(); init() and stop() come from one thread, not from a callback. The
/// callbacks run on threads of the middleware: those of one field one at a time, those of different
/// fields possibly at once.
///
/// Context "GNSS" has the lines of the client itself. Received records and replaced timestamps go
/// to the application's default context, where "Sending …" is written too: the road of a position
/// reads as one text, and its level is set in one place.
class gnssClientImpl {
 public:
  using Position = lumo::services::gnss::datatypes::DT_positions_struct;
  using Quality = lumo::services::gnss::datatypes::DT_positionsQuality_struct;
  using Satellite = lumo::services::gnss::datatypes::DT_posGnssSatInfos_struct;

  explicit gnssClientImpl(const timeutils& time = timeutils::instance());
  gnssClientImpl(const gnssClientImpl&) = delete;
  gnssClientImpl& operator=(const gnssClientImpl&) = delete;

  /// Whether each received position and quality record is logged; off until set.
  void setRecievedGNSSDataLogging(bool on) { log_received_ = on; }
  /// Whether a forwarded position gets the time of its arrival as timestamp; off until set.
  void setIgnoreGNSSTimestamps(bool on) { replace_timestamps_ = on; }
  /// Whether GNSS-DR positions are forwarded instead of GNSS ones; off until set.
  void setUseGNSSDR(bool on) { wanted_ = on ? Position_type::gnss_dr : Position_type::gnss; }

  /// Gets at most one position per notification: the last one of the wanted type, completed from
  /// the last one of the other type. A notification without positions changes nothing.
  void setPositionCallback(std::function<void(const Position&)> callback) {
    on_position_ = std::move(callback);
  }
  /// Gets each record of a notification.
  void setPositionsQualityCallback(std::function<void(const Quality&)> callback) {
    on_quality_ = std::move(callback);
  }
  /// Gets a notification as a whole.
  void setSatInfosCallback(std::function<void(const std::vector<Satellite>&)> callback) {
    on_satellites_ = std::move(callback);
  }

  enum class Field { positions, positionsQuality, posGnssSatInfos };
  /// Told when the faults of a field's content change, before the other callbacks see the content.
  void setDataFaultsCallback(
      const std::function<void(Field, const clients::Data_faults&)>& callback);
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
  std::function<void(const Position&)> on_position_;
  std::function<void(const Quality&)> on_quality_;
  std::function<void(const std::vector<Satellite>&)> on_satellites_;
  clients::Fault_watch positions_faults_;
  clients::Fault_watch quality_faults_;
  clients::Fault_watch satellites_faults_;
  /// Last, so that it ends first: its handlers use all of the above.
  GeneralClientImpl<lumo::services::gnss::proxy::GNSSProxy> client_;
};

}  // namespace gnssClient
