#include "clients/received_data_log.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>
#include <type_traits>

#include "binding/timestamp.h"

namespace gnssClient {
namespace {

using binding::Value_type;
using lumo::services::gnss::datatypes::DT_positions_struct;
using lumo::services::gnss::datatypes::DT_positionsQuality_struct;

constexpr int significant_digits = 16;
/// Longest number in characters: sign, digits, point and four zeros or an exponent.
constexpr std::size_t max_number = 32;

constexpr auto powers_of_ten = [] {
  std::array<std::uint64_t, 20> powers{1};
  for (std::size_t i = 1; i < powers.size(); ++i)
    powers[i] = powers[i - 1] * 10;
  return powers;
}();

/// Two decimal digits of every number below 100.
constexpr auto digit_pairs = [] {
  std::array<char, 200> pairs{};
  for (std::size_t i = 0; i < 100; ++i) {
    pairs[2 * i] = static_cast<char>('0' + i / 10);
    pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
  }
  return pairs;
}();

/// Writes `value`, less than 10^8, with leading zeros.
void write_eight_digits(char* out, std::uint32_t value) {
  for (std::size_t place = 8; place != 0; value /= 100) {
    place -= 2;
    std::memcpy(out + place, digit_pairs.data() + std::size_t{2} * (value % 100), 2);
  }
}

/// Writes a number between 0.0001 and 2^53, the range of nearly all measured values, as
/// append_number() does, and returns the end. Returns null for any other number. The standard
/// library computes with numbers of any size: with it alone the path of a logged position takes a
/// sixth longer.
char* write_common_number(char* out, double value) {
  __extension__ using Wide = unsigned __int128;
  constexpr std::uint64_t least_digits = powers_of_ten[significant_digits - 1];
  constexpr int mantissa_bits = std::numeric_limits<double>::digits - 1;
  constexpr int exponent_bias = std::numeric_limits<double>::max_exponent - 1;

  const double magnitude = std::abs(value);
  if (!(magnitude >= 1e-4 && magnitude < 0x1p53)) return nullptr;
  const auto bits = std::bit_cast<std::uint64_t>(magnitude);
  const auto mantissa =
      (bits & ((std::uint64_t{1} << mantissa_bits) - 1)) | (std::uint64_t{1} << mantissa_bits);
  const int exponent = static_cast<int>(bits >> mantissa_bits) - exponent_bias;
  const auto shift = static_cast<unsigned>(mantissa_bits - exponent);  // 0 to 66

  // The decimal exponent of the next power of two (1233 / 4096 is the logarithm of 2); at most one
  // too high.
  int decimal_exponent = ((exponent + 1) * 1233) >> 12;
  const auto scale = [&] {
    return Wide{mantissa} *
           powers_of_ten[static_cast<std::size_t>(significant_digits - 1 - decimal_exponent)];
  };
  Wide scaled = scale();
  if (scaled >> shift < least_digits) {
    --decimal_exponent;
    scaled = scale();
  }
  auto digits = static_cast<std::uint64_t>(scaled >> shift);
  // Rounds to nearest, ties to even. The greatest double below a power of ten is more than half a
  // digit away from it, so no rounding leads there.
  if (shift != 0) {
    const Wide half = Wide{1} << (shift - 1);
    const Wide rest = scaled & ((half << 1U) - 1);
    if (rest > half || (rest == half && digits % 2 != 0)) ++digits;
  }

  if (value < 0) *out++ = '-';
  std::array<char, significant_digits> text;
  write_eight_digits(text.data(), static_cast<std::uint32_t>(digits / 100'000'000));
  write_eight_digits(text.data() + 8, static_cast<std::uint32_t>(digits % 100'000'000));
  const char* end = text.data() + text.size();
  while (end[-1] == '0')
    --end;
  const char* rest = text.data();
  if (decimal_exponent < 0) {
    *out++ = '0';
    *out++ = '.';
    out = std::fill_n(out, -1 - decimal_exponent, '0');
  } else {
    rest += decimal_exponent + 1;
    out = std::copy_n(text.data(), decimal_exponent + 1, out);
    if (rest < end) *out++ = '.';
  }
  return rest < end ? std::copy(rest, end, out) : out;
}

/// Writes a number like append_number().
char* write_number(char* out, double value) {
  if (char* const end = write_common_number(out, value); end != nullptr) return end;
  return std::to_chars(out, out + max_number, value, std::chars_format::general, significant_digits)
      .ptr;
}

/// A line of many short pieces; they reach the text in one piece. flush() ends the line.
class Line {
 public:
  explicit Line(std::string& text) : text_(text) {}
  ~Line() = default;
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;

  /// `piece` must not be longer than the buffer.
  Line& operator<<(std::string_view piece) {
    assert(piece.size() <= buffer_.size());
    make_room(piece.size());
    std::memcpy(end_, piece.data(), piece.size());
    end_ += piece.size();
    return *this;
  }
  template <class Value>
  requires std::is_arithmetic_v<Value> Line& operator<<(Value value) {
    make_room(max_number);
    if constexpr (std::is_floating_point_v<Value>) {
      end_ = write_number(end_, static_cast<double>(value));
    } else {
      end_ = std::to_chars(end_, end_ + max_number, +value).ptr;  // + because of bool
    }
    return *this;
  }
  void flush() {
    text_.append(buffer_.data(), end_);
    end_ = buffer_.data();
  }

