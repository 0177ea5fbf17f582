#include "tools/nmea/fields.h"

#include <algorithm>
#include <charconv>

#include "tools/from_seconds.h"

namespace nmea {
namespace {

std::string_view trimmed(std::string_view text) {
  while (text.starts_with(' '))
    text.remove_prefix(1);
  while (text.ends_with(' '))
    text.remove_suffix(1);
  return text;
}

/// A decimal number as its digits: numerator / scale, both exact in a double, so that one division
/// gives the double nearest to what is printed.
struct Decimal {
  std::int64_t numerator = 0;
  std::int64_t scale = 1;
  [[nodiscard]] double value() const {
    return static_cast<double>(numerator) / static_cast<double>(scale);
  }
};

/// Digits behind the point from the tenth on are cut off: 10^-9 minutes of arc are 2 micrometres.
constexpr std::size_t max_decimals = 9;

std::optional<Decimal> to_decimal(std::string_view text, std::size_t max_integer_digits) {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  const std::size_t point = std::min(text.find('.'), text.size());
  const std::string_view integer = text.substr(0, point);
  const std::string_view fraction =
      point < text.size() ? text.substr(point + 1) : std::string_view{};
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  if (integer.size() + fraction.size() == 0 || integer.size() > max_integer_digits ||
      !std::all_of(integer.begin(), integer.end(), is_digit) ||
      !std::all_of(fraction.begin(), fraction.end(), is_digit)) {
    return std::nullopt;
  }
  Decimal result;
  for (const char c : integer)
    result.numerator = result.numerator * 10 + (c - '0');
  for (const char c : fraction.substr(0, max_decimals)) {
    result.numerator = result.numerator * 10 + (c - '0');
    result.scale *= 10;
  }
  if (negative) result.numerator = -result.numerator;
  return result;
}

std::optional<Decimal> decimal(Fields& fields, std::size_t index, bool negative_allowed = false) {
  const std::string_view text = fields[index];
  if (text.empty()) return std::nullopt;
  const auto result = to_decimal(text, 6);
  if (!result || (result->numerator < 0 && !negative_allowed)) {
    fields.reject();
    return std::nullopt;
  }
  return result;
}

/// `factor` / `divisor` metres per second make one unit of the field.
std::optional<double> speed(Fields& fields,
                            std::size_t index,
                            std::int64_t factor,
                            std::int64_t divisor) {
  const auto result = decimal(fields, index);
  if (!result) return std::nullopt;
  return static_cast<double>(result->numerator) * static_cast<double>(factor) /
         (static_cast<double>(result->scale) * static_cast<double>(divisor));
}

/// The system began in 1980; nanoseconds since 1970 in 64 bits end in 2262.
constexpr unsigned first_year = 1980;
constexpr unsigned last_year = 2261;

std::optional<std::chrono::year_month_day> date(Fields& fields,
                                                unsigned day,
                                                unsigned month,
                                                unsigned year) {
  const std::chrono::year_month_day result{std::chrono::year{static_cast<int>(year)},
                                           std::chrono::month{month}, std::chrono::day{day}};
  if (!result.ok() || year < first_year || year > last_year) {
    fields.reject();
    return std::nullopt;
  }
  return result;
}

/// [d]ddmm.m… and the hemisphere behind it, as degrees.
std::optional<double> angle(Fields& fields,
                            std::size_t index,
                            std::int64_t max_degrees,
                            std::string_view hemispheres) {
  const auto hemisphere = fields.letter(index + 1, hemispheres);
  const std::string_view text = fields[index];
  if (text.empty()) return std::nullopt;
  const auto value = to_decimal(text, 5);
  if (!value || text[0] == '-' || text[0] == '+' || !hemisphere) {
    fields.reject();
    return std::nullopt;
  }
  const std::int64_t degrees = value->numerator / value->scale / 100;
  const std::int64_t scaled_minutes = value->numerator - degrees * 100 * value->scale;
  const std::int64_t numerator = degrees * 60 * value->scale + scaled_minutes;
  const std::int64_t scale = 60 * value->scale;
  if (scaled_minutes >= scale || numerator > max_degrees * scale) {
    fields.reject();
    return std::nullopt;
  }
  const double result = static_cast<double>(numerator) / static_cast<double>(scale);
  return *hemisphere == hemispheres[1] ? -result : result;
}

}  // namespace

Fields::Fields(std::string_view body) {
  while (true) {
    if (count_ == fields_.size()) {
      malformed_ = true;
      return;
    }
    const std::size_t comma = body.find(',');
    fields_[count_++] = trimmed(body.substr(0, comma));
    if (comma == std::string_view::npos) return;
    body.remove_prefix(comma + 1);
  }
}

std::optional<unsigned> Fields::unsigned_number(std::size_t index, unsigned max, int base) {
  const std::string_view text = (*this)[index];
  if (text.empty()) return std::nullopt;
  unsigned value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc{} || end != text.data() + text.size() || value > max) {
    reject();
    return std::nullopt;
  }
  return value;
}

