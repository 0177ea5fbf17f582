#include "tools/posctl/verdict.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <functional>

#include "tools/posctl/explain.h"

namespace posctl {
namespace {

using binding::name_of;
using lumo::services::diag::Data_bus_fault;
using lumo::services::diag::Faulty_service;
using lumo::services::diag::Status;
using lumo::services::diag::Status_group;

/// Longer than a start takes; from then on an application without a position has failed.
constexpr double start_s = 10;
/// No source of positions is slower on its own machine's network.
constexpr double old_s = 1;

std::string number(double value, const char* format) {
  std::array<char, 48> text{};
  std::snprintf(text.data(), text.size(), format, value);
  return text.data();
}

const Json& last_10_s(const Json& ages, const char* name) {
  return ages.at(name).at("last10S");
}

bool is_present(const Json& fault) {
  return fault["present"].get<bool>();
}

/// Why no GNSS data comes, from the subscriptions.
std::string cause_of_silence(const Json& services) {
  for (const auto& service : services) {
    if (!service["service"].get<std::string>().ends_with("::GNSS")) continue;
    std::string cause = service["cause"].get<std::string>();
    if (!service["found"].get<bool>() || !cause.empty()) return "GNSS: " + cause;
    for (const auto& group : service["eventGroups"]) {
      cause = group["cause"].get<std::string>();
      if (!cause.empty())
        return "GNSS event group " + group["eventGroup"].get<std::string>() + ": " + cause;
    }
  }
  return "the GNSS service is there and sends no position that the settings want";
}

void add_fault_findings(const Json& status, std::vector<Finding>& findings) {
  for (const auto& [kind, name] : binding::enumerators<Data_bus_fault>) {
    for (const auto& fault : status["dataBus"][member_of(kind)]) {
      if (!is_present(fault)) continue;
      const bool fatal = kind == Data_bus_fault::not_available &&
                         fault["service"] == name_of(Faulty_service::gnss);
      findings.push_back({fatal ? Health::failed : Health::degraded, fault_sentence(kind, fault)});
    }
  }
}

/// Positions do not flow.
void add_silence(const Json& status, std::vector<Finding>& findings) {
  const bool none_yet = status["position"]["none"].get<bool>();
  const bool flows = last_10_s(status["ages"], "handlerToSent")["count"] != 0;
  const bool known = std::ranges::any_of(
      findings, [](const auto& finding) { return finding.health == Health::failed; });
  if (known || (flows && !none_yet)) return;
  const double up = status["process"]["uptimeMs"].get<double>() / 1000;
  if (none_yet && up < start_s) {
    findings.push_back({Health::degraded, "no position yet, the application started " +
                                              number(up, "%.0f") + " s ago; " +
                                              cause_of_silence(status["services"])});
  } else {
    const std::string what = none_yet ? "no position since the start" : "no position for 10 s";
    findings.push_back({Health::failed, what + "; " + cause_of_silence(status["services"])});
  }
}

void add_statuses(const Json& status, std::vector<Finding>& findings) {
  const bool known = !findings.empty();
  for (const auto& [group, group_name] : binding::enumerators<Status_group>) {
    for (const auto& [name, value] : status[member_of(group)].items()) {
      // A fault that stands above has brought the status with it.
      if (value != name_of(Status::error) || (known && (name == "gnss" || name == "deadReckoning")))
        continue;
      findings.push_back(
          {name == "deadReckoning" || name == "overall" ? Health::failed : Health::degraded,
           name + " is in Error: " + meaning_of_status(name, name_of(Status::error))});
    }
  }
}

void add_age(const Json& status, std::vector<Finding>& findings) {
  const auto& age = last_10_s(status["ages"], "stampToArrival");
  const double median_s = age["p50Ns"].get<double>() / 1e9;
  if (median_s < old_s) return;
  const bool synchronised = status["clock"]["synchronised"].get<bool>();
  findings.push_back({Health::degraded,
                      "positions are " + number(median_s, "%.1f") + " s old when they arrive" +
                          (synchronised ? "" : ", or a clock is wrong: ours is not synchronised")});
}

std::string cause_of(const Json& fault, const Json& services) {
  if (fault.contains("element")) return {};
  for (const auto& service : services) {
    const auto name = service["service"].get<std::string>();
    if (!name.ends_with("::" + fault["service"].get<std::string>())) continue;
    constexpr std::string_view lost = "lost: ";
    auto cause = service["cause"].get<std::string>();
    if (cause.starts_with(lost)) cause.erase(0, lost.size());
    return cause;
  }
  return {};
}

}  // namespace

std::string_view name_of(Health health) {
  constexpr std::array<std::string_view, 3> names{"healthy", "degraded", "failed"};
  return names.at(static_cast<std::size_t>(health));
}

std::vector<Finding> findings_of(const Json& status) {
  std::vector<Finding> findings;
  add_fault_findings(status, findings);
  add_silence(status, findings);
  add_statuses(status, findings);
  add_age(status, findings);
  std::ranges::stable_sort(findings, std::greater{}, &Finding::health);
  return findings;
}

std::string healthy_text(const Json& status) {
  const auto& age = last_10_s(status["ages"], "stampToArrival");
  std::string text = number(position_rate(status["ages"]), "%.1f") + " positions a second";
  if (age["count"] != 0) {
    text += ", " + number(age["p50Ns"].get<double>() / 1e6, "%.1f") + " ms old on arrival";
  }
  return text;
}

double position_rate(const Json& ages) {
  const auto& window = last_10_s(ages, "betweenArrivals");
  const auto sum = window["sumNs"].get<double>();
  return sum == 0 ? 0 : 1e9 * window["count"].get<double>() / sum;
}

std::string meaning_of_status(std::string_view name, std::string_view status) {
  if (status == name_of(Status::nominal)) {
    return name == "staticOutput" || name == "overall" ? "always" : "data arrives in time";
  }
  if (status == name_of(Status::error)) return "no data for over 5 s";
  if (status == name_of(Status::not_available)) return "not part of this setup";
  if (status != name_of(Status::init)) return "reserved";
  if (name == "mapMatched") return "stays: no map matching here";
  if (name == "lbl") return "stays: no LBL system here";
  return "no data yet";
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): members of `status` move
void add_diagnosis(Json& status, const binding::Diagnosis_state& state, Json services) {
  for (const auto& one : state.statuses) {
    const auto name = function_of(one);
    if (name.empty()) continue;
    const char* const member = member_of(Status_group{one.group});
    status[member][name] = status_name(one.status);
    status["sinceS"][member][name] = static_cast<double>(one.sinceMs) / 1000;
  }
  for (const auto& [kind, name] : binding::enumerators<Data_bus_fault>)
    status["dataBus"][member_of(kind)] = Json::array();
  for (const auto& one : state.faults) {
    const Data_bus_fault kind{one.fault};
    if (name_of(kind).empty()) continue;
    Json fault = explain(one);
    fault["sinceS"] = static_cast<double>(one.sinceMs) / 1000;
    if (kind == Data_bus_fault::not_available && one.present)
      fault["cause"] = cause_of(fault, services);
    status["dataBus"][member_of(kind)].push_back(std::move(fault));
  }
}

std::string fault_sentence(Data_bus_fault kind, const Json& fault) {
  const std::string what = fault_subject(fault);
  const std::string since = clock_time(fault["sinceS"].get<double>());
  const auto occurrences = fault["occurrences"].get<std::uint64_t>();
  if (is_present(fault)) {
    constexpr std::array<const char*, 3> words{" missing since ", " sends error values since ",
                                               " sends implausible values since "};
    std::string text = what + words.at(static_cast<std::size_t>(kind)) + since + ", " +
                       ordinal(occurrences) + " time";
    const std::string cause = fault.value("cause", "");
    return cause.empty() ? text : text + "; last cause: " + cause;
  }
  constexpr std::array<const char*, 3> words{" there since ", " without error values since ",
                                             " plausible since "};
  return what + words.at(static_cast<std::size_t>(kind)) + since + ", before that " +
         (kind == Data_bus_fault::not_available ? "missing " : "not so ") +
         (occurrences == 1 ? "once" : std::to_string(occurrences) + " times");
}

std::string clock_time(double ago_s) {
  const std::time_t now = std::time(nullptr);
  const std::time_t then = now - static_cast<std::time_t>(ago_s);
  std::tm today{};
  std::tm local{};
  localtime_r(&now, &today);
  localtime_r(&then, &local);
  std::array<char, 32> text{};
  const bool same_day = today.tm_yday == local.tm_yday && today.tm_year == local.tm_year;
  const auto size =
      std::strftime(text.data(), text.size(), same_day ? "%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &local);
  return {text.data(), size};
}

}  // namespace posctl
