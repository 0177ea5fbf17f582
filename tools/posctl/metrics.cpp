#include "tools/posctl/metrics.h"

#include <limits>
#include <string_view>

#include "binding/statistics.h"
#include "diagnosisService/monitor_table.h"
#include "platform/someip/base/counters.h"
#include "platform/someip/base/hexadecimal.h"
#include "tools/posctl/explain.h"
#include "tools/posctl/metric_samples.h"
#include "tools/posctl/verdict.h"

namespace posctl {
namespace {

using binding::Age;
using binding::Fault_age;
using binding::Stamp_counts;
using lumo::services::diag::Data_bus_fault;
using lumo::services::diag::Status;
using lumo::services::diag::Status_group;
using lumo::services::positioning::datatypes::DT_positions_struct;
using mw::com::runtime::Clock_state;
using mw::com::runtime::Process_usage;
using someip::hexadecimal;

struct Metric {
  std::string_view name;
  std::string_view type;
  std::string_view labels;
  std::string_view help;
  void (*samples)(const Look& look, Samples& samples);
};

/// "unknown_method" for "UnknownMethod".
std::string snake_case(std::string_view name) {
  std::string text;
  for (const char one : name) {
    const bool capital = one >= 'A' && one <= 'Z';
    if (capital && !text.empty()) text += '_';
    text += capital ? static_cast<char>(one - 'A' + 'a') : one;
  }
  return text;
}

/// A member of a part of the look, divided to the base unit.
template <auto Part, auto Member, std::uint64_t Divisor = 1>
void value(const Look& look, Samples& samples) {
  if (!(look.*Part)) return;
  const auto number = (*(look.*Part)).*Member;
  if constexpr (Divisor == 1) {
    samples.add(number);
  } else {
    samples.add(static_cast<double>(number) / Divisor);
  }
}

/// The state of the clock while it is synchronised.
template <auto Member, std::uint64_t Divisor = 1>
void clock_value(const Look& look, Samples& samples) {
  if (look.clock && look.clock->synchronised) value<&Look::clock, Member, Divisor>(look, samples);
}

/// A member of the last position.
template <auto Member>
void of_position(const Look& look, Samples& samples) {
  if (!look.positions || look.positions->empty()) return;
  if (const auto& value = look.positions->back().*Member) samples.add(*value);
}

void position_time(const Look& look, Samples& samples) {
  if (!look.positions || look.positions->empty()) return;
  const DT_positions_struct& position = look.positions->back();
  if (!position.LAT || !position.preciseLocalTimeSeconds) return;
  samples.add(*position.preciseLocalTimeSeconds +
              position.preciseLocalTimeNanoseconds.value_or(0) / 1e9);
}

void ages(const Look& look, Samples& samples) {
  if (!look.ages) return;
  const auto seconds = [](std::uint64_t ns) { return static_cast<double>(ns) / 1e9; };
  for (const Age& age : *look.ages) {
    if (age.windowS == 0) {
      samples.add(seconds(age.sumNs), {{"age", age.name}}, "_sum");
      samples.add(age.count, {{"age", age.name}}, "_count");
      continue;
    }
    const auto quantile = [&](std::string_view share, std::uint64_t ns) {
      const auto nothing = std::numeric_limits<double>::quiet_NaN();
      samples.add(age.count == 0 ? nothing : seconds(ns), {{"age", age.name}, {"quantile", share}});
    };
    quantile("0", age.minNs);
    quantile("0.5", age.p50Ns);
    quantile("0.99", age.p99Ns);
    quantile("0.999", age.p999Ns);
    quantile("1", age.maxNs);
  }
}

void rate(const Look& look, Samples& samples) {
  if (!look.ages) return;
  for (const Age& age : *look.ages) {
    if (age.name == "betweenArrivals" && age.windowS != 0)
      samples.add(age.sumNs == 0
                      ? 0
                      : static_cast<double>(age.count) / (static_cast<double>(age.sumNs) / 1e9));
  }
}

void stamp_faults(const Look& look, Samples& samples) {
  if (!look.stamps) return;
  samples.add(look.stamps->missing, {{"fault", "missing"}});
  samples.add(look.stamps->inFuture, {{"fault", "in_future"}});
  samples.add(look.stamps->standingStill, {{"fault", "standing_still"}});
  samples.add(look.stamps->jumped, {{"fault", "jumped"}});
}

/// One series for each status: 1 for the present one.
template <Status_group Group>
void statuses(const Look& look, Samples& samples) {
  if (!look.diagnosis) return;
  for (const auto& one : look.diagnosis->statuses) {
    const auto name = function_of(one);
    if (Status_group{one.group} != Group || name.empty()) continue;
    for (const auto& [status, status_text] : binding::enumerators<Status>)
      samples.add(status == one.status, {{"name", name}, {"status", status_text}});
    if (binding::name_of(Status{one.status}).empty())
      samples.add(true, {{"name", name}, {"status", status_name(one.status)}});
  }
}

void monitors(const Look& look, Samples& samples) {
  if (!look.diagnosis) return;
  for (const auto& monitor : diagnosisService::monitor_table) {
    if (const auto* found = status_of(monitor, *look.diagnosis)) {
      samples.add(found->status == Status::error,
                  {{"monitor", monitor.name}, {"id", hexadecimal(monitor.identifier, 6)}});
    }
  }
}

/// A member of each fault of the consumed services.
template <auto Member>
void faults(const Look& look, Samples& samples) {
  if (!look.diagnosis) return;
  const auto plain = [](const Json& name) {
    return name.is_string() ? name.get<std::string>() : name.dump();
  };
  for (const auto& one : look.diagnosis->faults) {
    const Data_bus_fault kind{one.fault};
    if (binding::name_of(kind).empty()) continue;
    const Json fault = explain(one);
    samples.add(one.*Member,
                {{"fault", snake_case(member_of(kind))},
                 {"service", plain(fault["service"])},
                 {"element", fault.contains("element") ? plain(fault["element"]) : ""}});
  }
}

/// The number of clients of each offered instance that have subscribed, or were refused.
template <bool Subscribed>
void subscribers(const Look& look, Samples& samples) {
  if (!look.peers) return;
  for (const auto& offered : look.peers->offered) {
    std::uint64_t count = 0;
    for (const auto& one : look.peers->subscribers) {
      count += one.serviceId == offered.serviceId && one.instance == offered.instance &&
               one.subscribed == Subscribed;
    }
    samples.add(count, {{"service", offered.service}, {"instance", hexadecimal(offered.instance)}});
  }
}

void found(const Look& look, Samples& samples) {
  if (!look.peers) return;
  for (const auto& service : look.peers->services)
    samples.add(service.found,
                {{"service", service.service}, {"instance", hexadecimal(service.instance)}});
}

template <class Add>
void for_each_group(const Look& look, Add add) {
  if (!look.peers) return;
  for (const auto& group : look.peers->eventGroups) {
    for (const auto& service : look.peers->services) {
      if (service.serviceId != group.serviceId || service.instance != group.instance) continue;
      add(group, service.service, hexadecimal(group.instance), hexadecimal(group.eventGroup));
      break;
    }
  }
}

void subscribed(const Look& look, Samples& samples) {
  for_each_group(look, [&](const auto& group, const auto& service, const auto& instance,
                           const auto& event_group) {
    samples.add(group.subscribed,
                {{"service", service}, {"instance", instance}, {"event_group", event_group}});
  });
}

void silence(const Look& look, Samples& samples) {
  for_each_group(look, [&](const auto& group, const auto& service, const auto& instance,
                           const auto& event_group) {
    if (group.lastNotificationMs == mw::com::runtime::never) return;
    samples.add(static_cast<double>(group.lastNotificationMs) / 1000,
                {{"service", service}, {"instance", instance}, {"event_group", event_group}});
  });
}

constexpr std::array<std::string_view, 2> prefixes_with_cause{"dropped", "refused"};

/// The counters with a prefix, by their cause.
template <std::size_t Prefix>
void with_cause(const Look& look, Samples& samples) {
  if (!look.counters) return;
  constexpr auto text = prefixes_with_cause[Prefix];
  for (const auto& [name, value] : *look.counters) {
    if (name.starts_with(text))
      samples.add(value, {{"cause", snake_case(std::string_view(name).substr(text.size()))}});
  }
}

/// The metric of a counter that has one of its own; empty for the others.
std::string counter_metric(std::string_view counter) {
  for (const auto prefix : prefixes_with_cause) {
    if (counter.starts_with(prefix)) return {};
  }
  return "pos_someip_" + snake_case(counter) + "_total";
}

std::string counter_help(std::string_view counter) {
  return "the counter " + std::string(counter) + " of the SOME/IP runtime";
}

constexpr std::string_view gauge = "gauge";
constexpr std::string_view counter = "counter";

constexpr std::array metrics{
    Metric{"pos_up", gauge, "", "1 if the application has answered this scrape",
           [](const Look& look, Samples& samples) { samples.add(look.up()); }},
    Metric{"pos_scrape_duration_seconds", gauge, "", "time that the application took to answer",
           [](const Look& look, Samples& samples) { samples.add(look.duration.count()); }},

    Metric{"pos_position_latitude_degrees", gauge, "", "of the last position, WGS 84",
           of_position<&DT_positions_struct::LAT>},
    Metric{"pos_position_longitude_degrees", gauge, "", "of the last position, WGS 84",
           of_position<&DT_positions_struct::LON>},
    Metric{"pos_position_altitude_meters", gauge, "", "of the last position, above mean sea level",
           of_position<&DT_positions_struct::altitudeMeanSeaLevel>},
    Metric{"pos_position_accuracy_meters", gauge, "", "horizontal, of the last position, one sigma",
           of_position<&DT_positions_struct::accuracyHorizontal>},
    Metric{"pos_position_speed_meters_per_second", gauge, "", "over ground, of the last position",
           of_position<&DT_positions_struct::speed2D>},
    Metric{"pos_position_heading_degrees", gauge, "",
           "of the last position, clockwise from true north",
           of_position<&DT_positions_struct::yawAngle>},
    Metric{"pos_position_timestamp_seconds", gauge, "",
           "time stamp of the last position on the time base", position_time},
    Metric{"pos_positions_per_second", gauge, "",
           "notifications of GNSS positions, mean of the last 10 s", rate},
    Metric{"pos_position_notifications_total", counter, "",
           "notifications of GNSS positions since the start",
           value<&Look::stamps, &Stamp_counts::notifications>},
    Metric{"pos_position_stamp_faults_total", counter, "fault",
           "time stamps of GNSS positions that make no sense: missing, in_future, standing_still, "
           "jumped",
           stamp_faults},
    Metric{"pos_position_age_seconds", "summary", "age, quantile",
           "ages of positions: stampToArrival, arrivalToHandler, handlerToSent, stampToSent, "
           "betweenArrivals. "
           "Quantiles over the last 10 s; sum and count since the start",
           ages},

    Metric{"pos_input_status", gauge, "name, status", "1 for the present status of an input",
           statuses<Status_group::input>},
    Metric{"pos_output_status", gauge, "name, status", "1 for the present status of an output",
           statuses<Status_group::output>},
    Metric{"pos_system_status", gauge, "name, status",
           "1 for the present status of a system function", statuses<Status_group::system>},
    Metric{"pos_monitor_failed", gauge, "monitor, id",
           "1 if the diagnostic monitor reports a failure", monitors},
    Metric{"pos_data_bus_fault_present", gauge, "fault, service, element",
           "1 while a consumed service has the fault: not_available, error_value_received, "
           "implausible",
           faults<&Fault_age::present>},
    Metric{"pos_data_bus_fault_occurrences_total", counter, "fault, service, element",
           "appearances of the fault since the start; 65535 at most",
           faults<&Fault_age::occurrences>},

    Metric{"pos_subscribers", gauge, "service, instance", "subscriptions to an offered instance",
           subscribers<true>},
    Metric{"pos_subscribers_refused", gauge, "service, instance",
           "clients whose last subscription was refused", subscribers<false>},
    Metric{"pos_consumed_service_found", gauge, "service, instance",
           "1 if a service that the application uses is offered", found},
    Metric{"pos_consumed_event_group_subscribed", gauge, "service, instance, event_group",
           "1 if the provider has acknowledged the subscription", subscribed},
    Metric{"pos_consumed_event_group_silence_seconds", gauge, "service, instance, event_group",
           "time since the last notification", silence},

    Metric{"pos_clock_synchronised", gauge, "", "1 if a daemon disciplines the clock",
           value<&Look::clock, &Clock_state::synchronised>},
    Metric{"pos_clock_estimated_error_seconds", gauge, "", "while the clock is synchronised",
           clock_value<&Clock_state::estimatedErrorUs, 1'000'000>},
    Metric{"pos_clock_maximum_error_seconds", gauge, "", "while the clock is synchronised",
           clock_value<&Clock_state::maximumErrorUs, 1'000'000>},
    Metric{"pos_clock_tai_offset_seconds", gauge, "",
           "TAI minus UTC, while the clock is synchronised; 0 if it is not known",
           clock_value<&Clock_state::taiOffsetS>},
    Metric{"pos_clock_steps_total", counter, "", "sudden changes of the clock since the start",
           value<&Look::clock, &Clock_state::steps>},

    Metric{"pos_process_resident_memory_bytes", gauge, "", "memory in use",
           value<&Look::process, &Process_usage::residentBytes>},
    Metric{"pos_process_threads", gauge, "", "threads of the application",
           value<&Look::process, &Process_usage::threads>},
    Metric{"pos_process_uptime_seconds", gauge, "", "time since the start of the application",
           value<&Look::process, &Process_usage::uptimeMs, 1000>},

    Metric{"pos_someip_dropped_total", counter, "cause",
           "messages that the SOME/IP runtime has dropped", with_cause<0>},
    Metric{"pos_someip_refused_total", counter, "cause",
           "requests past a bound that the SOME/IP runtime has refused", with_cause<1>},

    Metric{"pos_exporter_requests_total", counter, "", "scrapes since the start of the exporter",
           [](const Look& look, Samples& samples) { samples.add(look.http.requests); }},
    Metric{"pos_exporter_refused_total", counter, "",
           "HTTP requests that the exporter has refused or that did not come in time",
           [](const Look& look, Samples& samples) { samples.add(look.http.refused); }},
};

void append_family(std::string& text,
                   std::string_view name,
                   std::string_view type,
                   std::string_view help,
                   const Samples& samples) {
  if (samples.text().empty()) return;
  text.append("# HELP ").append(name).append(" ").append(help).append("\n");
  text.append("# TYPE ").append(name).append(" ").append(type).append("\n");
  text += samples.text();
}

void append_row(std::string& text,
                std::string_view name,
                std::string_view type,
                std::string_view labels,
                std::string_view help) {
  text.append("| `").append(name).append("` | ").append(type).append(" | ").append(labels);
  text.append(labels.empty() ? "| " : " | ").append(help).append(" |\n");
}

}  // namespace

std::string exposition(const Look& look) {
  std::string text;
  for (const Metric& metric : metrics) {
    Samples samples(metric.name);
    metric.samples(look, samples);
    append_family(text, metric.name, metric.type, metric.help, samples);
  }
  if (!look.counters) return text;
  for (const auto& one : *look.counters) {
    const std::string name = counter_metric(one.name);
    if (name.empty()) continue;
    Samples samples(name);
    samples.add(one.value);
    append_family(text, name, counter, counter_help(one.name), samples);
  }
  return text;
}

std::string metric_table() {
  std::string text = "| Metric | Type | Labels | Meaning |\n|---|---|---|---|\n";
  for (const Metric& metric : metrics)
    append_row(text, metric.name, metric.type, metric.labels, metric.help);
  for (const auto& one : someip::counter_names) {
    const std::string name = counter_metric(one.name);
    if (!name.empty()) append_row(text, name, counter, "", counter_help(one.name));
  }
  return text;
}

}  // namespace posctl
