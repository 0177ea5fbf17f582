/// Makes the records of one GNSS notification from a fix of a receiver or a sample of a drive.
///
/// A quantity that the source never measures is absent. A quantity that the source cannot measure
/// at this instant (no fix, too slow for a heading) carries valueType Error. It has the last value
/// of the receiver if the receiver sends one, else no value. Every other quantity carries
/// PhysicalValue. docs/receivers.md describes each member.
#pragma once

#include <bitset>
#include <optional>
#include <vector>

#include "clients/gnss_records.h"
#include "tools/drive/course.h"
#include "tools/gnss-gateway/context.h"
#include "tools/nmea/fix.h"

namespace gateway {

/// Values of the three fields for one instant.
struct Notification {
  /// Empty: only quality and satellites are new, the field keeps its value.
  std::vector<lumo::services::gnss::datatypes::DT_positions_struct> positions;
  std::vector<lumo::services::gnss::datatypes::DT_positionsQuality_struct> quality;
  /// Absent: the source has no new list, the field keeps its value.
  std::optional<std::vector<lumo::services::gnss::datatypes::DT_posGnssSatInfos_struct>> satellites;
};

/// The dead-reckoning sample repeats the GNSS sample, except while the receiver says that it only
/// reckons: then the GNSS sample carries Error.
[[nodiscard]] Notification to_notification(const nmea::Fix& fix, const Context& context);

/// The quantities that a source has reported so far. Without a valid position, a source
/// often leaves them out of its report.
class Known_quantities {
 public:
  using Mask = std::bitset<64>;

  /// Learns from the notification of `fix`. Without a valid position, it adds valueType Error for
  /// each known quantity that is absent. Without a receiver, it also removes every value except the
  /// time stamp.
  void complete(Notification& notification, const nmea::Fix& fix);

 private:
  Mask positions_;
  Mask quality_;
};

/// A receiver with dead reckoning, which continues in the tunnel. `gnss` and `reckoned` are the
/// same instant, each with the errors of its sensors.
[[nodiscard]] Notification to_notification(const drive::Sample& gnss,
                                           const drive::Sample& reckoned,
                                           const drive::Sky& sky,
                                           const Context& context);

}  // namespace gateway
