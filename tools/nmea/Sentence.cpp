#include "tools/nmea/Sentence.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace nmea {
namespace {

/// The fields of one sentence. A field that is there but wrong marks the whole sentence as
/// malformed.
class Fields {
 public:
  explicit Fields(std::string_view body) {
    while (true) {
      if (count_ == fields_.size()) {
        malformed_ = true;
        return;
      }
      const std::size_t comma = body.find(',');
      fields_[count_++] = body.substr(0, comma);
      if (comma == std::string_view::npos) return;
      body.remove_prefix(comma + 1);
    }
  }

  [[nodiscard]] std::size_t size() const { return count_; }
  /// A field beyond the sentence's end counts as empty: older versions of the standard have fewer.
  [[nodiscard]] std::string_view operator[](std::size_t index) const {
    return index < count_ ? fields_[index] : std::string_view{};
  }
  [[nodiscard]] bool malformed() const { return malformed_; }
  void reject() { malformed_ = true; }

  std::optional<unsigned> unsigned_number(std::size_t index, unsigned max, int base = 10) {
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

  std::optional<int> integer(std::size_t index, int min, int max) {
    const std::string_view text = (*this)[index];
    if (text.empty()) return std::nullopt;
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value < min || value > max) {
      reject();
      return std::nullopt;
    }
    return value;
  }

  /// One of `allowed`.
  std::optional<char> letter(std::size_t index, std::string_view allowed) {
    const std::string_view text = (*this)[index];
    if (text.empty()) return std::nullopt;
    if (text.size() != 1 || allowed.find(text[0]) == std::string_view::npos) {
      reject();
      return std::nullopt;
    }
    return text[0];
  }

