#include "tools/nmea/merging.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace nmea {

void add_signal(std::vector<Satellite>& satellites, const Satellite& satellite) {
  const auto known =
      std::find_if(satellites.begin(), satellites.end(), [&](const Satellite& other) {
        return other.system == satellite.system && other.id == satellite.id;
      });
  if (known == satellites.end()) {
    satellites.push_back(satellite);
    return;
  }
  if (!known->elevation) known->elevation = satellite.elevation;
  if (!known->azimuth) known->azimuth = satellite.azimuth;
  if (known->signal < satellite.signal) known->signal = satellite.signal;
  known->in_use = known->in_use || satellite.in_use;
}

}  // namespace nmea

namespace nmea::detail {
namespace {

std::vector<Satellite> merged(const std::vector<View>& views) {
  std::vector<Satellite> satellites;
  for (const auto& view : views) {
    for (const auto& satellite : view.satellites)
      add_signal(satellites, satellite);
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

// Sentences of one instant print the same values, with different numbers of digits.
constexpr double position_tolerance = 0.02 / 60;  // degrees: two decimals of a minute, rounded
constexpr double altitude_tolerance = 5;          // metres
constexpr double speed_tolerance = 1;             // metres per second
constexpr double course_tolerance = 5;            // degrees
constexpr double min_course_speed = 3;            // metres per second: below it a course is noise

bool agree(const Coordinates& one, const Coordinates& other) {
  return std::abs(one.latitude - other.latitude) <= position_tolerance &&
         std::abs(std::remainder(one.longitude - other.longitude, 360)) <= position_tolerance;
}

/// `value` gives an optional of a sentence, `agree` compares two of them.
void judge_by(Navigation_sentences& sentences, auto&& value, auto&& agree) {
  const auto tells = [&](const std::optional<Reported_navigation>& told) {
    return told && told->believed && told->sentence.valid != false && value(told->sentence);
  };
  const std::optional<Reported_navigation>* reference = nullptr;
  std::ptrdiff_t most = 0;
  for (const auto& candidate : sentences) {
    if (!tells(candidate)) continue;
    const auto votes = std::count_if(sentences.begin(), sentences.end(), [&](const auto& other) {
      return tells(other) && agree(*value(candidate->sentence), *value(other->sentence));
    });
    if (votes > most) {
      most = votes;
      reference = &candidate;
    }
  }
  if (reference == nullptr) return;
  const auto believed = *value((*reference)->sentence);
  for (auto& told : sentences) {
    if (tells(told) && !agree(believed, *value(told->sentence))) told->believed = false;
  }
}

}  // namespace

void judge(Navigation_sentences& sentences) {
  const auto within = [](double tolerance) {
    return [tolerance](double one, double other) { return std::abs(one - other) <= tolerance; };
  };
  judge_by(
      sentences, [](const Navigation& told) { return told.position; }, agree);
  judge_by(
      sentences, [](const Navigation& told) { return told.altitude_msl; },
      within(altitude_tolerance));
  judge_by(
      sentences, [](const Navigation& told) { return told.speed; }, within(speed_tolerance));
  judge_by(
      sentences,
      [](const Navigation& told) {
        return told.speed.value_or(0) >= min_course_speed ? told.course : std::nullopt;
      },
      [](double one, double other) {
        return std::abs(std::remainder(one - other, 360)) <= course_tolerance;
      });
}

void take(const Navigation& navigation, Fix& fix) {
  complete(fix.position, navigation.position);
  complete(fix.altitude_msl, navigation.altitude_msl);
  complete(fix.altitude_ellipsoid, navigation.altitude_ellipsoid);
  complete(fix.geoid_separation, navigation.geoid_separation);
  complete(fix.speed, navigation.speed);
  complete(fix.course, navigation.course);
  complete(fix.climb, navigation.climb);
  complete(fix.accuracy_horizontal, navigation.accuracy_horizontal);
  complete(fix.accuracy_vertical, navigation.accuracy_vertical);
  complete(fix.hdop, navigation.hdop);
  complete(fix.vdop, navigation.vdop);
  complete(fix.dimension, navigation.dimension);
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
  complete(fix.hdop, sky.hdop);
  complete(fix.vdop, sky.vdop);
  if (sky.dimension) fix.dimension = sky.dimension;
  if (sky.used_reported) {
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