std::optional<char> Fields::letter(std::size_t index, std::string_view allowed) {
  const std::string_view text = (*this)[index];
  if (text.empty()) return std::nullopt;
  if (text.size() != 1 || allowed.find(text[0]) == std::string_view::npos) {
    reject();
    return std::nullopt;
  }
  return text[0];
}

std::optional<double> number(Fields& fields, std::size_t index) {
  const auto result = decimal(fields, index, true);
  if (!result) return std::nullopt;
  return result->value();
}

std::optional<double> number(Fields& fields, std::size_t index, double min, double max) {
  const auto result = number(fields, index);
  if (result && (*result < min || *result > max)) {
    fields.reject();
    return std::nullopt;
  }
  return result;
}

std::optional<double> dilution(Fields& fields, std::size_t index) {
  const auto result = decimal(fields, index);
  if (!result || result->numerator == 0) return std::nullopt;
  return result->value();
}

std::optional<double> metres(Fields& fields, std::size_t index) {
  const auto result = number(fields, index);
  // The standard knows one unit only, so an empty field names it too.
  if (!fields.letter(index + 1, "Mm") && !fields[index + 1].empty()) return std::nullopt;
  return result;
}

std::optional<double> knots(Fields& fields, std::size_t index) {
  return speed(fields, index, 1852, 3600);
}

std::optional<double> kilometres_per_hour(Fields& fields, std::size_t index) {
  return speed(fields, index, 10, 36);
}

std::optional<double> direction(Fields& fields, std::size_t index) {
  return number(fields, index, 0, 360);
}

std::optional<std::chrono::nanoseconds> time_of_day(Fields& fields, std::size_t index) {
  using namespace std::chrono;
  const std::string_view text = fields[index];
  if (text.empty()) return std::nullopt;
  const auto result = to_decimal(text, 6);
  if (!result || result->numerator < 0 || std::min(text.find('.'), text.size()) != 6) {
    fields.reject();
    return std::nullopt;
  }
  const std::int64_t whole = result->numerator / result->scale;
  const hours h{whole / 10000};
  const minutes m{whole / 100 % 100};
  const seconds s{whole % 100};
  if (h.count() > 23 || m.count() > 59 || s.count() > 60) {
    fields.reject();
    return std::nullopt;
  }
  const auto fraction =
      static_cast<double>(result->numerator % result->scale) / static_cast<double>(result->scale);
  return h + m + s + tools::from_seconds(fraction);
}

std::optional<std::chrono::year_month_day> short_date(Fields& fields, std::size_t index) {
  if (fields[index].empty()) return std::nullopt;
  const auto digits = fields.unsigned_number(index, 311299);
  if (!digits || fields[index].size() != 6) {
    fields.reject();
    return std::nullopt;
  }
  const unsigned year = *digits % 100;
  return date(fields, *digits / 10000, *digits / 100 % 100, year + (year < 80 ? 2000 : 1900));
}

std::optional<std::chrono::year_month_day> long_date(Fields& fields, std::size_t index) {
  const auto day = fields.unsigned_number(index, 31);
  const auto month = fields.unsigned_number(index + 1, 12);
  const auto year = fields.unsigned_number(index + 2, 9999);
  if (!day || !month || !year || (*day == 0 && *month == 0)) return std::nullopt;
  return date(fields, *day, *month, *year);
}

std::optional<Coordinates> coordinates(Fields& fields, std::size_t index) {
  const auto latitude = angle(fields, index, 90, "NS");
  const auto longitude = angle(fields, index + 2, 180, "EW");
  if (!latitude || !longitude) {
    if (latitude || longitude) fields.reject();
    return std::nullopt;
  }
  return Coordinates{*latitude, *longitude};
}

std::optional<bool> status(Fields& fields, std::size_t index) {
  const auto letter = fields.letter(index, "AV");
  if (!letter) return std::nullopt;
  return *letter == 'A';
}

std::optional<Fix_quality> quality_of(char mode_letter) {
  switch (mode_letter) {
    case 'A':
      return Fix_quality::autonomous;
    case 'D':
      return Fix_quality::differential;
    case 'P':
      return Fix_quality::precise;
    case 'R':
      return Fix_quality::rtk_fixed;
    case 'F':
      return Fix_quality::rtk_float;
    case 'E':
      return Fix_quality::estimated;
    case 'M':
      return Fix_quality::manual;
    case 'S':
      return Fix_quality::simulated;
    case 'N':
      return Fix_quality::none;
    default:
      return std::nullopt;
  }
}

std::optional<Fix_quality> mode(Fields& fields, std::size_t index) {
  const std::string_view text = fields[index];
  if (text.empty()) return std::nullopt;
  const auto result = text.size() == 1 ? quality_of(text[0]) : std::nullopt;
  if (!result) fields.reject();
  return result;
}

}  // namespace nmea
