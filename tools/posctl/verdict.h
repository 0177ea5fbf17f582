/// The verdict on the state of the application, in the words of posctl status.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "binding/application_state.h"
#include "diagnosisService/data_identifiers.h"
#include "tools/posctl/record_json.h"

namespace posctl {

enum class Health : std::uint8_t { healthy, degraded, failed };
[[nodiscard]] std::string_view name_of(Health health);

struct Finding {
  Health health;
  std::string text;
};

/// What is wrong, the worst first; empty: nothing. `status` is the JSON form of posctl status.
[[nodiscard]] std::vector<Finding> findings_of(const Json& status);
/// One sentence on an application without a finding.
[[nodiscard]] std::string healthy_text(const Json& status);

/// Positions a second over the last 10 s.
[[nodiscard]] double position_rate(const Json& ages);

/// What a status means for this input, output or system function, in at most 28 letters.
[[nodiscard]] std::string meaning_of_status(std::string_view name, std::string_view status);

/// The member of the JSON form of posctl status that has the statuses of a group, or in "dataBus"
/// the faults of a kind. Not for values without a name.
[[nodiscard]] constexpr const char* member_of(lumo::services::diag::Status_group group) {
  return std::array{"inputs", "outputs", "system"}.at(static_cast<std::size_t>(group));
}
[[nodiscard]] constexpr const char* member_of(lumo::services::diag::Data_bus_fault kind) {
  return std::array{"notAvailable", "errorValueReceived", "implausible"}.at(
      static_cast<std::size_t>(kind));
}

/// Adds "inputs", "outputs" and "system", the name of each status by function; "sinceS" with the
/// same members; and "dataBus", the faults by kind. `services` are the rows of posctl peers: a
/// missing service has its cause from there. A copy, because a new member of `status` moves its
/// other members.
void add_diagnosis(Json& status, const binding::Diagnosis_state& state, Json services);

/// "GNSS missing since 17:58:19, 8th time; last cause: its offer was not renewed for 3 s".
[[nodiscard]] std::string fault_sentence(lumo::services::diag::Data_bus_fault kind,
                                         const Json& fault);

/// The local time of what happened this long ago, with its day unless that is today.
[[nodiscard]] std::string clock_time(double ago_s);

}  // namespace posctl
