// GGA, GNS, RMC, GLL, VTG, PUBX,00. In all of them field 0 is the address.
#include <algorithm>
#include <array>
#include <string_view>

#include "tools/nmea/sentence_parsers.h"

namespace nmea::detail {
namespace {

/// A bad time leaves no instant to which the sentence could belong.
bool take_time(Fields& fields, std::size_t index, Navigation& result) {
  result.time_of_day = time_of_day(fields, index);
  return result.time_of_day.has_value() || fields[index].empty();
}

/// What stands in a sentence that is not valid may be a placeholder: zeros, or a latitude beyond
/// the pole.
std::optional<Content> finished(Fields& fields, Navigation& result) {
  if (result.quality == Fix_quality::none) result.valid = false;
  if (result.valid == false) {
    fields.forgive();
    if (result.position == Coordinates{}) result.position.reset();
  }
  return result;
}

struct Pubx_status {
  std::string_view letters;
  Fix_quality quality;
  std::optional<Fix_dimension> dimension;
};
/// RK is dead reckoning together with satellites, TT a time without a position.
constexpr std::array<Pubx_status, 8> pubx_statuses{{
    {"NF", Fix_quality::none, std::nullopt},
    {"TT", Fix_quality::none, std::nullopt},
    {"DR", Fix_quality::estimated, std::nullopt},
    {"G2", Fix_quality::autonomous, Fix_dimension::two},
    {"G3", Fix_quality::autonomous, Fix_dimension::three},
    {"D2", Fix_quality::differential, Fix_dimension::two},
    {"D3", Fix_quality::differential, Fix_dimension::three},
    {"RK", Fix_quality::autonomous, Fix_dimension::three},
}};

}  // namespace

std::optional<Content> parse_gga(Fields& fields) {
  Navigation result;
  result.type = Navigation_type::gga;
  if (!take_time(fields, 1, result)) return std::nullopt;
  result.position = coordinates(fields, 2);
  if (const auto quality = fields.unsigned_number(6, 9)) {
    // 9 is some receivers' number for corrections from a satellite.
    result.quality = *quality == 9 ? Fix_quality::differential : static_cast<Fix_quality>(*quality);
    result.valid = *quality != 0;
  }
  result.satellites_in_use = fields.unsigned_number(7, 999);
  result.hdop = dilution(fields, 8);
  result.altitude_msl = metres(fields, 9);
  result.geoid_separation = metres(fields, 11);
  result.age_of_corrections = number(fields, 13, 0, 999'999);
  return finished(fields, result);
}

std::optional<Content> parse_gns(Fields& fields) {
  Navigation result;
  result.type = Navigation_type::gns;
  if (!take_time(fields, 1, result)) return std::nullopt;
  result.position = coordinates(fields, 2);
  for (const char letter : fields[6]) {
    const auto quality = quality_of(letter);
    if (!quality) fields.reject();
    // The first system with a solution speaks for all.
    if (quality && result.quality.value_or(Fix_quality::none) == Fix_quality::none) {
      result.quality = quality;
    }
  }
  if (result.quality) result.valid = *result.quality != Fix_quality::none;
  result.satellites_in_use = fields.unsigned_number(7, 999);
  result.hdop = dilution(fields, 8);
  result.altitude_msl = number(fields, 9);
  result.geoid_separation = number(fields, 10);
  result.age_of_corrections = number(fields, 11, 0, 999'999);
  return finished(fields, result);
}

std::optional<Content> parse_rmc(Fields& fields) {
  Navigation result;
  result.type = Navigation_type::rmc;
  if (!take_time(fields, 1, result)) return std::nullopt;
  result.valid = status(fields, 2);
  result.position = coordinates(fields, 3);
  result.speed = knots(fields, 7);
  result.course = direction(fields, 8);
  result.date = short_date(fields, 9);
  result.quality = mode(fields, 12);
  return finished(fields, result);
}

std::optional<Content> parse_gll(Fields& fields) {
  Navigation result;
  result.type = Navigation_type::gll;
  if (!take_time(fields, 5, result)) return std::nullopt;
  result.position = coordinates(fields, 1);
  result.valid = status(fields, 6);
  result.quality = mode(fields, 7);
  return finished(fields, result);
}

std::optional<Content> parse_vtg(Fields& fields) {
  Navigation result;
  result.type = Navigation_type::vtg;
  result.course = direction(fields, 1);
  if (fields.size() == 5) {  // before NMEA 2: true, magnetic, knots, km/h without letters
    result.speed = knots(fields, 3);
    if (!result.speed) result.speed = kilometres_per_hour(fields, 4);
    return result;
  }
  fields.letter(2, "T");
  result.speed = knots(fields, 5);
  fields.letter(6, "N");
  if (!result.speed) result.speed = kilometres_per_hour(fields, 7);
  fields.letter(8, "K");
  if (mode(fields, 9) == Fix_quality::none) {
    fields.forgive();
    result.course.reset();
    result.speed.reset();
  }
  return result;
}

std::optional<Content> parse_pubx(Fields& fields) {
  Navigation result;
  result.type = Navigation_type::pubx;
  if (!take_time(fields, 2, result)) return std::nullopt;
  result.position = coordinates(fields, 3);
  result.altitude_ellipsoid = number(fields, 7);
  const auto* status =
      std::find_if(pubx_statuses.begin(), pubx_statuses.end(),
                   [&](const Pubx_status& candidate) { return candidate.letters == fields[8]; });
  if (status != pubx_statuses.end()) {
    result.quality = status->quality;
    result.dimension = status->dimension;
    result.valid = status->quality != Fix_quality::none;
  } else if (!fields[8].empty()) {
    fields.reject();
  }
  result.accuracy_horizontal = number(fields, 9, 0, 999'999'999);
  result.accuracy_vertical = number(fields, 10, 0, 999'999'999);
  result.speed = kilometres_per_hour(fields, 11);
  result.course = direction(fields, 12);
  if (const auto down = number(fields, 13)) result.climb = -*down;
  result.age_of_corrections = number(fields, 14, 0, 999'999);
  result.hdop = dilution(fields, 15);
  result.vdop = dilution(fields, 16);
  result.satellites_in_use = fields.unsigned_number(18, 999);
  return finished(fields, result);
}

}  // namespace nmea::detail
