#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "binding/statistics.h"
#include "clients/GNSS.h"
#include "clients/Time.h"
#include "diagnosisService/DiagnosticMonitor.h"
#include "diagnosisService/data_identifiers.h"
#include "posService/Positioning.h"
#include "tools/command.h"
#include "tools/gnss-gateway/fault_control.h"
#include "tools/near_name.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/connect.h"
#include "tools/posctl/from_json.h"

namespace posctl {
namespace {

using Instance = std::optional<std::uint16_t>;

struct Callable {
  std::string name;        ///< "Statistics.Counters"
  std::string_view input;  ///< what its argument is; empty: none
  std::function<Json(const Json& argument, Instance instance, Deadline deadline)> call;
};

/// Waits for the answer; null for a method without a result.
template <class Future>
Json answer(Future future, std::string_view name, Deadline deadline) {
  if constexpr (std::is_void_v<decltype(future.get())>) {
    result_of(std::move(future), name, deadline);
    return nullptr;
  } else {
    return to_json(result_of(std::move(future), name, deadline));
  }
}

class Callables {
 public:
  /// A method without an argument.
  template <class Proxy, class Service, class Member>
  void add(std::string_view method, Member Proxy::*member) {
    const std::string name = name_of<Service>(method);
    all_.push_back({name, "", [=](const Json&, Instance instance, Deadline deadline) {
                      const auto proxy = connect<Proxy>(Service::name, deadline, instance);
                      return answer(((*proxy).*member)(), name, deadline);
                    }});
  }
  template <class Input, class Proxy, class Service, class Member>
  void add_with(std::string_view method, Member Proxy::*member, std::string_view input) {
    const std::string name = name_of<Service>(method);
    all_.push_back({name, input, [=](const Json& argument, Instance instance, Deadline deadline) {
                      const auto value = from_json<Input>(argument);
                      const auto proxy = connect<Proxy>(Service::name, deadline, instance);
                      return answer(((*proxy).*member)(value), name, deadline);
                    }});
  }
  /// The present value of a field.
  template <class Proxy, class Service, class Member>
  void add_field(std::string_view field, Member Proxy::*member) {
    const std::string name = name_of<Service>(field);
    all_.push_back({name, "", [=](const Json&, Instance instance, Deadline deadline) {
                      const auto proxy = connect<Proxy>(Service::name, deadline, instance);
                      return answer(((*proxy).*member).Get(), name, deadline);
                    }});
  }
  std::vector<Callable> take() { return std::move(all_); }

 private:
  /// A data identifier goes by its number: "d_14a0.Read".
  template <class Service>
  static std::string name_of(std::string_view element) {
    const std::string_view full = Service::name;
    const bool is_identifier = full.find("::diag::d_") != std::string_view::npos;
    const auto service = is_identifier ? lumo::services::diag::identifier_of(full)
                                       : mw::com::cpp_binding::short_name(full);
    return std::string(service) + "." + std::string(element);
  }

