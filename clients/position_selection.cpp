#include "clients/position_selection.h"

namespace gnssClient {
namespace {

using binding::Value_type;
using lumo::services::gnss::datatypes::DT_positions_struct;

template <class Quantity>
bool is_physical(const DT_positions_struct& sample, const Quantity& quantity) {
  return sample.*quantity.value.pointer &&
         sample.*quantity.quality.pointer == Value_type::physical_value;
}

}  // namespace

Selection select(std::span<const DT_positions_struct> samples,
                 lumo::services::Position_type wanted) {
  Selection selection;
  for (const auto& sample : samples) {
    if (!sample.positionType) continue;
    auto& place = *sample.positionType == wanted ? selection.chosen : selection.other;
    place = &sample;
  }
  return selection;
}

void complete(DT_positions_struct& chosen, const DT_positions_struct& other) {
  if (!chosen.messageCounter) chosen.messageCounter = other.messageCounter;
  binding::for_each_quantity<DT_positions_struct>([&](const auto& quantity) {
    if (is_physical(chosen, quantity) || !is_physical(other, quantity)) return;
    chosen.*quantity.value.pointer = other.*quantity.value.pointer;
    chosen.*quantity.quality.pointer = Value_type::physical_value;
  });
}

}  // namespace gnssClient
