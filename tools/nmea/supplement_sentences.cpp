// ZDA, GST, GBS, HDT, THS, PASHR, TXT: what a receiver tells beside its position. Field 0 is the
// address.
#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>
#include <utility>

#include "tools/nmea/sentence_parsers.h"

namespace nmea::detail {
namespace {

constexpr double max_error = 999'999;  // metres

std::optional<double> hypotenuse(Fields& fields, std::size_t index) {
  const auto one = number(fields, index, 0, max_error);
  const auto other = number(fields, index + 1, 0, max_error);
  if (!one || !other) return std::nullopt;
  return std::hypot(*one, *other);
}

}  // namespace

std::optional<Content> parse_zda(Fields& fields) {
  Clock result;
  result.time_of_day = time_of_day(fields, 1);
  result.date = long_date(fields, 2);
  return result;
}

std::optional<Content> parse_gst(Fields& fields) {
  Accuracy result;
  result.time_of_day = time_of_day(fields, 1);
  if (!result.time_of_day && !fields[1].empty()) return std::nullopt;
  // Errors of latitude and longitude, else the two axes of the error ellipse: the same length.
  result.horizontal = hypotenuse(fields, 6);
  if (!result.horizontal) result.horizontal = hypotenuse(fields, 3);
  result.vertical = number(fields, 8, 0, max_error);
  return result;
}

std::optional<Content> parse_gbs(Fields& fields) {
  Accuracy result;
  result.time_of_day = time_of_day(fields, 1);
  if (!result.time_of_day && !fields[1].empty()) return std::nullopt;
  result.horizontal = hypotenuse(fields, 2);
  result.vertical = number(fields, 4, 0, max_error);
  return result;
}

std::optional<Content> parse_hdt(Fields& fields) {
  Attitude result;
  result.heading = direction(fields, 1);
  fields.letter(2, "T");
  return result;
}

std::optional<Content> parse_ths(Fields& fields) {
  Attitude result;
  result.heading = direction(fields, 1);
  const auto mode = fields.letter(2, "AEMSV");
  if (mode == 'V') {
    fields.forgive();
    result.heading.reset();
  }
  return result;
}

// Several makers know this form. Others follow the address by a word: those tell something else.
std::optional<Content> parse_attitude(Fields& fields) {
  if (fields[3] != "T") return std::nullopt;
  if (!time_of_day(fields, 1) && !fields[1].empty()) return std::nullopt;
  Attitude result;
  if (fields.unsigned_number(10, 9) == 0U) return result;  // no solution
  result.heading = direction(fields, 2);
  result.roll = number(fields, 4, -180, 180);
  result.pitch = number(fields, 5, -90, 90);
  result.heading_accuracy = number(fields, 9, 0, 360);
  return result;
}

std::optional<Content> parse_txt(Fields& fields) {
  using Status = std::pair<std::string_view, Antenna>;
  constexpr std::array<Status, 5> statuses{{{"ANTSTATUS=OK", Antenna::ok},
                                            {"ANTSTATUS=OPEN", Antenna::open},
                                            {"ANTSTATUS=SHORT", Antenna::short_circuit},
                                            {"ANTSTATUS=INIT", Antenna::unknown},
                                            {"ANTSTATUS=DONTKNOW", Antenna::unknown}}};
  const auto* found = std::find_if(statuses.begin(), statuses.end(),
                                   [&](const Status& status) { return fields[4] == status.first; });
  if (found == statuses.end()) return std::nullopt;
  return Text{found->second};
}

}  // namespace nmea::detail
