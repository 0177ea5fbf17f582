#include "tools/posctl/fault_orders.h"

#include <stdexcept>

#include "tools/command.h"

namespace posctl {

using gateway::Fault_control;
using gateway::Fault_control_proxy;

namespace {

Json json_of(const gateway::Planned_fault& planned) {
  const auto seconds = [](std::uint64_t ms) { return static_cast<double>(ms) / 1000; };
  Json json{{"fault", planned.fault}, {"inForce", planned.inForce}};
  json[planned.inForce ? "sinceS" : "startsInS"] =
      seconds(planned.inForce ? planned.sinceMs : planned.startsInMs);
  json["endsInS"] =
      planned.endsInMs == gateway::endless_ms ? Json() : Json(seconds(planned.endsInMs));
  return json;
}

}  // namespace

std::unique_ptr<Fault_control_proxy> connect_to_gateway(Deadline deadline) try {
  return connect<Fault_control_proxy>(Fault_control::name, deadline);
} catch (const tools::No_answer& error) {
  throw tools::No_answer(error.what() + std::string("; gnss-gateway --control offers it"));
}

void make_fault(Fault_control_proxy& control, const std::string& order, Deadline deadline) {
  const auto answer =
      result_of(control.Inject({.fault = order}), Fault_control::Inject.name, deadline);
  if (!answer.problem.empty()) throw tools::Usage_error(answer.problem);
}

std::uint32_t end_faults(Fault_control_proxy& control,
                         const std::string& fault,
                         Deadline deadline) {
  const auto answer =
      result_of(control.Clear({.fault = fault}), Fault_control::Clear.name, deadline);
  if (!answer.problem.empty()) throw std::runtime_error(answer.problem);
  return answer.faults;
}

Json json_of(const std::vector<gateway::Planned_fault>& faults,
             const std::vector<gateway::Known_fault>& kinds) {
  Json json{{"schema", 1}, {"faults", Json::array()}, {"kinds", to_json(kinds)}};
  for (const auto& one : faults)
    json["faults"].push_back(json_of(one));
  return json;
}

}  // namespace posctl
