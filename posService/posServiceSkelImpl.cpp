#include "posService/posServiceSkelImpl.h"

#include <vector>

namespace posService {
namespace {

/// A vector of this record, kept per thread so that publishing costs no allocation.
template <class Record>
const std::vector<Record>& alone(const Record& record) {
  thread_local std::vector<Record> records(1);
  records.front() = record;
  return records;
}

}  // namespace

posServiceSkelImpl::posServiceSkelImpl()
    : PositioningSkeleton{
          ara::core::InstanceSpecifier{"Positioning_ProvidedSomeipServiceInstance"}} {}

void posServiceSkelImpl::publish(
    const lumo::services::positioning::datatypes::DT_positions_struct& position) {
  positions.Update(alone(position));
}

void posServiceSkelImpl::publish(
    const lumo::services::positioning::datatypes::DT_posMapInfo_struct& map_info) {
  posMapInfo.Update(alone(map_info));
}

}  // namespace posService
