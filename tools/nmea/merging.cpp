#include "tools/nmea/merging.h"

#include <algorithm>

namespace nmea::detail {
namespace {

/// Each satellite once, with its strongest signal.
std::vector<Satellite> merged(const std::vector<View>& views) {
  std::vector<Satellite> satellites;
  for (const auto& view : views) {
    for (const auto& satellite : view.satellites) {
      const auto known =
          std::find_if(satellites.begin(), satellites.end(), [&](const Satellite& other) {
            return other.system == satellite.system && other.id == satellite.id;
          });
      if (known == satellites.end()) {
        satellites.push_back(satellite);
        continue;
      }
      complete(known->elevation, satellite.elevation);
      complete(known->azimuth, satellite.azimuth);
      if (known->signal < satellite.signal) known->signal = satellite.signal;
    }
  }
  return satellites;
}

/// Each talker says how many satellites it sees, once for each of its signals; with several signals
/// in one group the number counts signals.
unsigned number_in_view(const std::vector<View>& views, std::size_t listed) {
  std::array<unsigned, talker_count> in_view{};
  for (const auto& view : views) {
    auto& of_talker = in_view.at(static_cast<std::size_t>(view.talker));
    if (!view.several_signals) of_talker = std::max(of_talker, view.in_view);
  }
  unsigned total = 0;
  for (const unsigned count : in_view)
    total += count;
  return std::max(total, static_cast<unsigned>(listed));
}

}  // namespace

void take(const Navigation& navigation, Fix& fix) {
  complete(fix.position, navigation.position);
  complete(fix.altitude_msl, navigation.altitude_msl);
  complete(fix.geoid_separation, navigation.geoid_separation);
  complete(fix.speed, navigation.speed);
  complete(fix.course, navigation.course);
  complete(fix.hdop, navigation.hdop);
  if (navigation.quality && fix.quality.value_or(Fix_quality::none) == Fix_quality::none) {
    fix.quality = navigation.quality;
  }
  // Some receivers print an age of 0 while they use no corrections.
  const auto quality = navigation.quality.value_or(Fix_quality::none);
  if (quality >= Fix_quality::differential && quality <= Fix_quality::rtk_float) {
    complete(fix.age_of_corrections, navigation.age_of_corrections);
  }
  if (navigation.satellites_in_use) {
    fix.satellites_in_use =
        std::max(fix.satellites_in_use.value_or(0), *navigation.satellites_in_use);
  }
}

void take(const Sky& sky, Fix& fix) {
  fix.pdop = sky.pdop;
  fix.vdop = sky.vdop;
  fix.dimension = sky.dimension;
  complete(fix.hdop, sky.hdop);
  if (sky.used_told) {
    const auto listed = static_cast<unsigned>(sky.used.size());
    fix.satellites_in_use = std::max(fix.satellites_in_use.value_or(0), listed);
  }
  if (sky.views.empty()) return;

  auto& satellites = fix.satellites.emplace(merged(sky.views));
  fix.satellites_in_view = number_in_view(sky.views, satellites.size());
  unsigned tracked = 0;
  for (auto& satellite : satellites) {
    satellite.in_use =
        std::find(sky.used.begin(), sky.used.end(),
                  Satellite_number{satellite.system, satellite.id}) != sky.used.end();
    if (satellite.signal.value_or(0) > 0) ++tracked;
  }
  fix.satellites_tracked = tracked;
}

}  // namespace nmea::detail
