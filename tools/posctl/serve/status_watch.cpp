#include "tools/posctl/serve/status_watch.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "tools/posctl/connect.h"
#include "tools/posctl/glossary.h"
#include "tools/posctl/monitor_reports.h"
#include "tools/posctl/statistics_page.h"
#include "tools/posctl/verdict.h"

namespace posctl::serve {
namespace {

using binding::Statistics;
using binding::Statistics_proxy;
using diagnosisService::monitor_table;
namespace diag = lumo::services::diag;

/// The meaning of each name that a status may have, by group and name.
Json words_of(const Json& status) {
  static const std::vector<Term> terms = glossary();
  Json words = Json::object();
  for (const auto& [group, kind] : binding::enumerators<diag::Status_group>) {
    const char* const member = member_of(group);
    Json& of_group = words[member] = Json::object();
    for (const auto& [name, value] : status[member].items()) {
      const auto term = std::ranges::find_if(terms, [&, key = name, kind = kind](const Term& one) {
        return one.kind == kind && one.name == key;
      });
      of_group[name] = {{"meaning", meaning_of_status(name, value.get<std::string>())},
                        {"what", term == terms.end() ? "" : term->meaning}};
    }
  }
  return words;
}

bool is_same(const binding::Diagnosis_state& a, const binding::Diagnosis_state& b) {
  return std::ranges::equal(a.statuses, b.statuses,
                            [](const auto& one, const auto& other) {
                              return one.group == other.group && one.byte == other.byte &&
                                     one.status == other.status;
                            }) &&
         std::ranges::equal(a.faults, b.faults, [](const auto& one, const auto& other) {
           return one.fault == other.fault && one.service == other.service &&
                  one.element == other.element && one.present == other.present &&
                  one.occurrences == other.occurrences;
         });
}

void send_application_state(Page_feed& feed, const Json& application) {
  feed.keep(Topic::application, application);
  feed.event(Topic::application, application);
}

}  // namespace

void Status_watch::look(Statistics_proxy& service, const Json& figures, Clock::time_point now) {
  const auto state =
      result_of(service.Diagnosis(), Statistics::Diagnosis.name, deadline_in(answer_time));
  const bool same = last_state_ && is_same(*last_state_, state);
  if (!verdict_period_.is_due(now) && same) return;
  Json status{{"schema", 1}, {"verdict", ""}, {"reason", ""}, {"findings", Json::array()}};
  status["ratePerS"] = position_rate(figures["ages"]);
  const Json peers =
      json_of(result_of(service.Peers(), Statistics::Peers.name, deadline_in(answer_time)));
  feed_.state(Topic::peers, peers);
  add_diagnosis(status, state, peers["consumed"]);
  add_verdict(status, peers["consumed"], figures);
  status["words"] = same ? last_status_["words"] : words_of(status);
  for (const auto& [kind, name] : binding::enumerators<diag::Data_bus_fault>)
    for (auto& fault : status["dataBus"][member_of(kind)])
      fault["text"] = fault_sentence(kind, fault);
  feed_.state(Topic::status, status);
  if (!same) {
    if (last_state_) tell_changes(status);
    tell_monitors(state);
  }
  last_status_ = std::move(status);
  last_state_ = state;
}

void Status_watch::add_verdict(Json& status, Json services, const Json& figures) const {
  Json all = status;
  for (const auto* part : {"process", "clock", "stamps", "ages"})
    all[part] = figures[part];
  all["position"] = {{"none", !feed_.has_position()}};
  all["services"] = std::move(services);
  const auto findings = findings_of(all);
  status["verdict"] = name_of(findings.empty() ? Health::healthy : findings.front().health);
  status["reason"] = findings.empty() ? healthy_text(all) : findings.front().text;
  for (const auto& finding : findings)
    status["findings"].push_back(finding.text);
}

void Status_watch::tell_changes(const Json& status) {
  for (const auto& [status_group, group_name] : binding::enumerators<diag::Status_group>) {
    const char* const group = member_of(status_group);
    for (const auto& [name, value] : status[group].items()) {
      const Json before = last_status_[group].value(name, Json());
      if (before == value) continue;
      feed_.event(Topic::change, {{"group", group},
                                  {"name", name},
                                  {"before", before},
                                  {"status", value},
                                  {"meaning", status["words"][group][name]["meaning"]}});
    }
  }
  for (const auto& [fault_kind, kind_name] : binding::enumerators<diag::Data_bus_fault>) {
    const char* const kind = member_of(fault_kind);
    for (const auto& fault : status["dataBus"][kind]) {
      const auto is_it = [&](const Json& one) {
        return one["service"] == fault["service"] &&
               one.value("element", Json()) == fault.value("element", Json());
      };
      const Json& old = last_status_["dataBus"][kind];
      const auto before = std::ranges::find_if(old, is_it);
      if (before != old.end() && (*before)["present"] == fault["present"]) continue;
      Json json{{"kind", kind}, {"service", fault["service"]}};
      if (fault.contains("element")) json["element"] = fault["element"];
      json["present"] = fault["present"];
      json["text"] = fault["text"];
      feed_.event(Topic::fault, json);
    }
  }
}

void Status_watch::tell_monitors(const binding::Diagnosis_state& state) {
  Json json{{"monitors", Json::array()}};
  for (const auto& monitor : monitor_table)
    json["monitors"].push_back(state_json(monitor, state));
  feed_.keep(Topic::monitors, json);
}

void tell_application(Page_feed& feed, double started_ms) {
  send_application_state(feed, {{"present", true},
                                {"since", seconds_since_1970() * 1000},
                                {"text", ""},
                                {"started", started_ms}});
}

void tell_no_application(Page_feed& feed, const std::string& text) {
  send_application_state(
      feed, {{"present", false}, {"since", seconds_since_1970() * 1000}, {"text", text}});
  Json status{{"schema", 1},
              {"verdict", "no answer"},
              {"reason", text},
              {"findings", Json::array()},
              {"ratePerS", 0}};
  for (const auto& [group, name] : binding::enumerators<diag::Status_group>) {
    for (const auto* member : {"sinceS", "words"})
      status[member][member_of(group)] = Json::object();
    status[member_of(group)] = Json::object();
  }
  for (const auto& [kind, name] : binding::enumerators<diag::Data_bus_fault>)
    status["dataBus"][member_of(kind)] = Json::array();
  feed.state(Topic::status, status);
}

}  // namespace posctl::serve