  std::vector<Callable> all_;
};

void add_statistics(Callables& all) {
  using binding::Statistics;
  using Proxy = binding::Statistics_proxy;
  all.add<Proxy, Statistics>("Counters", &Proxy::Counters);
  all.add<Proxy, Statistics>("Process", &Proxy::Process);
  all.add<Proxy, Statistics>("Ages", &Proxy::Ages);
  all.add<Proxy, Statistics>("Stamps", &Proxy::Stamps);
  all.add<Proxy, Statistics>("Clock", &Proxy::Clock);
  all.add<Proxy, Statistics>("Peers", &Proxy::Peers);
  all.add<Proxy, Statistics>("Diagnosis", &Proxy::Diagnosis);
  all.add<Proxy, Statistics>("Settings", &Proxy::Settings);
  all.add<Proxy, Statistics>("LogLevels", &Proxy::LogLevels);
  all.add_with<binding::Log_context_level, Proxy, Statistics>(
      "SetLogLevel", &Proxy::SetLogLevel, R"({"context": "GNSS", "level": "debug"})");
  all.add_with<std::uint64_t, Proxy, Statistics>("LogLines", &Proxy::LogLines, "0");
}

void add_fault_control(Callables& all) {
  using gateway::Fault_control;
  using Proxy = gateway::Fault_control_proxy;
  all.add<Proxy, Fault_control>("Kinds", &Proxy::Kinds);
  all.add<Proxy, Fault_control>("Faults", &Proxy::Faults);
  constexpr std::string_view input = R"({"fault": "jump=1000@5+10"})";
  all.add_with<gateway::Fault_order, Proxy, Fault_control>("Inject", &Proxy::Inject, input);
  all.add_with<gateway::Fault_order, Proxy, Fault_control>("Clear", &Proxy::Clear,
                                                           R"({"fault": "jump"})");
}

std::vector<Callable> callables() {
  using namespace lumo::services;
  using mw::dm::dem::DiagnosticMonitor;
  using mw::dm::dem::InitMonitorReason;
  using mw::dm::dem::proxy::DiagnosticMonitorProxy;
  Callables all;
  add_statistics(all);
  add_fault_control(all);
  using positioning::Positioning;
  using positioning::proxy::PositioningProxy;
  all.add_field<PositioningProxy, Positioning>("positions", &PositioningProxy::positions);
  all.add_field<PositioningProxy, Positioning>("posMapInfo", &PositioningProxy::posMapInfo);
  using gnss::proxy::GNSSProxy;
  all.add_field<GNSSProxy, gnss::GNSS>("positions", &GNSSProxy::positions);
  all.add_field<GNSSProxy, gnss::GNSS>("positionsQuality", &GNSSProxy::positionsQuality);
  all.add_field<GNSSProxy, gnss::GNSS>("posGnssSatInfos", &GNSSProxy::posGnssSatInfos);
  using time::proxy::TimeProxy;
  all.add_field<TimeProxy, time::Time>("times", &TimeProxy::times);
  all.add_field<TimeProxy, time::Time>("timeSettings", &TimeProxy::timeSettings);
  diag::for_each_interface<diag::Data_identifiers>([&]<class Interface>() {
    using Proxy = diag::Data_identifier_proxy<Interface>;
    constexpr std::string_view input = "an object of texts; without one {}";
    all.add_with<diag::Meta_info, Proxy, Interface>("Read", &Proxy::Read, input);
    all.add_with<diag::Meta_info, Proxy, Interface>("Cancel", &Proxy::Cancel, input);
  });
  all.add_with<InitMonitorReason, DiagnosticMonitorProxy, DiagnosticMonitor>(
      "InitMonitor", &DiagnosticMonitorProxy::InitMonitor,
      R"("kClear", with --instance 0xD101 for POS_Input_GNSS)");
  return all.take();
}

const Callable& callable_named(const std::vector<Callable>& all, const std::string& name) {
  const auto found = std::ranges::find(all, name, &Callable::name);
  if (found != all.end()) return *found;
  std::vector<std::string> names;
  for (const auto& one : all)
    names.push_back(one.name);
  throw tools::Usage_error("there is no method \"" + name + "\"" +
                           tools::did_you_mean(name, names) +
                           "\nposctl call without a name lists all.");
}

Json argument_of(const Callable& method, const std::string& text) {
  if (method.input.empty()) {
    if (text.empty()) return nullptr;
    throw tools::Usage_error(method.name + " takes no argument");
  }
  if (text.empty()) return Json::object();
  Json json = Json::parse(text, nullptr, false);
  if (json.is_discarded()) {
    throw tools::Usage_error("the argument is no JSON: \"" + text.substr(0, 80) +
                             "\"; expected such as " + std::string(method.input));
  }
  return json;
}

}  // namespace

int call(const Call_options& options) {
  const auto all = callables();
  if (options.method.empty()) {
    std::string text;
    for (const auto& one : all)
      text += one.name + (one.input.empty() ? "" : "  argument: " + std::string(one.input)) + "\n";
    tools::write_output(text);
    return 0;
  }
  const auto& method = callable_named(all, options.method);
  const Json argument = argument_of(method, options.argument);
  const Instance instance = options.instance == 0 ? std::nullopt : Instance(options.instance);
  const Json result = on_the_way(
      options.way, [&] { return method.call(argument, instance, deadline_in(options.timeout)); });
  const Json json{{"schema", 1}, {"method", method.name}, {"result", result}};
  tools::write_output(json.dump(2) + "\n");
  return 0;
}

}  // namespace posctl
