/// The interfaces whose payloads posctl knows.
#pragma once

#include "binding/statistics.h"
#include "clients/GNSS.h"
#include "clients/Time.h"
#include "diagnosisService/DiagnosticMonitor.h"
#include "diagnosisService/data_identifiers.h"
#include "posService/Positioning.h"
#include "tools/gnss-gateway/fault_control.h"

namespace posctl {

/// Calls `visit.operator()<Interface>()` for each.
template <class Visit>
void for_each_service(Visit&& visit) {
  using namespace lumo::services;
  visit.template operator()<gnss::GNSS>();
  visit.template operator()<time::Time>();
  visit.template operator()<positioning::Positioning>();
  diag::for_each_interface<diag::Data_identifiers>(visit);
  visit.template operator()<mw::dm::dem::DiagnosticMonitor>();
  visit.template operator()<binding::Statistics>();
  visit.template operator()<gateway::Fault_control>();
}

}  // namespace posctl
