/// The fields of one NMEA 0183 sentence and the kinds of values in them.
///
/// A field of the wrong form reads as absent and marks the sentence as malformed. The other fields
/// of the sentence stay usable.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "tools/nmea/fix.h"

namespace nmea {

class Fields {
 public:
  /// `body` stands between '$' and '*'. Field 0 is the address.
  explicit Fields(std::string_view body);

  [[nodiscard]] std::size_t size() const { return count_; }
  /// A field beyond the sentence's end counts as empty: older versions of the standard have fewer.
  [[nodiscard]] std::string_view operator[](std::size_t index) const {
    return index < count_ ? fields_[index] : std::string_view{};
  }

  [[nodiscard]] bool malformed() const { return malformed_; }
  /// A field has the wrong form.
  void reject() { malformed_ = true; }
  /// The sentence marks its own values as void: placeholders are no faults.
  void forgive() { malformed_ = false; }

  std::optional<unsigned> unsigned_number(std::size_t index, unsigned max, int base = 10);
  /// One of `allowed`.
  std::optional<char> letter(std::size_t index, std::string_view allowed);

 private:
  std::array<std::string_view, 48> fields_{};
  std::size_t count_ = 0;
  bool malformed_ = false;
};

std::optional<double> number(Fields& fields, std::size_t index);
std::optional<double> number(Fields& fields, std::size_t index, double min, double max);
/// 0 stands for "unknown": no geometry has a dilution of 0.
std::optional<double> dilution(Fields& fields, std::size_t index);
/// A length; its unit stands in the field behind it.
std::optional<double> metres(Fields& fields, std::size_t index);
/// A speed in metres per second from a field in knots or kilometres per hour.
std::optional<double> knots(Fields& fields, std::size_t index);
std::optional<double> kilometres_per_hour(Fields& fields, std::size_t index);
/// A direction of 0 to 360 degrees.
std::optional<double> direction(Fields& fields, std::size_t index);
/// hhmmss[.s…]; the leap second 60 is a time.
std::optional<std::chrono::nanoseconds> time_of_day(Fields& fields, std::size_t index);
/// ddmmyy.
std::optional<std::chrono::year_month_day> short_date(Fields& fields, std::size_t index);
/// A date in three fields. Zeros stand for "unknown".
std::optional<std::chrono::year_month_day> long_date(Fields& fields, std::size_t index);
/// Latitude, hemisphere, longitude, hemisphere.
std::optional<Coordinates> coordinates(Fields& fields, std::size_t index);
/// A for valid, V for not.
std::optional<bool> status(Fields& fields, std::size_t index);
/// The mode letter that NMEA 2.3 and later put behind RMC, VTG, GLL and (one per system) into GNS.
std::optional<Fix_quality> mode(Fields& fields, std::size_t index);
std::optional<Fix_quality> quality_of(char mode_letter);

}  // namespace nmea
