#include "tools/posctl/explain.h"

#include <algorithm>
#include <array>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

#include "clients/GNSS.h"
#include "clients/Time.h"
#include "posService/positioning_records.h"

namespace posctl {
namespace {

using namespace lumo::services;

/// A big-endian number.
std::int64_t number(std::span<const std::uint8_t> bytes, bool is_signed) {
  std::int64_t value = is_signed && (bytes[0] & 0x80U) != 0 ? -1 : 0;
  for (const std::uint8_t byte : bytes)
    value = value * 256 + byte;
  return value;
}

/// Of the system status bytes, in order.
constexpr std::array<std::string_view, diagnosisService::system_count> system_functions{
    "overall", "pgf",     "system2", "lbl",      "system4",  "system5",     "system6",
    "system7", "system8", "system9", "system10", "system11", "mapMatching", "system13"};

/// Names the element at a place of the interface's description, counted from 1.
template <class Service>
void name_element(Json& fault, std::uint8_t element) {
  if (element == 0) return;
  fault["element"] = element;  // stays for one that the interface does not have
  std::apply(
      [&, place = std::uint8_t{0}](const auto&... elements) mutable {
        ((++place == element ? void(fault["element"] = elements.name) : void()), ...);
      },
      Service::elements);
}

/// At this number of occurrences the application stops counting.
constexpr std::uint64_t most_occurrences = 0xFFFF;

/// What a fault of a kind means, while it is present and when it has gone.
struct Fault_words {
  const char* present;
  const char* gone;
};
/// In the order of Data_bus_fault.
constexpr std::array<Fault_words, 3> fault_words{{
    {"is missing now", "is available again, it was missing"},
    {"sends error values now", "no longer sends error values, it did so"},
    {"sends implausible values now", "no longer sends implausible values, it did so"},
}};

}  // namespace

std::string ordinal(std::uint64_t number) {
  constexpr std::array<const char*, 4> endings{"th", "st", "nd", "rd"};
  const std::uint64_t last = number % 100 / 10 == 1 ? 0 : number % 10;
  return std::to_string(number) + endings[last < endings.size() ? last : 0];
}

Json explain(const diag::PositioningStatusInputs& statuses) {
  return to_json(statuses);
}

Json explain(const diag::PositioningStatusOutputs& statuses) {
  return to_json(statuses);
}

Json explain(const diag::PositioningStatusSystem& statuses) {
  Json json;
  std::size_t place = 0;
  const auto add = [&](unsigned byte) { json[std::string(system_functions.at(place++))] = byte; };
  binding::for_each_member<diag::PositioningStatusSystem>([&]<class M>(const M& member) {
    const unsigned value = statuses.*member.pointer;
    if constexpr (sizeof(typename M::value_type) == 2) add(value >> 8U);
    add(value & 0xFFU);
  });
  return json;
}

Json explain(const diag::PositioningMMPos& position) {
  const unsigned validity = position.state.validity;
  const unsigned matching = position.state.matching;
  Json json;
  const auto add = [&](std::string_view name, std::span<const std::uint8_t> bytes, bool is_signed,
                       double divisor, unsigned valid_bit) {
    Json& value = json[std::string(name)];
    if ((validity >> valid_bit & 1U) != 0) {
      value = static_cast<double>(number(bytes, is_signed)) / divisor;
    }
  };
  add("latitude", position.latitude, true, 1e9, 0);
  add("longitude", position.longitude, true, 1e9, 1);
  add("altitude", position.altitude, true, 100, 2);
  add("timeOfDay", position.timeOfDay, false, 100, 3);
  json["statusMap"] = validity >> 4U;
  json["statusMapMatching"] = matching & 0xFU;
  json["positionSource"] = to_json(positioning::datatypes::Position_source{matching >> 4U});
  return json;
}

Json explain(const diag::Fault_entry& fault) {
  Json json{{"service", to_json(fault.service)}};
  switch (fault.service) {
    case diag::Faulty_service::gnss:
      name_element<gnss::GNSS>(json, fault.element);
      break;
    case diag::Faulty_service::time:
      name_element<time::Time>(json, fault.element);
      break;
    default:
      json["element"] = fault.element;
      break;
  }
  json["present"] = fault.present;
  json["occurrences"] = fault.occurrences;
  return json;
}

Json explain(const binding::Fault_age& fault) {
  return explain(diag::Fault_entry{diag::Faulty_service{fault.service}, fault.element,
                                   fault.present, fault.occurrences});
}

std::vector<diag::Fault_entry> fault_entries(std::span<const std::uint8_t> bytes) {
  using Codec = binding::Codec<diag::Fault_entry>;
  const auto entry_size = Codec::size({}, binding::settings_of<diag::Fault_entry>);
  if (bytes.size() % entry_size != 0) {
    throw std::runtime_error("a record of data-bus faults has " + std::to_string(bytes.size()) +
                             " bytes, a multiple of " + std::to_string(entry_size) +
                             " is expected");
  }
  std::vector<diag::Fault_entry> entries(bytes.size() / entry_size);
  binding::Cursor cursor{std::as_bytes(bytes)};
  for (auto& entry : entries)
    binding::decode(cursor, entry);
  return entries;
}

std::string status_name(std::uint8_t status) {
  const auto name = binding::name_of(diag::Status{status});
  return name.empty() ? std::to_string(status) : std::string(name);
}

std::string function_of(const binding::Status_age& status) {
  static const auto names = [] {
    std::map<diag::Status_group, std::vector<std::string>> of_groups;
    diag::for_each_interface<diag::Status_identifiers>([&]<class Interface>() {
      using Output = typename Interface::Output;
      if constexpr (requires { Output::group; }) {
        const Json bytes = explain(Output{});
        for (const auto& [name, byte] : bytes.items())
          of_groups[Output::group].push_back(name);
      }
    });
    return of_groups;
  }();
  const auto group = names.find(diag::Status_group{status.group});
  return group == names.end() || status.byte >= group->second.size() ? ""
                                                                     : group->second[status.byte];
}

const binding::Status_age* status_of(const diagnosisService::Monitor& monitor,
                                     const binding::Diagnosis_state& state) {
  // A peer may send any number as a group, also that of a monitor without a status byte.
  if (monitor.group == diag::Status_group::none) return nullptr;
  const auto found = std::ranges::find_if(state.statuses, [&](const auto& one) {
    return diag::Status_group{one.group} == monitor.group && one.byte == monitor.byte;
  });
  return found == state.statuses.end() ? nullptr : &*found;
}

std::string fault_subject(const Json& fault) {
  const auto plain = [](const Json& name) {
    return name.is_string() ? name.get<std::string>() : name.dump();
  };
  const std::string service = plain(fault["service"]);
  return fault.contains("element") ? service + "." + plain(fault["element"]) : service;
}

std::string fault_text(diag::Data_bus_fault kind, const Json& fault) {
  std::string text = fault_subject(fault);
  const auto& words = fault_words.at(static_cast<std::size_t>(kind));
  const auto occurrences = fault["occurrences"].get<std::uint64_t>();
  if (fault["present"].get<bool>()) {
    text.append(" ").append(words.present) += ", for the " + ordinal(occurrences) + " time";
  } else {
    text.append(" ").append(words.gone) +=
        occurrences == 1 ? " once" : " " + std::to_string(occurrences) + " times";
  }
  return occurrences < most_occurrences ? text : text + " or more";
}

}  // namespace posctl
