#include "tools/posctl/fault.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/linux/com/socket_paths.h"
#include "tools/command.h"
#include "tools/posctl/fault_orders.h"

namespace posctl {
namespace {

using gateway::Fault_control;
using gateway::Fault_control_proxy;

std::string seconds(std::uint64_t ms) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f s", static_cast<double>(ms) / 1000);
  return text.data();
}

std::string text_of(const gateway::Planned_fault& planned) {
  std::string text =
      planned.fault + (planned.inForce ? "  since " + seconds(planned.sinceMs)
                                       : "  begins in " + seconds(planned.startsInMs));
  if (planned.endsInMs != gateway::endless_ms) text += ", ends in " + seconds(planned.endsInMs);
  return text;
}

std::string text_of(const gateway::Known_fault& kind) {
  std::string text = kind.name;
  if (!kind.usual.empty()) text += "[=" + kind.usual + "]";
  text.resize(std::max<std::size_t>(text.size() + 2, 24), ' ');
  text += kind.meaning;
  if (!kind.unit.empty()) {
    std::array<char, 64> range{};
    std::snprintf(range.data(), range.size(), "; %.12g to %.12g ", kind.low, kind.high);
    text += range.data() + kind.unit;
  }
  std::string separator = "; ";
  for (const auto& choice : kind.choices) {
    text += separator + choice;
    separator = ", ";
  }
  return text;
}

std::string list(Fault_control_proxy& control, bool as_json, Deadline deadline) {
  const auto planned = result_of(control.Faults(), Fault_control::Faults.name, deadline);
  const auto kinds = result_of(control.Kinds(), Fault_control::Kinds.name, deadline);
  if (as_json) return json_of(planned, kinds).dump() + "\n";
  std::string text = planned.empty() ? "No fault is in force.\n" : "In force, or to come:\n";
  for (const auto& one : planned)
    text += "  " + text_of(one) + "\n";
  text += "\nFaults, with the value that they have without one:\n";
  for (const auto& kind : kinds)
    text += "  " + text_of(kind) + "\n";
  return text;
}

std::string clear(Fault_control_proxy& control, const Fault_options& options, Deadline deadline) {
  const auto cleared = end_faults(control, options.name, deadline);
  if (options.json) return Json{{"schema", 1}, {"cleared", cleared}}.dump() + "\n";
  return "faults cleared: " + std::to_string(cleared) + "\n";
}

std::string inject(Fault_control_proxy& control, const Fault_options& options, Deadline deadline) {
  make_fault(control, options.what, deadline);
  if (options.json) return Json{{"schema", 1}, {"added", options.what}}.dump() + "\n";
  return "the gateway makes the fault " + options.what + "\n";
}

/// Through the gateway's Unix socket if it has one, else over the network.
Way_options way_to_gateway(Way_options way) {
  if (!way.connect.empty() || !way.node.empty()) return way;
  for (const auto& path : tq::com::socket_paths_of("gnss-gateway")) {
    if (std::filesystem::exists(path)) {
      way.connect = path;
      return way;
    }
  }
  way.node = "posctl";
  return way;
}

}  // namespace

int fault(const Fault_options& options) {
  if (!options.name.empty() && options.what != "clear") {
    throw tools::Usage_error("a name follows \"clear\" only, found \"" + options.name + "\"");
  }
  const auto text = on_the_way(way_to_gateway(options.way), [&] {
    const auto deadline = deadline_in(options.timeout);
    const auto control = connect_to_gateway(deadline);
    if (options.what == "list") return list(*control, options.json, deadline);
    if (options.what == "clear") return clear(*control, options, deadline);
    return inject(*control, options, deadline);
  });
  tools::write_output(text);
  return 0;
}

}  // namespace posctl
