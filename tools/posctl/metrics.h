/// The metrics of the exporter: one table, filled from one look at the application.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "binding/age_histogram.h"
#include "binding/application_state.h"
#include "binding/position_ages.h"
#include "mw/com/statistics.h"
#include "posService/positioning_records.h"
#include "tools/posctl/http_server.h"

namespace posctl {

/// What the application has answered. A part that did not come in time is missing.
struct Look {
  std::optional<mw::com::runtime::Process_usage> process;
  std::optional<mw::com::runtime::Clock_state> clock;
  std::optional<binding::Stamp_counts> stamps;
  std::optional<std::vector<binding::Age>> ages;
  std::optional<std::vector<mw::com::runtime::Counter>> counters;
  std::optional<mw::com::runtime::Peers> peers;
  std::optional<std::vector<lumo::services::positioning::datatypes::DT_positions_struct>> positions;
  std::optional<binding::Diagnosis_state> diagnosis;

  std::chrono::duration<double> duration{};
  Http_counts http;

  [[nodiscard]] bool up() const { return process.has_value(); }
};

/// In Prometheus' text format 0.0.4.
[[nodiscard]] std::string exposition(const Look& look);

/// Every metric, as a table in Markdown.
[[nodiscard]] std::string metric_table();

}  // namespace posctl
