/// The provided instance of the Positioning service.
#pragma once

#include "posService/Positioning.h"

namespace posService {

/// Get of both fields returns the latest published record. Any thread may publish.
class posServiceSkelImpl : public lumo::services::positioning::skeleton::PositioningSkeleton {
 public:
  /// The instance "Positioning_ProvidedSomeipServiceInstance". Throws std::runtime_error if the
  /// manifest does not have it.
  posServiceSkelImpl();

  /// Both fields are vectors on the wire; an update sends a vector of this one record.
  void publish(const lumo::services::positioning::datatypes::DT_positions_struct& position);
  void publish(const lumo::services::positioning::datatypes::DT_posMapInfo_struct& map_info);
};

}  // namespace posService