 private:
  void make_room(std::size_t size) {
    if (static_cast<std::size_t>(buffer_.data() + buffer_.size() - end_) < size) flush();
  }

  std::string& text_;
  std::array<char, 1024> buffer_;  // NOLINT: filled piece by piece
  char* end_ = buffer_.data();
};

template <class Value>
void append_member(Line& line,
                   std::string_view name,
                   const boost::optional<Value>& value,
                   std::string_view name_when_absent) {
  if (value) {
    line << name << "=";
    if constexpr (std::is_enum_v<Value>) {
      line << static_cast<std::underlying_type_t<Value>>(*value);
    } else {
      line << *value;
    }
  } else {
    line << name_when_absent << " value is not set";
  }
}
template <class Value>
void append_member(Line& line, std::string_view name, const boost::optional<Value>& value) {
  append_member(line, name, value, name);
}

void append_quality(Line& line, const boost::optional<Value_type>& quality) {
  line << " (valueType is " << binding::to_text(quality) << ")";
}

template <class Value>
void append_quantity(Line& line,
                     std::string_view name,
                     const boost::optional<Value>& value,
                     const boost::optional<Value_type>& quality) {
  append_member(line, name, value);
  append_quality(line, quality);
}

void append_arrival_age(Line& line, std::uint64_t sample_us, std::uint64_t arrival_us) {
  line << ", sample is ";
  if (static_cast<std::int64_t>(arrival_us - sample_us) < 0) {
    line << sample_us - arrival_us << " us into the future compared to PLT";
  } else {
    line << arrival_us - sample_us << " us old at arrival compared to PLT";
  }
  line << ", sampleTime = " << sample_us << " arrivalTime = " << arrival_us;
}

}  // namespace

void append_number(std::string& text, double value) {
  std::array<char, max_number> number;
  text.append(number.data(), write_number(number.data(), value));
}

// The labels and their order are an interface: log evaluation tools look for them, including the
// missing comma before the yaw angle.

void append_line(std::string& text, const DT_positions_struct& position, std::uint64_t arrival_us) {
  const auto& p = position;
  Line line{text};
  line << "###### position from gnss:";
  append_member(line, " position type", p.positionType);
  append_member(line, ", messageCounter", p.messageCounter);
  append_quantity(line, ", LAT", p.LAT, p.LAT_valueType);
  append_quantity(line, ", LON", p.LON, p.LON_valueType);
  append_quantity(line, ", altitudeWGS84", p.altitudeWGS84, p.altitudeWGS84_valueType);
  append_quantity(line, ", altitudeMeanSeaLevel", p.altitudeMeanSeaLevel,
                  p.altitudeMeanSeaLevel_valueType);
  append_member(line, " yawAngle", p.yawAngle, ", yawAngle");
  append_quality(line, p.yawAngle_valueType);
  append_quantity(line, ", speed2D", p.speed2D, p.speed2D_valueType);
  append_quantity(line, ", preciseLocalTimeSeconds", p.preciseLocalTimeSeconds,
                  p.preciseLocalTimeSeconds_valueType);
  append_quantity(line, ", preciseLocalTimeNanoseconds", p.preciseLocalTimeNanoseconds,
                  p.preciseLocalTimeNanoseconds_valueType);
  if (const auto timestamp = binding::timestamp_of(p)) {
    append_arrival_age(line, timestamp->us(), arrival_us);
  }
  line.flush();
}

void append_line(std::string& text, const DT_positionsQuality_struct& quality) {
  const auto& q = quality;
  Line line{text};
  line << "###### positions quality from gnss:";
  append_member(line, " positionType", q.positionType);
  append_quantity(line, ", gDOP", q.gDOP, q.gDOP_valueType);
  append_quantity(line, ", hDOP", q.hDOP, q.hDOP_valueType);
  append_quantity(line, ", pDOP", q.pDOP, q.pDOP_valueType);
  append_quantity(line, ", vDOP", q.vDOP, q.vDOP_valueType);
  append_member(line, ", isActivatedAssistedGNSS", q.isActivatedAssistedGNSS);
  append_member(line, ", statusReceiverMode", q.statusReceiverMode);
  append_member(line, ", statusFixType", q.statusFixType);
  append_quantity(line, ", updateRateGNSS", q.updateRateGNSS, q.updateRateGNSS_valueType);
  append_quantity(line, ", satsInView", q.satsInView, q.satsInView_valueType);
  append_quantity(line, ", satsInUse", q.satsInUse, q.satsInUse_valueType);
  append_quantity(line, ", satsTracked", q.satsTracked, q.satsTracked_valueType);
  append_member(line, ", statusGNSSAntenna", q.statusGNSSAntenna);
  line.flush();
}

}  // namespace gnssClient
