// GSA and GSV. Field 0 is the address.
#include <algorithm>

#include "tools/nmea/sentence_parsers.h"

namespace nmea::detail {
namespace {

constexpr unsigned max_printed_number = 999;
constexpr unsigned max_group = 32;  ///< sentences

void take_system(Fields& fields, std::size_t index, Talker& talker) {
  if (const auto system_id = fields.unsigned_number(index, 15, 16)) {
    talker = talker_of_system_id(*system_id).value_or(talker);
  }
}

}  // namespace

std::optional<Content> parse_gsa(Fields& fields, Talker& talker) {
  Active_satellites result;
  fields.letter(1, "AM");
  if (const auto dimension = fields.unsigned_number(2, 3)) {
    if (*dimension == 0) {
      fields.reject();
    } else {
      result.dimension = static_cast<Fix_dimension>(*dimension);
    }
  }
  // Twelve satellites by the standard; the first number with a point is the position's dilution.
  const auto has_point = [&](std::size_t index) {
    return fields[index].find('.') != std::string_view::npos;
  };
  constexpr std::size_t first = 3;
  std::size_t dilutions = first;
  while (dilutions < fields.size() && !has_point(dilutions))
    ++dilutions;
  if (dilutions >= fields.size() || dilutions == first + 13 || dilutions == first + 14) {
    dilutions = first + 12;  // those before are empty
  }
  // Behind the three dilutions a fourth, the system (NMEA 4.1), or both.
  const std::size_t behind = dilutions + 3 + (has_point(dilutions + 3) ? 1 : 0);
  take_system(fields, behind, talker);
  for (std::size_t index = first; index < dilutions && result.used_count < result.used.size();
       ++index) {
    if (const auto id = fields.unsigned_number(index, max_printed_number); id.value_or(0) != 0) {
      result.used[result.used_count++] = satellite_number(talker, *id);
    }
  }
  result.pdop = dilution(fields, dilutions);
  result.hdop = dilution(fields, dilutions + 1);
  result.vdop = dilution(fields, dilutions + 2);
  return result;
}

std::optional<Content> parse_gsv(Fields& fields, Talker& talker) {
  Satellites_in_view result;
  result.total = fields.unsigned_number(1, max_group).value_or(0);
  result.number = fields.unsigned_number(2, max_group).value_or(0);
  result.in_view = fields.unsigned_number(3, 999).value_or(0);
  if (result.number == 0 || result.number > result.total) {
    fields.reject();
    return std::nullopt;
  }
  // Four fields for each satellite. One more behind them is the signal (NMEA 4.1); some receivers
  // add the system.
  constexpr std::size_t first = 4;
  std::size_t end = std::max(fields.size(), first);
  const std::size_t rest = (end - first) % 4;
  end -= rest;
  const bool signal_and_system =
      rest == 2 && fields[end].size() == 1 && fields[end + 1].size() == 1;
  if (rest == 1 || signal_and_system) {
    result.signal = static_cast<std::uint8_t>(fields.unsigned_number(end, 15, 16).value_or(0));
    if (signal_and_system) take_system(fields, end + 1, talker);
  } else if (rest != 0) {
    fields.reject();  // part of a satellite
  }
  for (std::size_t index = first; index < end; index += 4) {
    const auto id = fields.unsigned_number(index, max_printed_number);
    const auto elevation = number(fields, index + 1, -90, 90);
    const auto azimuth = number(fields, index + 2, 0, 360);
    const auto signal = number(fields, index + 3, 0, 99);
    if (id.value_or(0) == 0) continue;  // padding
    if (result.satellite_count == result.satellites.size()) {
      fields.reject();
      break;
    }
    const auto number = satellite_number(talker, *id);
    result.satellites[result.satellite_count++] = {
        .system = number.system,
        .id = number.id,
        .elevation = elevation,
        .azimuth = azimuth == 360 ? 0 : azimuth,
        .signal = signal,
    };
  }
  return result;
}

}  // namespace nmea::detail
