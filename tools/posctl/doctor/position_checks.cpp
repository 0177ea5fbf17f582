/// Positions, their stamps, and the clock.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <optional>
#include <string>

#include "binding/timestamp.h"
#include "clients/position_selection.h"
#include "tools/posctl/doctor/checks.h"
#include "tools/posctl/doctor/store.h"

namespace posctl::doctor {

namespace {

using lumo::services::Position_type;
using Position = lumo::services::gnss::datatypes::DT_positions_struct;

/// With fewer notifications there is nothing to compare.
constexpr std::size_t enough = 3;

Position_type wanted_type() {
  return store_setting("useGNSSDR", true) ? Position_type::gnss_dr : Position_type::gnss;
}

/// The sample that the application would forward, of each notification that has one. The first
/// notification may repeat an old value.
std::vector<std::pair<Position, std::chrono::nanoseconds>> forwarded(const Facts& facts) {
  std::vector<std::pair<Position, std::chrono::nanoseconds>> positions;
  for (std::size_t i = 1; i < facts.positions.size(); ++i) {
    const auto& one = facts.positions[i];
    if (const auto* chosen = gnssClient::select(one.samples, wanted_type()).chosen)
      positions.emplace_back(*chosen, one.received);
  }
  return positions;
}

std::string duration_text(double seconds) {
  char text[32];
  if (seconds >= 3600) {
    std::snprintf(text, sizeof text, "%.1f h", seconds / 3600);
  } else {
    std::snprintf(text, sizeof text, "%.1f s", seconds);
  }
  return text;
}

/// Of the forwarded positions: their age in the middle, in seconds; negative: in the future.
std::optional<double> median_age(const Facts& facts) {
  std::vector<double> ages;
  for (const auto& [position, received] : forwarded(facts)) {
    if (const auto stamp = binding::timestamp_of(position))
      ages.push_back(std::chrono::duration<double>(received - stamp->since_epoch()).count());
  }
  if (ages.empty()) return std::nullopt;
  std::ranges::nth_element(ages, ages.begin() + static_cast<std::ptrdiff_t>(ages.size() / 2));
  return ages[ages.size() / 2];
}

}  // namespace

void check_position_type(const Facts& facts, Findings& findings) {
  if (facts.positions.size() <= enough || !forwarded(facts).empty()) return;
  const auto wanted = wanted_type();
  findings.fault("the source sends no sample of the type that the application forwards",
                 std::to_string(facts.positions.size()) + " notifications have no sample of type " +
                     std::string(binding::name_of(wanted)),
                 std::string("set useGNSSDR to ") +
                     (wanted == Position_type::gnss_dr ? "false" : "true") + " in " +
                     store_path().value_or("the key-value storage") +
                     ", restart the application; or let the source send this type");
}

void check_physical_values(const Facts& facts, Findings& findings) {
  const auto positions = forwarded(facts);
  if (positions.size() < enough) return;
  const auto physical = [](const auto& one) {
    using binding::Value_type;
    return one.first.LAT_valueType == Value_type::physical_value &&
           one.first.LON_valueType == Value_type::physical_value;
  };
  if (std::ranges::any_of(positions, physical)) return;
  findings.fault(
      "the source has no position fix",
      "the coordinates of " + std::to_string(positions.size()) + " samples are not physical values",
      "look at the receiver and its antenna: sky, cable, posctl read d_1191");
}

void check_standing_values(const Facts& facts, Findings& findings) {
  const auto positions = forwarded(facts);
  if (positions.size() < enough) return;
  const Position& first = positions.front().first;
  const auto same = [&](const auto& member) {
    return first.*member && std::ranges::all_of(positions, [&](const auto& one) {
             return one.first.*member == first.*member;
           });
  };
  constexpr float moving = 1.0F;
  const bool counter_stands = same(&Position::messageCounter);
  const bool place_stands =
      same(&Position::LAT) && same(&Position::LON) && first.speed2D && *first.speed2D > moving;
  if (!counter_stands && !place_stands) return;
  findings.fault(
      "the source repeats one and the same position",
      std::to_string(positions.size()) + " notifications have " +
          (counter_stands ? "messageCounter " + std::to_string(*first.messageCounter)
                          : "the same coordinates at " + std::to_string(*first.speed2D) + " m/s"),
      "restart the source; look at the receiver behind it");
}

void check_stamps(const Facts& facts, Findings& findings) {
  constexpr double most_seconds = 5;
  const auto age = median_age(facts);
  if (age && std::abs(*age) > most_seconds) {
    findings.fault("the stamps of the positions are " + duration_text(std::abs(*age)) +
                       (*age > 0 ? " old" : " in the future"),
                   "compared with the time base of this machine at their arrival",
                   "the clock of one machine is off: date on both; chronyc tracking or pmc 'GET "
                   "TIME_STATUS_NP'; POS_TIME_BASE must be the same time scale on both");
    return;
  }
  if (age || !facts.before || !facts.after) return;
  const auto future = facts.after->stamps.inFuture - facts.before->stamps.inFuture;
  if (future >= enough &&
      future * 2 > facts.after->stamps.notifications - facts.before->stamps.notifications) {
    findings.fault("the stamps of the positions are in the future",
                   std::to_string(future) + " notifications while doctor looked (posctl stats)",
                   "the clock of one machine is off: date on both");
  }
}

void check_standing_stamps(const Facts& facts, Findings& findings) {
  if (!facts.before || !facts.after) return;
  const auto standing = facts.after->stamps.standingStill - facts.before->stamps.standingStill;
  const auto all = facts.after->stamps.notifications - facts.before->stamps.notifications;
  if (standing < enough || standing * 2 < all) return;
  findings.fault("the stamps of the positions stand still",
                 std::to_string(standing) + " of " + std::to_string(all) +
                     " notifications repeat the stamp before (posctl stats)",
                 "restart the source; look at its clock and at the receiver behind it");
}

void check_clock(const Facts& facts, Findings& findings) {
  if (!facts.after) return;
  const auto& clock = facts.after->clock;
  constexpr std::uint32_t many = 3;
  const bool stepped = facts.before && clock.steps > facts.before->clock.steps;
  if (stepped || clock.steps >= many) {
    findings.fault(
        "the clock of the application's machine is set again and again",
        std::to_string(clock.steps) + " steps since the application started",
        "let one program only set the clock: systemctl list-units '*ntp*' '*chrony*' '*ptp*'");
  }
  if (!clock.synchronised) {
    findings.note("the clock of the application's machine is not synchronised",
                  "adjtimex() says so; ages are as wrong as this clock",
                  "systemctl enable --now chrony, or ptp4l and phc2sys");
  }
}

}  // namespace posctl::doctor
