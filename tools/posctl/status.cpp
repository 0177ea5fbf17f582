#include <chrono>
#include <stdexcept>
#include <string>

#include "posService/Positioning.h"
#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/explain.h"
#include "tools/posctl/notification_json.h"
#include "tools/posctl/statistics_page.h"
#include "tools/posctl/status_page.h"
#include "tools/posctl/terminal.h"
#include "tools/posctl/verdict.h"
#include "tools/stop_signal.h"

namespace posctl {
namespace {

using binding::Statistics;
using binding::Statistics_proxy;
using lumo::services::diag::Data_identifier_proxy;
using lumo::services::positioning::Positioning;
using lumo::services::positioning::proxy::PositioningProxy;
using Map_matched = lumo::services::diag::d_14a2::DataIdentifier_PositioningMMPos;

constexpr std::chrono::seconds between_looks{1};

/// The last record of a field. With more than a time stamp in it, also its age on our time base.
template <class Records>
Json last_of(const Records& records) {
  Json json{{"record", Json::object()}, {"none", true}};
  if (records.empty()) return json;
  const auto& record = records.back();
  json["record"] = to_json(record);
  if (is_stamp_only(json["record"])) return json;
  json["none"] = false;
  if (const auto age = age_s(record)) json["ageS"] = *age;
  return json;
}

Json not_zero(const Json& counters) {
  Json json = Json::object();
  for (const auto& [name, value] : counters.items()) {
    if (value != 0) json[name] = value;
  }
  return json;
}

Json read_all(Deadline deadline) {
  // All searches begin before the first wait.
  Instance_search<PositioningProxy> positioning_search(Positioning::name);
  Instance_search<Statistics_proxy> statistics_search(Statistics::name);
  Instance_search<Data_identifier_proxy<Map_matched>> map_matched_search(Map_matched::name);

  const auto positioning = positioning_search.proxy(deadline);
  const auto service = statistics_search.proxy(deadline);
  const Json statistics = read_statistics(*service, deadline);
  Json json{{"schema", 1}, {"verdict", ""}, {"reason", ""}, {"findings", Json::array()}};
  for (const auto* part : {"process", "clock", "stamps", "ages"})
    json[part] = statistics[part];
  json["ratePerS"] = position_rate(json["ages"]);
  json["position"] =
      last_of(result_of(positioning->positions.Get(), Positioning::positions.name, deadline));
  json["mapInfo"] =
      last_of(result_of(positioning->posMapInfo.Get(), Positioning::posMapInfo.name, deadline));
  json["mapMatched"] =
      explain(result_of(map_matched_search.proxy(deadline)->Read({}), Map_matched::name, deadline));
  json["services"] =
      json_of(result_of(service->Peers(), Statistics::Peers.name, deadline))["consumed"];
  add_diagnosis(json, result_of(service->Diagnosis(), Statistics::Diagnosis.name, deadline),
                json["services"]);
  json["counters"] = not_zero(statistics["counters"]);

  const auto findings = findings_of(json);
  json["verdict"] = name_of(findings.empty() ? Health::healthy : findings.front().health);
  json["reason"] = findings.empty() ? healthy_text(json) : findings.front().text;
  for (const auto& finding : findings)
    json["findings"].push_back(finding.text);
  return json;
}

int print(const Json& json, bool as_json, int cancel = -1) {
  tools::write_output(as_json ? json.dump() + "\n" : status_page(json, has_colours()), cancel);
  return json["verdict"] == "healthy" ? 0 : tools::exit_failed;
}

/// Returns the exit code of the last look.
int print_again_and_again(const Status_options& options, tools::Stop_signal& stop_signal) {
  const std::string before = options.json ? "" : is_terminal() ? "\033[H\033[2J" : "\n";
  for (;;) {
    int code = 0;
    try {
      const Json json = read_all(deadline_in(options.timeout));
      tools::write_output(before, stop_signal.descriptor());
      code = print(json, options.json, stop_signal.descriptor());
    } catch (const tools::No_answer& error) {
      code = tools::exit_no_answer;
      const Json json{{"schema", 1},
                      {"verdict", "no answer"},
                      {"reason", std::string("the application does not answer: ") + error.what()}};
      tools::write_output(
          options.json ? json.dump() + "\n" : before + "no answer: " + error.what() + "\n",
          stop_signal.descriptor());
    }
    const auto due = std::chrono::steady_clock::now() + between_looks;
    if (stop_signal.wait_until(due) == tools::Stop_signal::Wake::stopped) return code;
  }
}

}  // namespace

int status(const Status_options& options) {
  if (options.watch) {
    tools::Stop_signal stop_signal;  // before the runtime has threads
    return on_the_way(options.way, [&] { return print_again_and_again(options, stop_signal); });
  }
  Json json;
  try {
    json = on_the_way(options.way, [&] { return read_all(deadline_in(options.timeout)); });
  } catch (const tools::Usage_error&) {
    throw;
  } catch (const std::exception& error) {
    throw tools::No_answer(std::string("the application does not answer: ") + error.what());
  }
  return print(json, options.json);
}

}  // namespace posctl