 private:
  std::array<std::string_view, 48> fields_{};
  std::size_t count_ = 0;
  bool malformed_ = false;
};

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

std::optional<double> number(Fields& fields, std::size_t index) {
  const auto result = decimal(fields, index, true);
  if (!result) return std::nullopt;
  return result->value();
}

/// 0 stands for "unknown": no geometry has a dilution of 0.
std::optional<double> dilution(Fields& fields, std::size_t index) {
  const auto result = decimal(fields, index);
  if (!result || result->numerator == 0) return std::nullopt;
  return result->value();
}

/// A length whose unit stands in the field behind it.
std::optional<double> metres(Fields& fields, std::size_t index) {
  const auto result = number(fields, index);
  const auto unit = fields.letter(index + 1, "M");
  if (result && !unit) fields.reject();
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
std::optional<double> knots(Fields& fields, std::size_t index) {
  return speed(fields, index, 1852, 3600);
}
std::optional<double> kilometres_per_hour(Fields& fields, std::size_t index) {
  return speed(fields, index, 10, 36);
}

std::optional<double> course(Fields& fields, std::size_t index) {
  const auto result = decimal(fields, index);
  if (result && result->numerator > 360 * result->scale) fields.reject();
  if (!result) return std::nullopt;
  return result->value();
}

/// hhmmss[.s…]; the leap second 60 is a time.
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
  if (h.count() > 23 || m.count() > 59 || s.count() > 60) fields.reject();
  const auto fraction =
      static_cast<double>(result->numerator % result->scale) / static_cast<double>(result->scale);
  return h + m + s + nanoseconds{std::llround(fraction * 1e9)};
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

/// ddmmyy.
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

std::optional<Coordinates> coordinates(Fields& fields, std::size_t index) {
  const auto latitude = angle(fields, index, 90, "NS");
  const auto longitude = angle(fields, index + 2, 180, "EW");
  if (!latitude || !longitude) {
    if (latitude || longitude) fields.reject();
    return std::nullopt;
  }
  return Coordinates{*latitude, *longitude};
}

/// The mode letter that NMEA 2.3 and later put behind RMC, VTG, GLL and (one per system) into GNS.
constexpr std::string_view mode_letters = "ADEFMNPRS";

Fix_quality quality_of(char mode) {
  switch (mode) {
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
    default:
      return Fix_quality::none;
  }
}

std::optional<Fix_quality> mode(Fields& fields, std::size_t index) {
  const auto letter = fields.letter(index, mode_letters);
  if (!letter) return std::nullopt;
  return quality_of(*letter);
}

std::optional<bool> status(Fields& fields, std::size_t index) {
  const auto letter = fields.letter(index, "AV");
  if (!letter) return std::nullopt;
  return *letter == 'A';
}

Gnss_system system_of(Talker talker) {
  switch (talker) {
    case Talker::gps:
      return Gnss_system::gps;
    case Talker::glonass:
      return Gnss_system::glonass;
    case Talker::galileo:
      return Gnss_system::galileo;
    case Talker::beidou:
      return Gnss_system::beidou;
    case Talker::qzss:
      return Gnss_system::qzss;
    case Talker::navic:
      return Gnss_system::navic;
    case Talker::combined:
      break;
  }
  return Gnss_system::unknown;
}

/// GP and GN number the satellites of several systems in ranges of their own.
Gnss_system system_of(Talker talker, unsigned id) {
  if (talker == Talker::glonass && id >= 33 && id <= 64) return Gnss_system::sbas;
  if (talker != Talker::gps && talker != Talker::combined) return system_of(talker);
  if (id >= 1 && id <= 32) return Gnss_system::gps;
  if ((id >= 33 && id <= 64) || (id >= 120 && id <= 158)) return Gnss_system::sbas;
  if (id >= 65 && id <= 96) return Gnss_system::glonass;
  if (id >= 193 && id <= 202) return Gnss_system::qzss;
  if (id >= 301 && id <= 336) return Gnss_system::galileo;
  if ((id >= 201 && id <= 264) || (id >= 401 && id <= 463)) return Gnss_system::beidou;
  return system_of(talker);
}

/// GSA's last field since NMEA 4.1.
std::optional<Talker> talker_of_system_id(unsigned system_id) {
  switch (system_id) {
    case 1:
      return Talker::gps;
    case 2:
      return Talker::glonass;
    case 3:
      return Talker::galileo;
    case 4:
      return Talker::beidou;
    case 5:
      return Talker::qzss;
    case 6:
      return Talker::navic;
    default:
      return std::nullopt;
  }
}

std::optional<Talker> talker_of(std::string_view address) {
  struct Entry {
    std::string_view letters;
    Talker talker;
  };
  static constexpr std::array<Entry, 9> entries{{{"GP", Talker::gps},
                                                 {"GN", Talker::combined},
                                                 {"GL", Talker::glonass},
                                                 {"GA", Talker::galileo},
                                                 {"GB", Talker::beidou},
                                                 {"BD", Talker::beidou},
                                                 {"GQ", Talker::qzss},
                                                 {"QZ", Talker::qzss},
                                                 {"GI", Talker::navic}}};
  const auto* found = std::find_if(entries.begin(), entries.end(), [&](const Entry& entry) {
    return address.substr(0, 2) == entry.letters;
  });
  if (found == entries.end()) return std::nullopt;
  return found->talker;
}

// In all of these field 0 is the address.

Sentence parse_gga(Fields& fields, Talker talker) {
  Navigation result;
  result.type = Navigation_type::gga;
  result.talker = talker;
  result.time_of_day = time_of_day(fields, 1);
  result.position = coordinates(fields, 2);
  if (const auto quality = fields.unsigned_number(6, 8)) {
    result.quality = static_cast<Fix_quality>(*quality);
    result.valid = *quality != 0;
  }
  result.satellites_in_use = fields.unsigned_number(7, 99);
  result.hdop = dilution(fields, 8);
  result.altitude_msl = metres(fields, 9);
  result.geoid_separation = metres(fields, 11);
  return result;
}

Sentence parse_gns(Fields& fields, Talker talker) {
  Navigation result;
  result.type = Navigation_type::gns;
  result.talker = talker;
  result.time_of_day = time_of_day(fields, 1);
  result.position = coordinates(fields, 2);
  for (const char letter : fields[6]) {
    if (mode_letters.find(letter) == std::string_view::npos) fields.reject();
    // The first system with a solution speaks for all.
    if (!result.quality || *result.quality == Fix_quality::none)
      result.quality = quality_of(letter);
  }
  if (result.quality) result.valid = *result.quality != Fix_quality::none;
  result.satellites_in_use = fields.unsigned_number(7, 99);
  result.hdop = dilution(fields, 8);
  result.altitude_msl = number(fields, 9);
  result.geoid_separation = number(fields, 10);
  return result;
}

Sentence parse_rmc(Fields& fields, Talker talker) {
  Navigation result;
  result.type = Navigation_type::rmc;
  result.talker = talker;
  result.time_of_day = time_of_day(fields, 1);
  result.valid = status(fields, 2);
  result.position = coordinates(fields, 3);
  result.speed = knots(fields, 7);
  result.course = course(fields, 8);
  result.date = short_date(fields, 9);
  result.quality = mode(fields, 12);
  if (result.quality == Fix_quality::none) result.valid = false;
  return result;
}

Sentence parse_gll(Fields& fields, Talker talker) {
  Navigation result;
  result.type = Navigation_type::gll;
  result.talker = talker;
  result.position = coordinates(fields, 1);
  result.time_of_day = time_of_day(fields, 5);
  result.valid = status(fields, 6);
  result.quality = mode(fields, 7);
  if (result.quality == Fix_quality::none) result.valid = false;
  return result;
}

Sentence parse_vtg(Fields& fields, Talker talker) {
  Navigation result;
  result.type = Navigation_type::vtg;
  result.talker = talker;
  result.course = course(fields, 1);
  fields.letter(2, "T");
  result.speed = knots(fields, 5);
  fields.letter(6, "N");
  if (!result.speed) result.speed = kilometres_per_hour(fields, 7);
  fields.letter(8, "K");
  return result;
}

Sentence parse_zda(Fields& fields, Talker talker) {
  Navigation result;
  result.type = Navigation_type::zda;
  result.talker = talker;
  result.time_of_day = time_of_day(fields, 1);
  const auto day = fields.unsigned_number(2, 31);
  const auto month = fields.unsigned_number(3, 12);
  const auto year = fields.unsigned_number(4, 9999);
  if (day && month && year) result.date = date(fields, *day, *month, *year);
  return result;
}

Sentence parse_gsa(Fields& fields, Talker talker) {
  Active_satellites result;
  fields.letter(1, "AM");
  if (const auto dimension = fields.unsigned_number(2, 3)) {
    if (*dimension == 0) fields.reject();
    result.dimension = static_cast<Fix_dimension>(*dimension);
  }
  if (const auto system_id = fields.unsigned_number(18, 15, 16)) {
    talker = talker_of_system_id(*system_id).value_or(talker);
  }
  for (std::size_t index = 3; index < 15; ++index) {
    if (const auto id = fields.unsigned_number(index, 999)) {
      result.used[result.used_count++] = {system_of(talker, *id), static_cast<std::uint16_t>(*id)};
    }
  }
  result.pdop = dilution(fields, 15);
  result.hdop = dilution(fields, 16);
  result.vdop = dilution(fields, 17);
  return result;
}

Sentence parse_gsv(Fields& fields, Talker talker) {
  Satellites_in_view result;
  result.talker = talker;
  result.total = fields.unsigned_number(1, 9).value_or(0);
  result.number = fields.unsigned_number(2, 9).value_or(0);
  result.in_view = fields.unsigned_number(3, 99).value_or(0);
  if (result.number == 0 || result.number > result.total) fields.reject();

  // Four fields for each satellite; one more behind them is the signal (NMEA 4.1).
  const std::size_t behind = fields.size() - std::min<std::size_t>(fields.size(), 4);
  if (behind % 4 == 1) {
    result.signal =
        static_cast<std::uint8_t>(fields.unsigned_number(fields.size() - 1, 15, 16).value_or(0));
  } else if (behind % 4 != 0) {
    fields.reject();
  }
  for (std::size_t index = 4; index + 4 <= 4 + behind && result.satellite_count < 4; index += 4) {
    const auto id = fields.unsigned_number(index, 999);
    const auto elevation = fields.integer(index + 1, -90, 90);
    const auto azimuth = fields.integer(index + 2, 0, 360);
    const auto signal = fields.integer(index + 3, 0, 99);
    if (!id) continue;  // padding
    result.satellites[result.satellite_count++] = {
        .system = system_of(talker, *id),
        .id = static_cast<std::uint16_t>(*id),
        .elevation = elevation,
        .azimuth = azimuth == 360 ? 0 : azimuth,
        .signal = signal,
    };
  }
  return result;
}

struct Type {
  std::string_view letters;
  Sentence (*parse)(Fields&, Talker);
};
constexpr std::array<Type, 8> types{{{"GGA", parse_gga},
                                     {"GNS", parse_gns},
                                     {"RMC", parse_rmc},
                                     {"GLL", parse_gll},
                                     {"VTG", parse_vtg},
                                     {"ZDA", parse_zda},
                                     {"GSA", parse_gsa},
                                     {"GSV", parse_gsv}}};

/// The part before '*', when the checksum behind it is right.
std::optional<std::string_view> verified(std::string_view line, Counters& counters) {
  const std::size_t star = line.rfind('*');
  if (star == std::string_view::npos) {
    ++counters.checksum_missing;
    return std::nullopt;
  }
  const std::string_view body = line.substr(0, star);
  const std::string_view digits = line.substr(star + 1);
  unsigned expected = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), expected, 16);
  unsigned sum = 0;
  for (const char c : body)
    sum ^= static_cast<unsigned char>(c);
  if (error != std::errc{} || digits.size() != 2 || end != digits.data() + 2 || expected != sum) {
    ++counters.checksum_mismatch;
    return std::nullopt;
  }
  return body;
}

}  // namespace

std::optional<Sentence> parse(std::string_view line, Counters& counters) {
  const auto body = verified(line, counters);
  if (!body) return std::nullopt;

  Fields fields(*body);
  const std::string_view address = fields[0];
  const auto talker = talker_of(address);
  const auto* type = std::find_if(types.begin(), types.end(), [&](const Type& candidate) {
    return address.size() == 5 && address.substr(2) == candidate.letters;
  });
  if (!talker || type == types.end()) {
    ++counters.other_sentences;
    return std::nullopt;
  }
  auto sentence = type->parse(fields, *talker);
  if (fields.malformed()) {
    ++counters.malformed_field;
    return std::nullopt;
  }
  ++counters.sentences;
  return sentence;
}

}  // namespace nmea
