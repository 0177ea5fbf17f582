#include "tools/posctl/status_page.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <span>

#include "tools/posctl/statistics_page.h"
#include "tools/posctl/verdict.h"

namespace posctl {
namespace {

using lumo::services::diag::Data_bus_fault;
using lumo::services::diag::Status_group;

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
                                         Shown{"statusMap", "map status", 0, ""},
                                         Shown{"positionSource", "position source", 0, ""},
                                         Shown{"statusMapMatching", "map matching status", 0, ""}};

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

void print_members(Page& page, std::span<const Shown> members, const Json& record) {
  for (const Shown& one : members)
    page.item(one.name, decimal(record, one.member, one.digits, one.unit));
}

void print_verdict(Page& page, const Json& status, bool coloured) {
  const auto health = status["verdict"].get<std::string>();
  const char* const colour = health == "healthy"    ? "\033[1;32m"
                             : health == "degraded" ? "\033[1;33m"
                                                    : "\033[1;31m";
  const std::string word = coloured ? colour + health + "\033[0m" : health;
  page.section(word + ": " + status["reason"].get<std::string>());
  for (std::size_t i = 1; i < status["findings"].size(); ++i)
    page.line("also: " + status["findings"][i].get<std::string>());
}

void print_position(Page& page, const Json& status) {
  const Json& position = status["position"];
  const Json& record = position["record"];
  if (position["none"].get<bool>()) {
    page.section("Position: none yet");
    return;
  }
  const bool has_place = record.contains("LAT") && record.contains("LON");
  page.section(
      with_age(has_place ? "Position" : "Sample without a position", position, status["clock"]));
  print_members(page, position_members, record);
}

void print_map_matched(Page& page, const Json& status) {
  const Json& map_matched = status["mapMatched"];
  if (map_matched["latitude"].is_null() && map_matched["timeOfDay"].is_null()) {
    page.section("Map-matched position: none yet");
  } else {
    page.section("Map-matched position");
    print_members(page, map_matched_members, map_matched);
    page.item("time of day", time_of_day(map_matched));
  }
  if (status["mapInfo"]["none"].get<bool>()) return;
  page.section(with_age("Map information", status["mapInfo"], status["clock"]));
  for (const auto& [name, value] : status["mapInfo"]["record"].items()) {
    if (!name.starts_with("preciseLocalTime")) page.item(name, value.dump());
  }
}

/// Leaves out reserved functions that are nominal.
void print_statuses(Page& page, const char* title, const char* group, const Json& status) {
  page.section(title);
  for (const auto& [name, value] : status[group].items()) {
    const auto state = value.get<std::string>();
    const bool reserved = name.starts_with("system");
    if (reserved && state == binding::name_of(lumo::services::diag::Status::nominal)) continue;
    std::array<char, 128> line{};
    std::snprintf(line.data(), line.size(), "%-20s %-12s since %s  %s", name.c_str(), state.c_str(),
                  clock_time(status["sinceS"][group][name].get<double>()).c_str(),
                  reserved ? "reserved" : meaning_of_status(name, state).c_str());
    page.line(line.data());
  }
}

void print_services(Page& page, const Json& status) {
  page.section("Consumed services");
  bool faultless = true;
  for (const auto& [kind, name] : binding::enumerators<Data_bus_fault>) {
    for (const auto& fault : status["dataBus"][member_of(kind)]) {
      page.line(fault_sentence(kind, fault));
      faultless = false;
    }
  }
  if (faultless) page.line("no fault since the start");
}

}  // namespace

std::string status_page(const Json& status, bool coloured) {
  Page page;
  print_verdict(page, status, coloured);
  print_position(page, status);
  print_map_matched(page, status);
  print_ages(page, status);
  print_statuses(page, "Inputs", member_of(Status_group::input), status);
  print_statuses(page, "Outputs", member_of(Status_group::output), status);
  print_statuses(page, "System functions", member_of(Status_group::system), status);
  print_services(page, status);
  print_clock(page, status["clock"]);
  print_process(page, status["process"]);
  print_counters(page, status["counters"]);
  return page.take();
}

}  // namespace posctl
