/// Publishes positions: dead-reckoned ones in the field `positions`, map-matched records in
/// `posMapInfo`.
#pragma once

#include <boost/optional.hpp>
#include <cstdint>
#include <memory>

#include "ara/log/logger.h"
#include "clients/timeutils.h"
#include "posService/positioning_records.h"

namespace diagnosisService {
class diagnosisServiceImpl;
}
namespace posService {
class posServiceSkelImpl;
}

/// One thread at a time calls: the starting thread until init() has returned, then the one receiver
/// of positions. Only stop() may come from another thread meanwhile.
class posServiceImpl {
 public:
  using Position = lumo::services::positioning::datatypes::DT_positions_struct;
  using Map_info = lumo::services::positioning::datatypes::DT_posMapInfo_struct;

  /// `diagnosis` receives each position that send_dr() publishes as map-matched record.
  explicit posServiceImpl(diagnosisService::diagnosisServiceImpl& diagnosis,
                          const timeutils& time = timeutils::instance());
  ~posServiceImpl();
  posServiceImpl(const posServiceImpl&) = delete;
  posServiceImpl& operator=(const posServiceImpl&) = delete;

  /// On (until set): send_dr() publishes every position with a full timestamp. Off: it publishes
  /// only positions that differ from the previous one in a member other than messageCounter, time
  /// stamp and age. Absent equals absent. Set it before init().
  void set_always_send_all_valid_positions(bool on) { always_send_ = on; }
  /// A position is also published as map-matched record if more than this time has passed since the
  /// last one; 1000 until set.
  void set_mm_new_position_calculation_interval_ms(std::uint32_t interval) {
    mm_interval_ms_ = interval;
  }

  /// Gives both fields their first values (a position with only the time, and map information 0)
  /// and offers the service. Throws std::runtime_error if the manifest does not have it.
  void init();
  /// Ends the offer. Later positions are kept, not sent. May be called twice.
  void stop();

  // Before init() the following functions build and log their records but send nothing.

  /// Publishes a dead-reckoned position if it has a full timestamp, with its age in microseconds.
  /// Also publishes a map-matched record made from it if the interval has passed. Returns false if
  /// the position has no full timestamp, or repeats the last one and repetitions are off.
  bool send_dr(Position position);
  /// Publishes a position made of the coordinates in degrees, whatever their values, and a
  /// map-matched record. Without both coordinates it publishes only the time, as position.
  void update_positions(const boost::optional<double>& latitude,
                        const boost::optional<double>& longitude);
  /// Publishes map information with only this value.
  void update_map_info(std::uint32_t value);
  void send_mm(const Map_info& map_info);

 private:
  void publish(const Position& position);
  [[nodiscard]] bool is_repeated(const Position& position) const;

  diagnosisService::diagnosisServiceImpl& diagnosis_;
  const timeutils& time_;
  const ara::log::Logger& logger_;
  bool always_send_ = true;
  std::uint32_t mm_interval_ms_ = 1000;
  std::uint32_t last_mm_sent_ms_ = 0;
  std::uint32_t message_counter_ = 0;  ///< 0 to 99
  Position last_published_;            ///< kept while always_send_ is off
  std::unique_ptr<posService::posServiceSkelImpl> skeleton_;
};
