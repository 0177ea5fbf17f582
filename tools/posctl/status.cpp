#include <array>
#include <cmath>
#include <cstdio>
#include <span>
#include <stdexcept>
#include <string>

#include "ara/time/slave_time_base.h"
#include "binding/timestamp.h"
#include "posService/Positioning.h"
#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/explain.h"
#include "tools/posctl/statistics_page.h"

namespace posctl {
namespace {

using namespace lumo::services::diag;
using binding::Statistics;
using binding::Statistics_proxy;
using lumo::services::positioning::Positioning;
using lumo::services::positioning::proxy::PositioningProxy;

/// Searches for a data identifier from construction on.
template <class Interface>
class Data_identifier {
 public:
  [[nodiscard]] Json read(Deadline deadline) {
    const auto proxy = search_.proxy(deadline);
    return explain(result_of(proxy->Read({}), Interface::name, deadline));
  }

 private:
  Search<Data_identifier_proxy<Interface>> search_{Interface::name};
};

/// Replaces each status byte by its text.
Json named(Json statuses) {
  for (auto& status : statuses)
    status = status_name(status.get<std::uint8_t>());
  return statuses;
}

/// The last record of a field. With more than a time stamp in it, also its age on our time base.
template <class Records>
Json last_of(const Records& records) {
  if (records.empty()) return {{"record", Json::object()}};
  const auto& record = records.back();
  Json json{{"record", to_json(record)}};
  if (is_stamp_only(json["record"])) return json;
  if (const auto timestamp = binding::timestamp_of(record)) {
    using Proxy = ara::time::SlaveTimeBaseResourceProxy;
    const auto now = Proxy(Proxy::FindResource("synchronized")).asSynchSlave().getCurrentTime();
    json["ageS"] = static_cast<double>((now - timestamp->since_epoch()).count()) / 1e9;
  }
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
  Search<PositioningProxy> positioning_search(Positioning::name);
  Search<Statistics_proxy> statistics_search(Statistics::name);
  Data_identifier<d_14a0::DataIdentifier_PositioningStatusInputs> inputs;
  Data_identifier<d_14a1::DataIdentifier_PositioningStatusOutputs> outputs;
  Data_identifier<d_14a2::DataIdentifier_PositioningMMPos> map_matched;
  Data_identifier<d_14a3::DataIdentifier_PositioningStatusSystem> system;
  Data_identifier<d_1190::DataIdentifier_BDPSomeipDataBusServiceNotAvailable> not_available;
  Data_identifier<d_1191::DataIdentifier_BDPSomeipDataBusServiceErrorValueReceived> error_value;
  Data_identifier<d_1192::DataIdentifier_BDPSomeipDataBusServiceImplausible> implausible;

  const auto positioning = positioning_search.proxy(deadline);
  const auto statistics_service = statistics_search.proxy(deadline);
  const Json statistics = read_statistics(*statistics_service, deadline);
  Json json;
  for (const auto* part : {"process", "clock", "stamps", "ages"})
    json[part] = statistics[part];
  json["position"] =
      last_of(result_of(positioning->positions.Get(), Positioning::positions.name, deadline));
  json["mapInfo"] =
      last_of(result_of(positioning->posMapInfo.Get(), Positioning::posMapInfo.name, deadline));
  json["mapMatched"] = map_matched.read(deadline);
  json["inputs"] = named(inputs.read(deadline));
  json["outputs"] = named(outputs.read(deadline));
  json["system"] = named(system.read(deadline));
  json["dataBus"]["notAvailable"] = not_available.read(deadline)["faults"];
  json["dataBus"]["errorValueReceived"] = error_value.read(deadline)["faults"];
  json["dataBus"]["implausible"] = implausible.read(deadline)["faults"];
  json["counters"] = not_zero(statistics["counters"]);
  return json;
}

/// A member of a record on the page.
struct Shown {
  const char* member;
  const char* name;
  int digits;
  const char* unit;
};
constexpr std::array position_members{Shown{"LAT", "latitude", 7, "deg"},
                                      Shown{"LON", "longitude", 7, "deg"},
                                      Shown{"altitudeMeanSeaLevel", "altitude", 1, "m"},
                                      Shown{"accuracyHorizontal", "accuracy", 1, "m"},
                                      Shown{"yawAngle", "heading", 1, "deg"},
                                      Shown{"speed2D", "speed", 2, "m/s"},
                                      Shown{"messageCounter", "message", 0, ""}};
constexpr std::array map_matched_members{Shown{"latitude", "latitude", 7, "deg"},
                                         Shown{"longitude", "longitude", 7, "deg"},
                                         Shown{"altitude", "altitude", 1, "m"},
                                         Shown{"positionSource", "position source", 0, ""},
                                         Shown{"statusMap", "map status", 0, ""},
                                         Shown{"statusMapMatching", "map matching status", 0, ""}};

/// The initial value of the positions is none, and a sample without a fix has no coordinates.
std::string position_title(const Json& last) {
  const Json& record = last["record"];
  if (is_stamp_only(record)) return "Position: none yet";
  return record.contains("LAT") && record.contains("LON") ? "Position"
                                                          : "Sample without a position";
}

std::string with_age(std::string title, const Json& last, const Json& clock) {
  if (last.contains("ageS")) title += ", " + decimal(last, "ageS", 3, "s old") + clock_mark(clock);
  return title;
}

std::string time_of_day(const Json& position) {
  if (position["timeOfDay"].is_null()) return "-";
  const auto seconds = position["timeOfDay"].get<double>();
  const auto whole = static_cast<unsigned>(seconds);
  std::array<char, 48> text{};
  std::snprintf(text.data(), text.size(), "%02u:%02u:%05.2f", whole / 3600, whole / 60 % 60,
                std::fmod(seconds, 60.0));
  return text.data();
}

/// Leaves out reserved functions that are nominal.
Json worth_showing(const Json& system) {
  Json shown;
  for (const auto& [name, status] : system.items()) {
    if (!name.starts_with("system") || status != status_name(0)) shown[name] = status;
  }
  return shown;
}

void print_section(Page& page, std::string_view title, const Json& values) {
  page.section(title);
  for (const auto& [name, value] : values.items())
    page.item(name, value.is_string() ? value.get<std::string>() : value.dump());
}

void print_members(Page& page, std::span<const Shown> members, const Json& record) {
  for (const Shown& one : members)
    page.item(one.name, decimal(record, one.member, one.digits, one.unit));
}

void print_faults(Page& page, std::string_view what, Data_bus_fault kind, const Json& faults) {
  if (faults.empty()) page.line(std::string(what) + ": never");
  for (const auto& fault : faults)
    page.line(fault_text(kind, fault));
}

std::string page_of(const Json& json) {
  Page page;
  print_process(page, json["process"]);
  page.section(with_age(position_title(json["position"]), json["position"], json["clock"]));
  print_members(page, position_members, json["position"]["record"]);
  page.section("Map-matched position");
  print_members(page, map_matched_members, json["mapMatched"]);
  page.item("time of day", time_of_day(json["mapMatched"]));
  Json map_info = json["mapInfo"]["record"];
  map_info.erase("preciseLocalTimeSeconds");
  map_info.erase("preciseLocalTimeNanoseconds");
  print_section(page, with_age("Map information", json["mapInfo"], json["clock"]), map_info);
  print_clock(page, json["clock"]);
  print_ages(page, json);
  print_section(page, "Inputs", json["inputs"]);
  print_section(page, "Outputs", json["outputs"]);
  print_section(page, "System", worth_showing(json["system"]));
  page.section("Consumed services");
  const Json& faults = json["dataBus"];
  print_faults(page, "not available", Data_bus_fault::not_available, faults["notAvailable"]);
  print_faults(page, "error value received", Data_bus_fault::error_value_received,
               faults["errorValueReceived"]);
  print_faults(page, "implausible", Data_bus_fault::implausible, faults["implausible"]);
  print_counters(page, json["counters"]);
  return page.take();
}

}  // namespace

int status(const Look_options& options) {
  const Json json = on_the_way(options.way, [&] {
    try {
      return read_all(deadline_in(options.timeout));
    } catch (const std::exception& error) {
      throw std::runtime_error(std::string("the application does not answer: ") + error.what());
    }
  });
  tools::write_output(options.json ? json.dump() + "\n" : page_of(json));
  return 0;
}

}  // namespace posctl
